#!/usr/bin/env bash
# Builds and runs every test: the normal build (warnings are errors), then the
# address+undefined sanitizer build, then the thread sanitizer build of the
# concurrency tests, then a short run of the libFuzzer targets, then the Qt 6
# build and the 64-bit ARM cross build (unit tests under qemu). Installs
# missing Debian packages first.
set -uo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=${JOBS:-$(nproc)}

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
timed run_suite "normal" build-tests/normal "" -DPLCDRIVER_BUILD_BENCHMARKS=OFF
timed run_suite "address+undefined sanitizers" build-tests/asan "-LE nosan" \
  -DPLCDRIVER_SANITIZE=address,undefined "${san_flags[@]}"
SUITE_TARGETS=threads_tests timed run_suite "thread sanitizer" build-tests/tsan "-L threads" \
  -DPLCDRIVER_SANITIZE=thread "${san_flags[@]}"
# The libFuzzer targets (clang, address+undefined sanitizers), each run for a
# few seconds on a copy of its seed corpus; only the fuzz targets are built.
CC=clang CXX=clang++ SUITE_TARGETS=fuzzers timed run_suite "fuzz (libFuzzer, short)" build-tests/fuzz "-L fuzz" \
  -DPLCDRIVER_BUILD_FUZZERS=ON -DPLCDRIVER_BUILD_TESTS=OFF -DPLCDRIVER_BUILD_BENCHMARKS=OFF \
  -DPLCDRIVER_BUILD_PROGRAMS=OFF

# Library-only builds below: the driver and its unit tests, nothing that needs
# libmodbus, pymodbus or the programs; no benchmarks; optimised lightly (-O1)
# and without debug information, which halves their compile time.
lib_only=(-DCMAKE_BUILD_TYPE=None -DCMAKE_CXX_FLAGS=-O1 -DPLCDRIVER_BUILD_BENCHMARKS=OFF -DPLCDRIVER_BUILD_PROGRAMS=OFF
  -DPLCDRIVER_BUILD_INTEGRATION=OFF -DPLCDRIVER_BUILD_E2E=OFF -DPLCDRIVER_BUILD_SIMULATOR=OFF -DPLCDRIVER_BUILD_INSTALL=OFF)
# skip_suite NAME REASON: a suite that cannot run on this machine; reported as
# skipped, never as passed.
skip_suite() {
  echo "==== $1: SKIPPED: $2"
  summary+=("$1: SKIPPED ($2)")
}

# Qt 6 build of the driver, its unit tests and the install/package tests.
start=$SECONDS
if bash scripts/install-deps.sh qt6 package >build-tests/qt6-deps.log 2>&1; then
  run_suite "qt6" build-tests/qt6 "-L unit|install" -DPLCDRIVER_QT_MAJOR=6 "${lib_only[@]}" -DPLCDRIVER_BUILD_INSTALL=ON
  summary[-1]+=" in $((SECONDS - start)) s"
else
  skip_suite "qt6" "qt6-base-dev could not be installed, see build-tests/qt6-deps.log"
fi

# 64-bit ARM boards: cross-built with cmake/toolchains/aarch64-linux-gnu.cmake,
# the unit tests run under qemu-aarch64; the install tests build the arm64
# .deb and run the example host project for arm64 against the installed and
# the unpacked package. GoogleTest is built for the target
# from Debian's sources first (without GoogleMock, which no test uses).
arm64_suite() {
  local name="arm64 (qemu)" dir=build-tests/arm64 tc=$root/cmake/toolchains/aarch64-linux-gnu.cmake
  if ! bash scripts/install-deps.sh arm64 >build-tests/arm64-deps.log 2>&1; then
    skip_suite "$name" "g++-aarch64-linux-gnu, qemu-user or libqt5core5a:arm64 could not be installed, see build-tests/arm64-deps.log"
    return
  fi
  mkdir -p "$dir"
  echo "==== $name: GoogleTest for arm64 ($dir/googletest)"
  if ! {
    cmake -S /usr/src/googletest -B "$dir/googletest" -DCMAKE_TOOLCHAIN_FILE="$tc" -DCMAKE_BUILD_TYPE=None \
      -DCMAKE_CXX_FLAGS=-O1 -DBUILD_GMOCK=OFF \
      -DCMAKE_INSTALL_PREFIX="$root/$dir/googletest/prefix" &&
      cmake --build "$dir/googletest" -j"$jobs" && cmake --install "$dir/googletest"
  } >"$dir/googletest.log" 2>&1; then
    tail -30 "$dir/googletest.log"
    echo "$name: building GoogleTest for arm64 failed"
    status=1
    summary+=("$name: GoogleTest build failed")
    return
  fi
  run_suite "$name" "$dir/driver" "-L unit|install" -DCMAKE_TOOLCHAIN_FILE="$tc" \
    -DCMAKE_PREFIX_PATH="$root/$dir/googletest/prefix" "${lib_only[@]}" -DPLCDRIVER_BUILD_INSTALL=ON
}
start=$SECONDS
arm64_suite
summary[-1]+=" in $((SECONDS - start)) s"

echo
echo "==== summary"
printf '%s\n' "${summary[@]}"
echo "all suites: $total_pass passed, $total_fail failed"
exit $status
