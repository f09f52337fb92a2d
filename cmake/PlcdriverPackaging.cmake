# Debian packages of the driver, built with CPack:
#   cmake --build BUILD && (cd BUILD && cpack -G DEB)
# One package per install component:
#   libplcdriver1     component "runtime": the shared library and its SONAME
#                     link; what a board with an HMI runtime needs.
#   libplcdriver-dev  component "development": header, libplcdriver.so link,
#                     CMake package and pkg-config file.
#   plcdriver-tools   component "tools": the programs (plcpoll, plcsim,
#                     plcgate with its systemd unit and its configuration in
#                     /etc/plcgate), for commissioning on the board and the
#                     edge gateway; only it needs libmodbus and libmosquitto.
# Anything installed with COMPONENT tools lands in plcdriver-tools; a build
# without the programs makes no tools package. The manual pages and bash
# completions go with their packages (PlcdriverManPages.cmake): the
# functions' pages with libplcdriver-dev, the programs' with plcdriver-tools.
include(${CMAKE_CURRENT_LIST_DIR}/PlcdriverManPages.cmake)
set(CPACK_PACKAGE_NAME plcdriver)
set(CPACK_PACKAGE_VENDOR "plcdriver developers")
set(CPACK_PACKAGE_CONTACT "plcdriver developers <plcdriver-dev@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "PLC communication driver library for HMI runtimes (Modbus TCP and remote frame)")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE) # one package per component
get_cmake_property(CPACK_COMPONENTS_ALL COMPONENTS)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# Dependencies between the components (cpack_add_component below) become
# "Depends: PACKAGE (= VERSION)".
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

if(PLCDRIVER_QT_MAJOR EQUAL 6)
  set(_plcdriver_qt_runtime libqt6core6)
  set(_plcdriver_qt_dev qt6-base-dev)
else()
  set(_plcdriver_qt_runtime libqt5core5a)
  set(_plcdriver_qt_dev qtbase5-dev)
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libplcdriver1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "PLC communication driver library for HMI runtimes\nThe shared library libplcdriver.so.1 that an HMI runtime loads to talk to\nPLCs over Modbus TCP or the driver's remote frame.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libplcdriver-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "PLC communication driver library for HMI runtimes (development files)\nThe header, the CMake package (find_package(plcdriver)), the pkg-config\nfile (plcdriver.pc) and a manual page per function for building a runtime\nagainst libplcdriver.so.1.")
# The CMake package and the .pc file find Qt Core's development files.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ${_plcdriver_qt_dev})
# A development package holds no programs or libraries of its own.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME plcdriver-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "PLC communication driver: commissioning tools and the MQTT gateway\nplcpoll polls PLC tags through libplcdriver.so.1, writes values and finds\nthe stations that answer; plcsim simulates a PLC (Modbus TCP and the\nremote frame); plcgate publishes PLC tags to an MQTT broker and takes\nwrites from it (a systemd service, configured in /etc/plcgate). With\ntheir manual pages and bash completions.")
# plcgate's configuration in /etc is the administrator's once installed:
# dpkg keeps changes to it on upgrades (conffiles).
get_property(_plcdriver_conffiles GLOBAL PROPERTY PLCGATE_CONFFILES)
if(_plcdriver_conffiles)
  list(JOIN _plcdriver_conffiles "\n" _plcdriver_conffiles)
  file(WRITE ${PROJECT_BINARY_DIR}/package/tools/conffiles "${_plcdriver_conffiles}\n")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/package/tools/conffiles)
endif()

include(CPackComponent)
cpack_add_component(runtime DISPLAY_NAME "Library")
cpack_add_component(development DISPLAY_NAME "Development files" DEPENDS runtime)
cpack_add_component(tools DISPLAY_NAME "Tools" DEPENDS runtime)

if(CMAKE_CROSSCOMPILING)
  # dpkg-shlibdeps reads this machine's package database, which knows nothing
  # of the board's libraries: the dependencies are named here. They are what
  # the programs and the library load (readelf -d: NEEDED); the on-board check
  # (tests/board) unpacks the packages into a root file system that has
  # exactly these dependencies and runs the programs there. A program added
  # to the tools that loads another library adds its package here.
  if(NOT PLCDRIVER_DEB_ARCH)
    message(FATAL_ERROR "cross build without PLCDRIVER_DEB_ARCH (use cmake/toolchains/debian-sysroot.cmake)")
  endif()
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${PLCDRIVER_DEB_ARCH})
  set(_plcdriver_cxx_runtime "libstdc++6, libgcc-s1, libc6")
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${_plcdriver_qt_runtime}, ${_plcdriver_cxx_runtime}")
  set(_plcdriver_tools_libs "libmodbus5")
  if(TARGET plcgate)
    string(APPEND _plcdriver_tools_libs ", libmosquitto1")
  endif()
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${_plcdriver_qt_runtime}, ${_plcdriver_tools_libs}, ${_plcdriver_cxx_runtime}")
else()
  # Library dependencies (libc6, libstdc++6, the Qt Core runtime, libmodbus,
  # libmosquitto)
  # with versions, computed by dpkg-shlibdeps. The programs' libplcdriver.so.1
  # is this build's own (found in driver/; its package is named by the
  # component dependency above).
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/driver)
endif()

include(CPack)
