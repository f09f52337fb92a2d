# Qt 5 package for cross-building to aarch64 on a Debian machine without the
# arm64 Qt development package (qtbase5-dev:arm64 cannot be installed beside
# the build machine's qtbase5-dev without replacing many of its packages).
#
# It combines:
#   - the arm64 Qt Core runtime library (libqt5core5a:arm64, multi-arch),
#   - the build machine's Qt 5 headers (qtbase5-dev), which are identical
#     for all architectures except QtCore/qconfig.h; the QtCore/qconfig.h
#     beside this file corrects that one header for aarch64,
#   - the build machine's moc/rcc (they generate architecture-neutral code).
#
# Only the Core component is provided; it defines the target Qt5::Core.
set(_plcdriver_qt5_arch aarch64-linux-gnu)

find_library(PLCDRIVER_QT5CORE_ARM64_LIBRARY NAMES libQt5Core.so.5
  PATHS /usr/lib/${_plcdriver_qt5_arch} NO_DEFAULT_PATH)
file(GLOB _plcdriver_qt5_headers /usr/include/*-linux-gnu*/qt5/QtCore/qconfig.h)
list(FILTER _plcdriver_qt5_headers EXCLUDE REGEX "/${_plcdriver_qt5_arch}/")
list(LENGTH _plcdriver_qt5_headers _plcdriver_n)

set(Qt5_FOUND FALSE)
if(NOT PLCDRIVER_QT5CORE_ARM64_LIBRARY)
  set(Qt5_NOT_FOUND_MESSAGE "libQt5Core.so.5 for ${_plcdriver_qt5_arch} not found (install libqt5core5a:arm64)")
  return()
endif()
if(NOT _plcdriver_n EQUAL 1)
  set(Qt5_NOT_FOUND_MESSAGE "expected one set of Qt 5 headers of the build machine (qtbase5-dev), found: ${_plcdriver_qt5_headers}")
  return()
endif()
get_filename_component(_plcdriver_qt5_inc ${_plcdriver_qt5_headers} DIRECTORY)
get_filename_component(_plcdriver_qt5_inc ${_plcdriver_qt5_inc} DIRECTORY)

# Headers and library must be the same Qt release.
file(STRINGS ${_plcdriver_qt5_headers} _plcdriver_qt5_ver REGEX "^#define QT_VERSION_STR ")
string(REGEX REPLACE ".*\"(.*)\".*" "\\1" _plcdriver_qt5_ver "${_plcdriver_qt5_ver}")
get_filename_component(_plcdriver_qt5_real ${PLCDRIVER_QT5CORE_ARM64_LIBRARY} REALPATH)
if(NOT _plcdriver_qt5_real MATCHES "libQt5Core\\.so\\.${_plcdriver_qt5_ver}$")
  set(Qt5_NOT_FOUND_MESSAGE "Qt 5 headers ${_plcdriver_qt5_ver} do not match ${_plcdriver_qt5_real}")
  return()
endif()

foreach(_plcdriver_comp ${Qt5_FIND_COMPONENTS})
  if(NOT _plcdriver_comp STREQUAL "Core")
    set(Qt5_NOT_FOUND_MESSAGE "only Qt5 Core is available for ${_plcdriver_qt5_arch}, not ${_plcdriver_comp}")
    return()
  endif()
endforeach()

if(NOT TARGET Qt5::Core)
  add_library(Qt5::Core SHARED IMPORTED)
  set_target_properties(Qt5::Core PROPERTIES
    IMPORTED_LOCATION ${_plcdriver_qt5_real}
    IMPORTED_SONAME libQt5Core.so.5
    INTERFACE_INCLUDE_DIRECTORIES "${CMAKE_CURRENT_LIST_DIR};${_plcdriver_qt5_inc};${_plcdriver_qt5_inc}/QtCore"
    INTERFACE_COMPILE_DEFINITIONS QT_CORE_LIB
    INTERFACE_QT_MAJOR_VERSION 5)
endif()
foreach(_plcdriver_tool moc rcc)
  if(NOT TARGET Qt5::${_plcdriver_tool} AND EXISTS /usr/lib/qt5/bin/${_plcdriver_tool})
    add_executable(Qt5::${_plcdriver_tool} IMPORTED)
    set_target_properties(Qt5::${_plcdriver_tool} PROPERTIES IMPORTED_LOCATION /usr/lib/qt5/bin/${_plcdriver_tool})
  endif()
endforeach()

set(Qt5Core_FOUND TRUE)
set(Qt5Core_VERSION ${_plcdriver_qt5_ver})
set(Qt5Core_LIBRARIES Qt5::Core)
set(Qt5_VERSION ${_plcdriver_qt5_ver})
set(Qt5_FOUND TRUE)
