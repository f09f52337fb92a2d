# Cross build for a board running Debian 12, against its root file system:
#
#   scripts/make-sysroot.sh armhf          # once: build-sysroot/armhf/
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/debian-sysroot.cmake \
#         -DPLCDRIVER_DEB_ARCH=armhf
#
# PLCDRIVER_DEB_ARCH (or the environment variable of that name) is the board's
# Debian architecture:
#   armhf   ARMv7, hard float        arm-linux-gnueabihf-g++  qemu-arm
#   armel   ARMv5, soft float        arm-linux-gnueabi-g++    qemu-arm
#   arm64   64-bit ARM               aarch64-linux-gnu-g++    qemu-aarch64
#   s390x   IBM Z (big-endian)       s390x-linux-gnu-g++      qemu-s390x
# PLCDRIVER_SYSROOT (or the environment variable) names the root file system;
# by default build-sysroot/ARCH/ in the source tree, as make-sysroot.sh makes
# it. Compilers are Debian's cross compilers (scripts/install-deps.sh ARCH).
#
# Headers, libraries and CMake packages (Qt 5, GoogleTest) come from the
# sysroot only; programs that run during the build (Qt's moc and rcc) are the
# build machine's, see debian-sysroot-host-tools.cmake. Programs built for the
# board run on this machine under qemu-user with the sysroot as library prefix
# (CMAKE_CROSSCOMPILING_EMULATOR), for ctest and GoogleTest's test discovery.

# The try_compile projects CMake makes re-read this file: hand them the choice.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PLCDRIVER_DEB_ARCH PLCDRIVER_SYSROOT)

if(NOT PLCDRIVER_DEB_ARCH AND DEFINED ENV{PLCDRIVER_DEB_ARCH})
  set(PLCDRIVER_DEB_ARCH $ENV{PLCDRIVER_DEB_ARCH})
endif()
if(PLCDRIVER_DEB_ARCH STREQUAL "armhf")
  set(_plcdriver_triplet arm-linux-gnueabihf)
  set(_plcdriver_cpu arm)
  set(_plcdriver_qemu qemu-arm)
elseif(PLCDRIVER_DEB_ARCH STREQUAL "armel")
  set(_plcdriver_triplet arm-linux-gnueabi)
  set(_plcdriver_cpu arm)
  set(_plcdriver_qemu qemu-arm)
elseif(PLCDRIVER_DEB_ARCH STREQUAL "arm64")
  set(_plcdriver_triplet aarch64-linux-gnu)
  set(_plcdriver_cpu aarch64)
  set(_plcdriver_qemu qemu-aarch64)
elseif(PLCDRIVER_DEB_ARCH STREQUAL "s390x")
  set(_plcdriver_triplet s390x-linux-gnu)
  set(_plcdriver_cpu s390x)
  set(_plcdriver_qemu qemu-s390x)
else()
  message(FATAL_ERROR "debian-sysroot.cmake: set PLCDRIVER_DEB_ARCH to armhf, armel, arm64 or s390x "
                      "(got '${PLCDRIVER_DEB_ARCH}')")
endif()
set(PLCDRIVER_DEB_ARCH ${PLCDRIVER_DEB_ARCH} CACHE STRING "Debian architecture of the board (armhf, armel, arm64, s390x)")

if(NOT PLCDRIVER_SYSROOT)
  if(DEFINED ENV{PLCDRIVER_SYSROOT})
    set(PLCDRIVER_SYSROOT $ENV{PLCDRIVER_SYSROOT})
  else()
    get_filename_component(PLCDRIVER_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../../build-sysroot/${PLCDRIVER_DEB_ARCH} ABSOLUTE)
  endif()
endif()
if(NOT EXISTS ${PLCDRIVER_SYSROOT}/usr/include/${_plcdriver_triplet})
  message(FATAL_ERROR "debian-sysroot.cmake: no ${PLCDRIVER_DEB_ARCH} root file system in ${PLCDRIVER_SYSROOT} "
                      "(make it with scripts/make-sysroot.sh ${PLCDRIVER_DEB_ARCH})")
endif()
set(PLCDRIVER_SYSROOT ${PLCDRIVER_SYSROOT} CACHE PATH "Root file system of the board (scripts/make-sysroot.sh)")

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${_plcdriver_cpu})
set(CMAKE_LIBRARY_ARCHITECTURE ${_plcdriver_triplet})
set(CMAKE_SYSROOT ${PLCDRIVER_SYSROOT})
set(CMAKE_C_COMPILER ${_plcdriver_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${_plcdriver_triplet}-g++)
# GCC on 32-bit ARM notes at every std::sort of a vector that the passing of
# such iterators changed in GCC 7.1; everything here is built by one GCC, so
# the note says nothing.
if(_plcdriver_cpu STREQUAL "arm")
  string(APPEND CMAKE_CXX_FLAGS_INIT " -Wno-psabi")
endif()

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config (libmodbus) reads the sysroot's .pc files and prefixes their
# paths with the sysroot.
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${PLCDRIVER_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    "${PLCDRIVER_SYSROOT}/usr/lib/${_plcdriver_triplet}/pkgconfig:${PLCDRIVER_SYSROOT}/usr/share/pkgconfig")
unset(ENV{PKG_CONFIG_PATH})

find_program(PLCDRIVER_QEMU ${_plcdriver_qemu})
if(PLCDRIVER_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${PLCDRIVER_QEMU} -L ${PLCDRIVER_SYSROOT})
endif()

# Qt's build tools run here: see the file named below (read after project()).
set(CMAKE_PROJECT_INCLUDE ${CMAKE_CURRENT_LIST_DIR}/debian-sysroot-host-tools.cmake)
