#!/usr/bin/env bash
# Checks the installed driver the way an integrator uses it.
# Usage: check_install.sh MODE BUILD_DIR SOURCE_DIR WORK_DIR CMAKE CPACK CXX
#   cmake      install into WORK_DIR/prefix, check the layout, build the example
#              host project with find_package(plcdriver) and run it
#   pkgconfig  install, build the example with its pkg-config Makefile, run it
#   deb        build the .deb with CPack, check its contents and dependencies,
#              unpack it and build and run the example against the unpacked tree
set -euo pipefail
mode=$1 build=$2 src=$3 work=$4 cmake=$5 cpack=$6 cxx=$7
example=$src/examples/host-project

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# What the example prints for its one read of two holding registers at 100 of
# station 1: a Modbus TCP read request (transaction 0, function 3, address
# 0xA000 + 100, two registers) and the length of its reply (9 + 4 bytes).
expected_output() {
  printf '%s\n' "read list entries: 1" \
    "frame (12 bytes): 00 00 00 00 00 06 01 03 A0 64 00 02" \
    "expected reply length: 13"
}

check_output() { # check_output LABEL FILE
  if ! diff -u <(expected_output) "$2"; then
    fail "$1: the example printed something else (diff above)"
  fi
  echo "$1: example output as expected"
}

# The installed tree under $1: library with SONAME links, one public header,
# CMake package and pkg-config file; no static library, no internal headers.
check_tree() {
  local root=$1 lib libdir
  lib=$(find "$root" -name 'libplcdriver.so.*.*.*' -type f)
  [[ $(wc -l <<<"$lib") -eq 1 && -n "$lib" ]] || fail "expected one libplcdriver.so.X.Y.Z under $root, found: $lib"
  libdir=$(dirname "$lib")
  [[ $(readlink "$libdir/libplcdriver.so.1") == "$(basename "$lib")" ]] || fail "libplcdriver.so.1 does not point to $(basename "$lib")"
  [[ $(readlink "$libdir/libplcdriver.so") == libplcdriver.so.1 ]] || fail "libplcdriver.so does not point to libplcdriver.so.1"
  readelf -d "$lib" | grep 'Library soname: \[libplcdriver.so.1\]' >/dev/null || fail "SONAME of $lib is not libplcdriver.so.1"
  local headers
  headers=$(cd "$root" && find . -name '*.h' | sort)
  [[ "$headers" == "./include/plcdriver/Communication_Protocol.h" ]] || fail "installed headers: $headers"
  [[ -z $(find "$root" -name '*.a') ]] || fail "a static library was installed: $(find "$root" -name '*.a')"
  for f in plcdriverConfig.cmake plcdriverConfigVersion.cmake plcdriverTargets.cmake; do
    [[ -f "$libdir/cmake/plcdriver/$f" ]] || fail "missing $libdir/cmake/plcdriver/$f"
  done
  [[ -f "$libdir/pkgconfig/plcdriver.pc" ]] || fail "missing $libdir/pkgconfig/plcdriver.pc"
  if grep -rqF -e "$build" -e "$src" "$libdir/cmake/plcdriver" "$libdir/pkgconfig/plcdriver.pc"; then
    fail "installed package files refer to the build or source folder"
  fi
  echo "installed tree under $root: layout as expected"
  LIBDIR=$libdir
}

do_install() {
  "$cmake" --install "$build" --prefix "$work/prefix" >"$work/install.log" 2>&1 || {
    cat "$work/install.log"
    fail "cmake --install failed"
  }
  check_tree "$work/prefix"
  # The programs, when this build has them, install into bin/ and run from
  # there with the installed library.
  local prog
  for prog in tools/plcpoll/plcpoll simulator/plcsim; do
    [[ -x "$build/$prog" ]] || continue
    [[ -x "$work/prefix/bin/$(basename $prog)" ]] || fail "$(basename $prog) was not installed into bin/"
    "$work/prefix/bin/$(basename $prog)" --help >"$work/$(basename $prog).help" 2>&1 ||
      fail "installed $(basename $prog) --help failed: $(head -5 "$work/$(basename $prog).help")"
    echo "installed $(basename $prog) runs"
  done
}

build_with_make() { # build_with_make LIBDIR: the pkg-config Makefile in a copy of the example
  cp -r "$example" "$work/make"
  (cd "$work/make" && PKG_CONFIG_PATH="$1/pkgconfig" CXX="$cxx" CXXFLAGS="-O2 -Werror" make) >"$work/make.log" 2>&1 || {
    cat "$work/make.log"
    fail "the example's Makefile failed"
  }
  LD_LIBRARY_PATH="$1" ldd "$work/make/plcdriver_example" | grep -F "$1/libplcdriver.so.1" >/dev/null ||
    fail "the Makefile-built example does not load $1/libplcdriver.so.1"
  LD_LIBRARY_PATH="$1" "$work/make/plcdriver_example" >"$work/make.out"
  check_output "pkg-config Makefile" "$work/make.out"
}

rm -rf "$work"
mkdir -p "$work"
case $mode in
  cmake)
    do_install
    "$cmake" -S "$example" -B "$work/example" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_CXX_COMPILER="$cxx" \
      -DCMAKE_CXX_FLAGS=-Werror >"$work/configure.log" 2>&1 || {
      cat "$work/configure.log"
      fail "configuring the example with find_package(plcdriver) failed"
    }
    grep -q "^plcdriver_DIR:PATH=$LIBDIR/cmake/plcdriver$" "$work/example/CMakeCache.txt" ||
      fail "find_package(plcdriver) did not use the installed package"
    "$cmake" --build "$work/example" >"$work/build.log" 2>&1 || {
      cat "$work/build.log"
      fail "building the example failed"
    }
    ldd "$work/example/plcdriver_example" | grep -F "$LIBDIR/libplcdriver.so.1" >/dev/null ||
      fail "the CMake-built example does not load $LIBDIR/libplcdriver.so.1"
    "$work/example/plcdriver_example" >"$work/example.out"
    check_output "find_package" "$work/example.out"
    ;;
  pkgconfig)
    do_install
    [[ $(PKG_CONFIG_PATH="$LIBDIR/pkgconfig" pkg-config --modversion plcdriver) =~ ^1\.[0-9]+\.[0-9]+$ ]] ||
      fail "pkg-config --modversion plcdriver is not 1.x.y"
    build_with_make "$LIBDIR"
    ;;
  deb)
    (cd "$build" && "$cpack" -G DEB -B "$work" --config "$build/CPackConfig.cmake") >"$work/cpack.log" 2>&1 || {
      cat "$work/cpack.log"
      fail "cpack failed"
    }
    deb=$(find "$work" -maxdepth 1 -name '*.deb')
    [[ $(wc -l <<<"$deb") -eq 1 && -n "$deb" ]] || fail "expected one .deb in $work, found: $deb"
    echo "package: $(basename "$deb")"
    dpkg-deb -c "$deb" | tee "$work/contents.txt"
    paths=$(awk '{print $6}' "$work/contents.txt")
    for want in '^\./usr/lib/([^/]+/)?libplcdriver\.so\.1\.[0-9]+\.[0-9]+$' \
      '^\./usr/lib/([^/]+/)?libplcdriver\.so\.1$' '^\./usr/lib/([^/]+/)?libplcdriver\.so$' \
      '^\./usr/include/plcdriver/Communication_Protocol\.h$' \
      '^\./usr/lib/([^/]+/)?cmake/plcdriver/plcdriverConfig\.cmake$' \
      '^\./usr/lib/([^/]+/)?cmake/plcdriver/plcdriverConfigVersion\.cmake$' \
      '^\./usr/lib/([^/]+/)?pkgconfig/plcdriver\.pc$'; do
      grep -qE "$want" <<<"$paths" || fail "the package lacks $want"
    done
    if grep -qE '\.a$|Driver_Internal\.h|Driver_Lock\.h|^\./usr/bin/' <<<"$paths"; then
      fail "the package holds files it must not: $(grep -E '\.a$|Driver_Internal\.h|Driver_Lock\.h|^\./usr/bin/' <<<"$paths")"
    fi
    depends=$(dpkg-deb -f "$deb" Depends)
    echo "Depends: $depends"
    grep -qE '(^|, )libqt[56]core[0-9a-z]*( |,|$)' <<<"$depends" || fail "the package does not depend on the Qt Core runtime"
    [[ $(dpkg-deb -f "$deb" Package) == plcdriver ]] || fail "package name is not plcdriver"
    [[ $(dpkg-deb -f "$deb" Architecture) == "$(dpkg --print-architecture)" ]] || fail "package architecture is not the machine's"
    # The unpacked package works as an install tree (the .pc file is relocatable).
    dpkg-deb -x "$deb" "$work/root"
    check_tree "$work/root/usr"
    build_with_make "$LIBDIR"
    ;;
  *) fail "unknown mode $mode" ;;
esac
