# Read after each project() of a build with debian-sysroot.cmake.
#
# Qt 5's CMake package in the sysroot names its build tools (moc, rcc, qmake)
# inside the sysroot: programs of the board's architecture, which cannot run
# here. It creates the targets Qt5::moc, Qt5::rcc and Qt5::qmake only when they
# do not exist yet, so they are made here first, pointing at the build
# machine's tools of the same Qt release (qtbase5-dev-tools). moc and rcc write
# the same code for every architecture.
if(NOT CMAKE_CROSSCOMPILING)
  return()
endif()
foreach(_plcdriver_tool moc rcc qmake)
  if(TARGET Qt5::${_plcdriver_tool})
    continue()
  endif()
  find_program(PLCDRIVER_HOST_QT5_${_plcdriver_tool} ${_plcdriver_tool}
               PATHS /usr/lib/qt5/bin /usr/lib/${CMAKE_HOST_SYSTEM_PROCESSOR}-linux-gnu/qt5/bin
               NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
  if(PLCDRIVER_HOST_QT5_${_plcdriver_tool})
    add_executable(Qt5::${_plcdriver_tool} IMPORTED GLOBAL)
    set_target_properties(Qt5::${_plcdriver_tool} PROPERTIES IMPORTED_LOCATION
                                                             ${PLCDRIVER_HOST_QT5_${_plcdriver_tool}})
  else()
    message(STATUS "Qt5 ${_plcdriver_tool} of the build machine not found (qtbase5-dev-tools); "
                   "Qt5::${_plcdriver_tool} stays the board's, which cannot run here")
  endif()
endforeach()
