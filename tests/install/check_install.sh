#!/usr/bin/env bash
# Checks the installed driver the way an integrator uses it.
# Usage: check_install.sh MODE BUILD_DIR SOURCE_DIR WORK_DIR CMAKE CPACK CXX [TOOLCHAIN EMULATOR DEB_ARCH SYSROOT]
#   cmake      install into WORK_DIR/prefix, check the layout, build the example
#              host project with find_package(plcdriver) and run it
#   pkgconfig  install, build the example with its pkg-config Makefile, run it
#   deb        build the .debs with CPack (libplcdriver1, libplcdriver-dev and,
#              with the programs, plcdriver-tools), check their contents and
#              dependencies, unpack them and build and run the example against
#              the unpacked tree, and the unpacked programs; read the unpacked
#              manual pages with man (no warnings; man finds plcpoll's page
#              through MANPATH) and try the bash completions; plcgate's
#              systemd unit and its configuration in /etc/plcgate (conffiles),
#              the unit checked by systemd-analyze verify where systemd is
# Cross builds pass their toolchain file, the emulator that runs the target's
# programs (program and arguments separated by spaces), the Debian architecture and
# the sysroot of the target; they use CMake for the example throughout.
set -euo pipefail
mode=$1 build=$2 src=$3 work=$4 cmake=$5 cpack=$6 cxx=$7
toolchain=${8:-} emulator=${9:-} deb_arch=${10:-} sysroot=${11:-}
read -r -a emulator_cmd <<<"$emulator"
[[ -n "$deb_arch" ]] || deb_arch=$(dpkg --print-architecture)
example=$src/examples/host-project
# The programs of a build, in its folder; plcdriver-tools holds the ones built.
program_paths=(tools/plcpoll/plcpoll simulator/plcsim tools/plcgate/plcgate)
# plcgate's files outside /usr: its systemd unit and the sample configuration
# with its tag file (conffiles in the package).
gate_unit=lib/systemd/system/plcgate.service
gate_conffiles=(etc/plcgate/plcgate.conf etc/plcgate/tags.csv)

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# The functions of the exported C interface, each with a manual page of its
# own: the exported symbols less the data symbols and the log handler.
functions=($(grep -vxE 'LB|LW|RWI|PLC_driver|customMessageHandler' "$src/tests/exported_symbols.txt"))

# check_man PAGE: man reads the page without a warning.
check_man() {
  local out
  out=$(MANWIDTH=80 man --warnings -E UTF-8 -l "$1" 2>&1 >/dev/null) || fail "man -l $1 failed: $out"
  [[ -z "$out" ]] || fail "man --warnings -l $1: $out"
}

# check_completion FILE COMMAND WORD EXPECTED: the completion of COMMAND WORD.
check_completion() {
  local got
  got=$(bash -c 'source "$1"; COMP_WORDS=("$2" "$3"); COMP_CWORD=1; "_$2"; echo "${COMPREPLY[*]}"' _ "$@") ||
    fail "the completion $1 failed"
  [[ "$got" == "$4" ]] || fail "$1: '$2 $3' completes to '$got', expected '$4'"
}

# check_conffiles: plcdriver-tools marks exactly plcgate's /etc files as
# conffiles, which dpkg keeps as the administrator changed them.
check_conffiles() {
  local got want
  got=$(dpkg-deb -I "$work/plcdriver-tools_${version}_${deb_arch}.deb" conffiles 2>/dev/null | sort) ||
    fail "plcdriver-tools has no conffiles"
  want=$(printf '/%s\n' "${gate_conffiles[@]}" | sort)
  [[ "$got" == "$want" ]] || fail "plcdriver-tools conffiles: '$(echo $got)', expected '$(echo $want)'"
  echo "plcdriver-tools conffiles: $(echo $got)"
}

# check_unit ROOT: plcgate's unit under ROOT passes systemd-analyze verify
# (its ExecStart names ROOT's plcgate, which must exist there). Needs
# systemd, which this check does not install: without it, it says so.
check_unit() {
  local unit=$1/$gate_unit out
  if ! command -v systemd-analyze >/dev/null; then
    echo "SKIPPED: systemd-analyze verify of plcgate.service (systemd is not installed)"
    return
  fi
  [[ -z "$emulator" ]] || {
    echo "SKIPPED: systemd-analyze verify of plcgate.service (a cross build's plcgate cannot run here)"
    return
  }
  mkdir -p "$work/unit"
  sed "s|/usr/bin/plcgate|$1/usr/bin/plcgate|" "$unit" >"$work/unit/plcgate.service"
  out=$(systemd-analyze verify --man=no "$work/unit/plcgate.service" 2>&1) ||
    fail "systemd-analyze verify plcgate.service: $out"
  [[ -z "$out" ]] || fail "systemd-analyze verify plcgate.service: $out"
  echo "plcgate.service passes systemd-analyze verify"
}

# Runs a program built for the target (through the emulator in cross builds).
run_target() {
  if [[ -n "$emulator" ]]; then
    "${emulator_cmd[@]}" "$@"
  else
    "$@"
  fi
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

# The program $1 loads libplcdriver.so.1 from the folder $2. Natively ldd
# tells; for a target program its NEEDED entry and run path are read.
check_loads_from() {
  if [[ -z "$emulator" ]]; then
    LD_LIBRARY_PATH="$2" ldd "$1" | grep -F "$2/libplcdriver.so.1" >/dev/null ||
      fail "$1 does not load $2/libplcdriver.so.1"
  else
    readelf -d "$1" | grep -F '[libplcdriver.so.1]' >/dev/null || fail "$1 does not need libplcdriver.so.1"
    readelf -d "$1" | grep -E 'R(UN)?PATH' | grep -F "$2" >/dev/null || fail "$1 has no run path to $2"
  fi
}

# The program $1 finds libplcdriver.so.1 in the folder $2 by its own run
# path, relative to itself ($ORIGIN), so the tree works wherever it is.
check_program_loads() {
  readelf -d "$1" | grep -E 'R(UN)?PATH' | grep -F '[$ORIGIN/../' >/dev/null ||
    fail "$1 has no run path relative to itself"
  if [[ -z "$emulator" ]]; then
    local got
    got=$(env -u LD_LIBRARY_PATH ldd "$1" | awk '$1 == "libplcdriver.so.1" {print $3}')
    [[ -n "$got" && $(realpath "$got") == $(realpath "$2/libplcdriver.so.1") ]] ||
      fail "$1 loads libplcdriver.so.1 from '$got', not from $2"
  fi
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
  local prog name
  for prog in "${program_paths[@]}"; do
    [[ -x "$build/$prog" ]] || continue
    name=$(basename "$prog")
    [[ -x "$work/prefix/bin/$name" ]] || fail "$name was not installed into bin/"
    run_target "$work/prefix/bin/$name" --help >"$work/$name.help" 2>&1 ||
      fail "installed $name --help failed: $(head -5 "$work/$name.help")"
    [[ -f "$work/prefix/share/man/man1/$name.1.gz" ]] || fail "the manual page of $name was not installed"
    [[ -f "$work/prefix/share/bash-completion/completions/$name" ]] || fail "the completion of $name was not installed"
    echo "installed $name runs"
  done
  if [[ -x "$build/tools/plcgate/plcgate" ]]; then
    local f
    for f in "$gate_unit" "${gate_conffiles[@]}"; do
      [[ -f "$work/prefix/$f" ]] || fail "plcgate's $f was not installed under the prefix"
    done
    echo "installed plcgate's unit and configuration under the prefix"
  fi
  local f
  for f in "${functions[@]}"; do
    [[ -f "$work/prefix/share/man/man3/$f.3.gz" ]] || fail "the manual page $f(3) was not installed"
  done
}

build_with_cmake() { # build_with_cmake PREFIX LIBDIR: find_package(plcdriver) from PREFIX
  local args=(-DCMAKE_PREFIX_PATH="$1" -DCMAKE_CXX_FLAGS=-Werror)
  if [[ -n "$toolchain" ]]; then
    # The work folder is a search root beside the sysroot, so the package
    # installed there is found where it is (not looked for inside the sysroot).
    args+=(-DCMAKE_TOOLCHAIN_FILE="$toolchain" -DPLCDRIVER_DEB_ARCH="$deb_arch" -DPLCDRIVER_SYSROOT="$sysroot"
      -DCMAKE_FIND_ROOT_PATH="$work")
  else
    args+=(-DCMAKE_CXX_COMPILER="$cxx")
  fi
  "$cmake" -S "$example" -B "$work/example" "${args[@]}" >"$work/configure.log" 2>&1 || {
    cat "$work/configure.log"
    fail "configuring the example with find_package(plcdriver) failed"
  }
  grep -q "^plcdriver_DIR:PATH=$2/cmake/plcdriver$" "$work/example/CMakeCache.txt" ||
    fail "find_package(plcdriver) did not use the package in $2/cmake/plcdriver"
  "$cmake" --build "$work/example" >"$work/build.log" 2>&1 || {
    cat "$work/build.log"
    fail "building the example failed"
  }
  check_loads_from "$work/example/plcdriver_example" "$2"
  run_target "$work/example/plcdriver_example" >"$work/example.out"
  check_output "find_package" "$work/example.out"
}

build_with_make() { # build_with_make LIBDIR: the pkg-config Makefile in a copy of the example
  cp -r "$example" "$work/make"
  (cd "$work/make" && PKG_CONFIG_PATH="$1/pkgconfig" CXX="$cxx" CXXFLAGS="-O2 -Werror" make) >"$work/make.log" 2>&1 || {
    cat "$work/make.log"
    fail "the example's Makefile failed"
  }
  check_loads_from "$work/make/plcdriver_example" "$1"
  LD_LIBRARY_PATH="$1" "$work/make/plcdriver_example" >"$work/make.out"
  check_output "pkg-config Makefile" "$work/make.out"
}

rm -rf "$work"
mkdir -p "$work"
case $mode in
  cmake)
    do_install
    build_with_cmake "$work/prefix" "$LIBDIR"
    ;;
  pkgconfig)
    [[ -z "$toolchain" ]] || fail "the pkg-config check needs a native build"
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
    version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$build/CPackConfig.cmake")
    [[ -n "$version" ]] || fail "no package version in $build/CPackConfig.cmake"
    packages=(libplcdriver1 libplcdriver-dev)
    programs=()
    for prog in "${program_paths[@]}"; do
      [[ -x "$build/$prog" ]] && programs+=("$(basename "$prog")")
    done
    [[ ${#programs[@]} -eq 0 ]] || packages+=(plcdriver-tools)
    found=$(cd "$work" && find . -maxdepth 1 -name '*.deb' | sed 's|^\./||' | sort)
    want=$(for p in "${packages[@]}"; do echo "${p}_${version}_${deb_arch}.deb"; done | sort)
    [[ "$found" == "$want" ]] || fail "expected the packages $(echo $want), found: $(echo $found)"
    echo "packages: $(echo $found)"

    # contents PACKAGE: its file paths (./usr/...), one per line.
    contents() { dpkg-deb -c "$work/${1}_${version}_${deb_arch}.deb" | awk '{print $6}' | grep -v '/$'; }
    field() { dpkg-deb -f "$work/${1}_${version}_${deb_arch}.deb" "$2"; }
    for p in "${packages[@]}"; do
      [[ $(field "$p" Package) == "$p" ]] || fail "package name of $p is $(field "$p" Package)"
      [[ $(field "$p" Architecture) == "$deb_arch" ]] || fail "architecture of $p is not $deb_arch"
      echo "$p: Depends: $(field "$p" Depends)"
      contents "$p" | sed "s|^|  $p: |"
    done
    # expect_files PACKAGE REGEX...: the package holds exactly one file for
    # each pattern and nothing else.
    expect_files() {
      local p=$1 paths n=0 re
      shift
      paths=$(contents "$p")
      for re in "$@"; do
        [[ $(grep -cE "$re" <<<"$paths") -eq 1 ]] || fail "$p: expected one file matching $re"
        n=$((n + 1))
      done
      [[ $(grep -c . <<<"$paths") -eq $n ]] || fail "$p holds other files too: $(echo $paths)"
    }
    lib='^\./usr/lib/([^/]+/)?'
    expect_files libplcdriver1 "${lib}libplcdriver\.so\.1\.[0-9]+\.[0-9]+$" "${lib}libplcdriver\.so\.1$"
    pages=()
    for f in "${functions[@]}"; do pages+=("^\./usr/share/man/man3/$f\.3\.gz$"); done
    expect_files libplcdriver-dev "${lib}libplcdriver\.so$" '^\./usr/include/plcdriver/Communication_Protocol\.h$' \
      "${lib}cmake/plcdriver/plcdriverConfig\.cmake$" "${lib}cmake/plcdriver/plcdriverConfigVersion\.cmake$" \
      "${lib}cmake/plcdriver/plcdriverTargets\.cmake$" "${lib}cmake/plcdriver/plcdriverTargets-[a-z]+\.cmake$" \
      "${lib}pkgconfig/plcdriver\.pc$" "${pages[@]}"
    depends_on() { # depends_on PACKAGE REGEX: a Depends entry matches
      tr ',' '\n' <<<"$(field "$1" Depends)" | sed 's/^ *//' | grep -qE "$2"
    }
    depends_on libplcdriver1 '^libqt[56]core[0-9a-z]*( |$)' || fail "libplcdriver1 does not depend on the Qt Core runtime"
    depends_on libplcdriver-dev "^libplcdriver1 \(= $version\)$" || fail "libplcdriver-dev does not depend on libplcdriver1 (= $version)"
    # Only the tools need libmodbus: a runtime that takes the library alone
    # does not pull it in.
    for p in libplcdriver1 libplcdriver-dev; do
      ! depends_on "$p" '^libmodbus' || fail "$p depends on libmodbus"
    done
    if [[ ${#programs[@]} -gt 0 ]]; then
      bins=()
      for prog in "${programs[@]}"; do
        bins+=("^\./usr/bin/$prog$" "^\./usr/share/man/man1/$prog\.1\.gz$"
          "^\./usr/share/bash-completion/completions/$prog$")
      done
      if [[ " ${programs[*]} " == *" plcgate "* ]]; then
        for f in "$gate_unit" "${gate_conffiles[@]}"; do bins+=("^\./${f//./\\.}$"); done
      fi
      expect_files plcdriver-tools "${bins[@]}"
      depends_on plcdriver-tools "^libplcdriver1 \(= $version\)$" || fail "plcdriver-tools does not depend on libplcdriver1 (= $version)"
      depends_on plcdriver-tools '^libmodbus5( |$)' || fail "plcdriver-tools does not depend on libmodbus5"
      if [[ " ${programs[*]} " == *" plcgate "* ]]; then
        depends_on plcdriver-tools '^libmosquitto1( |$)' || fail "plcdriver-tools does not depend on libmosquitto1"
        check_conffiles
      fi
    fi

    # The unpacked packages work as an install tree (the CMake package and
    # the .pc file find their prefix from their own location; the programs
    # load the library beside them).
    for p in "${packages[@]}"; do
      dpkg-deb -x "$work/${p}_${version}_${deb_arch}.deb" "$work/root"
    done
    check_tree "$work/root/usr"
    for f in "${functions[@]}"; do
      check_man "$work/root/usr/share/man/man3/$f.3.gz"
    done
    echo "unpacked manual pages of ${#functions[@]} functions read without warnings"
    for prog in "${programs[@]}"; do
      check_man "$work/root/usr/share/man/man1/$prog.1.gz"
      MANPATH="$work/root/usr/share/man" MANWIDTH=80 man -P cat "$prog" 2>&1 | grep -q "^ *$prog - " ||
        fail "man $prog does not find the unpacked page through MANPATH"
      echo "man $prog shows the unpacked page"
    done
    for prog in "${programs[@]}"; do
      # plcsim does not use the driver; plcpoll does.
      if readelf -d "$work/root/usr/bin/$prog" | grep -qF '[libplcdriver.so.1]'; then
        check_program_loads "$work/root/usr/bin/$prog" "$LIBDIR"
      fi
      run_target "$work/root/usr/bin/$prog" --help >"$work/$prog.help" 2>&1 ||
        fail "unpacked $prog --help failed: $(head -5 "$work/$prog.help")"
      echo "unpacked $prog runs"
    done
    completions=$work/root/usr/share/bash-completion/completions
    if [[ -f "$completions/plcpoll" ]]; then
      check_completion "$completions/plcpoll" plcpoll --no- --no-trend
      echo "unpacked completion of plcpoll completes"
    fi
    if [[ -f "$completions/plcsim" ]]; then
      check_completion "$completions/plcsim" plcsim --sta "--stations --static"
      echo "unpacked completion of plcsim completes"
    fi
    if [[ -f "$completions/plcgate" ]]; then
      check_completion "$completions/plcgate" plcgate --plc.li --plc.link
      echo "unpacked completion of plcgate completes"
    fi
    [[ ! -f "$work/root/$gate_unit" ]] || check_unit "$work/root"
    if [[ -z "$toolchain" ]]; then
      build_with_make "$LIBDIR"
    else
      build_with_cmake "$work/root/usr" "$LIBDIR"
    fi
    ;;
  *) fail "unknown mode $mode" ;;
esac
