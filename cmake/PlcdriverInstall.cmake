# Install rules of the driver (included from driver/CMakeLists.txt):
#   lib/libplcdriver.so.1.0.0 with its SONAME link (component "runtime"),
#   the libplcdriver.so link, include/plcdriver/Communication_Protocol.h,
#   lib/cmake/plcdriver/ (find_package(plcdriver) -> plcdriver::plcdriver) and
#   lib/pkgconfig/plcdriver.pc (component "development").
# The static library and the internal headers are not installed. The manual
# pages are built and installed by PlcdriverManPages.cmake once every program
# is known; the option is set here, before the tests look at it.
option(PLCDRIVER_BUILD_MAN "Build and install the manual pages (needs scdoc)" ON)
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(PLCDRIVER_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/plcdriver)

# Installed users include <plcdriver/Communication_Protocol.h>.
target_include_directories(plcdriver INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

install(TARGETS plcdriver EXPORT plcdriverTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/driver/Communication_Protocol.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/plcdriver COMPONENT development)

install(EXPORT plcdriverTargets NAMESPACE plcdriver:: DESTINATION ${PLCDRIVER_CMAKE_DIR} COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/plcdriverConfig.cmake.in
  ${PROJECT_BINARY_DIR}/plcdriverConfig.cmake INSTALL_DESTINATION ${PLCDRIVER_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/plcdriverConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/plcdriverConfig.cmake ${PROJECT_BINARY_DIR}/plcdriverConfigVersion.cmake
  DESTINATION ${PLCDRIVER_CMAKE_DIR} COMPONENT development)

# The .pc file finds its prefix from its own location, so the package stays
# correct when installed with `cmake --install --prefix` or unpacked elsewhere.
file(RELATIVE_PATH PLCDRIVER_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" PLCDRIVER_PC_TO_PREFIX "${PLCDRIVER_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/plcdriver.pc.in ${PROJECT_BINARY_DIR}/plcdriver.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/plcdriver.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
