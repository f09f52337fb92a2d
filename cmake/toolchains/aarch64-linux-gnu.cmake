# Cross-build for 64-bit ARM Linux boards (aarch64) with Debian's cross
# compiler and multi-arch libraries:
#
#   bash scripts/install-deps.sh build arm64
#   cmake -S . -B build-arm64 \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
#
# Qt Core comes from the arm64 runtime package (libqt5core5a:arm64, which
# co-installs with the machine's own Qt) and the build machine's Qt 5 headers;
# see qt5-aarch64/Qt5Config.cmake. Pass -DQt5_DIR=... to use another Qt 5
# package folder instead (for example one in a board's sysroot).
#
# Test programs run under qemu-aarch64 (Debian package qemu-user) through
# CMAKE_CROSSCOMPILING_EMULATOR, both for ctest and for GoogleTest's test
# discovery. The arm64 C library (libc6:arm64, pulled in with Qt) provides the
# program loader, so no library prefix is needed.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

find_program(PLCDRIVER_QEMU_AARCH64 qemu-aarch64)
if(PLCDRIVER_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${PLCDRIVER_QEMU_AARCH64})
endif()

# Programs (moc, pkg-config) are the build machine's; libraries, headers and
# packages are looked up in the multi-arch directories of the same root.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# pkg-config must only see arm64 .pc files.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")

set(Qt5_DIR ${CMAKE_CURRENT_LIST_DIR}/qt5-aarch64 CACHE PATH "Qt 5 package for aarch64")
