#!/usr/bin/env bash
# Builds and runs every test: the normal build (warnings are errors), then the
# address+undefined sanitizer build, then the thread sanitizer build of the
# concurrency tests, then a short run of the libFuzzer targets, then the Qt 6
# build, then the cross builds for the boards (arm64, armhf, armel; unit tests
# under qemu-user, the packages installed on a board and its plcpoll run
# against the PC's plcsim) and for s390x (big-endian: library and unit
# tests). Installs missing Debian packages first.
#
# SUITES picks suites by name (default: all), e.g. SUITES="armhf s390x":
#   normal asan tsan fuzz qt6 arm64 armhf armel s390x
set -uo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=${JOBS:-$(nproc)}
all_suites="normal asan tsan fuzz qt6 arm64 armhf armel s390x"
suites=${SUITES:-$all_suites}
for s in $suites; do
  [[ " $all_suites " == *" $s "* ]] || { echo "test.sh: unknown suite '$s' in SUITES (known: $all_suites)" >&2; exit 2; }
done
wanted() { [[ " $suites " == *" $1 "* ]]; }

bash scripts/install-deps.sh build test modbus fuzz leaks package || exit 1

summary=()
total_pass=0
total_fail=0
status=0

# run_suite NAME BUILD_DIR CTEST_ARGS -- CMAKE_ARGS...
run_suite() {
  local name=$1 dir=$2 ctest_args=$3
  shift 3
  echo "==== $name: configure and build ($dir)"
  if ! cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPLCDRIVER_WERROR=ON "$@" >"$dir.configure.log" 2>&1; then
    cat "$dir.configure.log"; echo "$name: configure failed"; status=1; summary+=("$name: configure failed"); return
  fi
  # SUITE_TARGETS (set for one call) builds only those targets.
  if ! cmake --build "$dir" -j"$jobs" ${SUITE_TARGETS:+--target $SUITE_TARGETS} >"$dir.build.log" 2>&1; then
    grep -E "error|warning" "$dir.build.log" | head -50; echo "$name: build failed"; status=1
    summary+=("$name: build failed"); return
  fi
  echo "==== $name: ctest"
  local log="$dir.ctest.log"
  (cd "$dir" && ctest --output-on-failure -j"$jobs" --timeout 600 $ctest_args) 2>&1 | tee "$log"
  local rc=${PIPESTATUS[0]}
  local line
  line=$(grep -E "tests passed, [0-9]+ tests? failed out of [0-9]+" "$log" | tail -1)
  if [[ -n "$line" ]]; then
    local failed total
    failed=$(sed -E 's/.*passed, ([0-9]+) tests? failed out of ([0-9]+).*/\1/' <<<"$line")
    total=$(sed -E 's/.*failed out of ([0-9]+).*/\1/' <<<"$line")
    total_pass=$((total_pass + total - failed))
    total_fail=$((total_fail + failed))
    summary+=("$name: $((total - failed)) passed, $failed failed")
  else
    summary+=("$name: no tests ran")
    status=1
  fi
  [[ $rc -eq 0 ]] || status=1
}

mkdir -p build-tests
# The benchmarks are built and run by scripts/benchmarks.sh, not here. The
# sanitizer builds are optimised lightly (-O1, line tables only), which keeps
# their compile time down; the thread sanitizer build makes only the programs
# of the "threads" tests.
timed() {
  local start=$SECONDS
  "$@"
  summary[-1]+=" in $((SECONDS - start)) s"
}
san_flags=(-DCMAKE_BUILD_TYPE=None "-DCMAKE_CXX_FLAGS=-O1 -g1" -DPLCDRIVER_BUILD_BENCHMARKS=OFF)
normal_flags=(-DPLCDRIVER_BUILD_BENCHMARKS=OFF)
wanted normal && timed run_suite "normal" build-tests/normal "" "${normal_flags[@]}"
wanted asan && timed run_suite "address+undefined sanitizers" build-tests/asan "-LE nosan" \
  -DPLCDRIVER_SANITIZE=address,undefined "${san_flags[@]}"
wanted tsan && SUITE_TARGETS=threads_tests timed run_suite "thread sanitizer" build-tests/tsan "-L threads" \
  -DPLCDRIVER_SANITIZE=thread "${san_flags[@]}"
# The libFuzzer targets (clang, address+undefined sanitizers), each run for a
# few seconds on a copy of its seed corpus; only the fuzz targets are built.
wanted fuzz && CC=clang CXX=clang++ SUITE_TARGETS=fuzzers timed run_suite "fuzz (libFuzzer, short)" build-tests/fuzz "-L fuzz" \
  -DPLCDRIVER_BUILD_FUZZERS=ON -DPLCDRIVER_BUILD_TESTS=OFF -DPLCDRIVER_BUILD_BENCHMARKS=OFF \
  -DPLCDRIVER_BUILD_PROGRAMS=OFF

# Library-only builds below: the driver and its unit tests, nothing that needs
# libmodbus, pymodbus or the programs; no benchmarks; optimised lightly (-O1)
# and without debug information, which halves their compile time.
lib_only=(-DCMAKE_BUILD_TYPE=None -DCMAKE_CXX_FLAGS=-O1 -DPLCDRIVER_BUILD_BENCHMARKS=OFF -DPLCDRIVER_BUILD_PROGRAMS=OFF
  -DPLCDRIVER_BUILD_INTEGRATION=OFF -DPLCDRIVER_BUILD_E2E=OFF -DPLCDRIVER_BUILD_SIMULATOR=OFF -DPLCDRIVER_BUILD_INSTALL=OFF
  -DPLCDRIVER_BUILD_RELIABILITY=OFF)
# skip_suite NAME REASON: a suite that cannot run on this machine; reported as
# skipped, never as passed.
skip_suite() {
  echo "==== $1: SKIPPED: $2"
  summary+=("$1: SKIPPED ($2)")
}

# Qt 6 build of the driver, its unit tests and the install/package tests.
if wanted qt6; then
  start=$SECONDS
  if bash scripts/install-deps.sh qt6 package >build-tests/qt6-deps.log 2>&1; then
    run_suite "qt6" build-tests/qt6 "-L unit|install" -DPLCDRIVER_QT_MAJOR=6 "${lib_only[@]}" -DPLCDRIVER_BUILD_INSTALL=ON
  else
    skip_suite "qt6" "qt6-base-dev could not be installed, see build-tests/qt6-deps.log"
  fi
  summary[-1]+=" in $((SECONDS - start)) s"
fi

# Boards: each architecture cross-built against a Debian 12 root file system
# of its own (scripts/make-sysroot.sh, cached in build-sysroot/ARCH) with
# cmake/toolchains/debian-sysroot.cmake; its programs run under qemu-user
# with that root file system as library prefix. Built at -O1 without debug
# information, like the library-only builds.
#   ARM boards (arm64, armhf, armel): the library, its unit tests, the
#   programs (plcpoll, plcsim, the reference host), the install tests (the
#   example host project against the installed tree and the unpacked .debs)
#   and the on-board check (tests/board: the packages installed on a board,
#   its plcpoll against the PC's plcsim from build-tests/normal).
#   s390x (big-endian): the library, its unit tests and the install tests.
# native_programs: plcsim and plcpoll of the PC for the on-board check, from
# the normal suite's build (configured the same way, only these two built
# when that suite did not run).
native_programs() {
  local dir=build-tests/normal
  {
    cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPLCDRIVER_WERROR=ON "${normal_flags[@]}" &&
      cmake --build "$dir" -j"$jobs" --target plcsim plcpoll
  } >build-tests/native-programs.log 2>&1
}
board_suite() {
  local arch=$1 name="$1 (qemu)" start=$SECONDS
  local deps=(sysroot "$arch" package) labels="unit|install" args=()
  [[ $arch == s390x ]] || deps+=(board)
  if ! bash scripts/install-deps.sh "${deps[@]}" >"build-tests/$arch-deps.log" 2>&1; then
    skip_suite "$name" "the cross compiler, qemu-user or mmdebstrap could not be installed, see build-tests/$arch-deps.log"
  elif ! bash scripts/make-sysroot.sh "$arch" >"build-tests/$arch-sysroot.log" 2>&1; then
    skip_suite "$name" "the $arch root file system could not be made (Debian mirror), see build-tests/$arch-sysroot.log"
  else
    if [[ $arch != s390x ]]; then
      labels="unit|install|board"
      args=(-DPLCDRIVER_BUILD_PROGRAMS=ON -DPLCDRIVER_BUILD_BOARD=ON
        -DPLCDRIVER_BOARD_NATIVE_BUILD="$root/build-tests/normal")
      native_programs || echo "$name: building the PC's plcsim and plcpoll failed, see build-tests/native-programs.log"
    fi
    run_suite "$name" "build-tests/$arch" "-L $labels" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/debian-sysroot.cmake" \
      -DPLCDRIVER_DEB_ARCH="$arch" "${lib_only[@]}" -DPLCDRIVER_BUILD_INSTALL=ON "${args[@]}"
  fi
  summary[-1]+=" in $((SECONDS - start)) s"
}
for arch in arm64 armhf armel s390x; do
  wanted "$arch" && board_suite "$arch"
done

echo
echo "==== summary"
printf '%s\n' "${summary[@]}"
echo "all suites: $total_pass passed, $total_fail failed"
exit $status
