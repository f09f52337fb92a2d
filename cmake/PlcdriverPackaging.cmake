# Debian package of the driver, built with CPack:
#   cmake --build BUILD && (cd BUILD && cpack -G DEB)
# One package, "plcdriver", holds the components "runtime" (the shared library
# and its SONAME link) and "development" (header, CMake package, pkg-config
# file). The programs (component "tools") are installed by `cmake --install`
# but left out of the package.
set(CPACK_PACKAGE_NAME plcdriver)
set(CPACK_PACKAGE_VENDOR "plcdriver developers")
set(CPACK_PACKAGE_CONTACT "plcdriver developers <plcdriver-dev@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "PLC communication driver library for HMI runtimes (Modbus TCP and remote frame)")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_COMPONENTS_ALL runtime development)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
  "The shared library libplcdriver.so.1 that an HMI runtime loads to talk to\nPLCs, with its header, CMake package (find_package(plcdriver)) and\npkg-config file (plcdriver.pc).")

if(PLCDRIVER_QT_MAJOR EQUAL 6)
  set(_plcdriver_qt_runtime libqt6core6)
  set(CPACK_DEBIAN_PACKAGE_SUGGESTS qt6-base-dev)
else()
  set(_plcdriver_qt_runtime libqt5core5a)
  set(CPACK_DEBIAN_PACKAGE_SUGGESTS qtbase5-dev)
endif()

if(CMAKE_CROSSCOMPILING)
  # dpkg-shlibdeps reads the build machine's package database; for a board
  # the dependencies are named explicitly.
  if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
  endif()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "${_plcdriver_qt_runtime}, libstdc++6, libc6")
else()
  # Library dependencies (libc6, libstdc++6, the Qt Core runtime) with
  # versions, computed by dpkg-shlibdeps.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()

include(CPack)
