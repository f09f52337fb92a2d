#!/usr/bin/env bash
# Builds and runs every test: the normal build (warnings are errors), then the
# address+undefined sanitizer build, then the thread sanitizer build of the
# concurrency tests, then a short run of the libFuzzer targets. Installs
# missing Debian packages first.
set -uo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=${JOBS:-$(nproc)}

bash scripts/install-deps.sh build test modbus fuzz || exit 1

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
run_suite "normal" build-tests/normal "" -DPLCDRIVER_BUILD_BENCHMARKS=ON
run_suite "address+undefined sanitizers" build-tests/asan "-LE nosan" \
  -DPLCDRIVER_SANITIZE=address,undefined -DPLCDRIVER_BUILD_BENCHMARKS=OFF
run_suite "thread sanitizer" build-tests/tsan "-L threads" \
  -DPLCDRIVER_SANITIZE=thread -DPLCDRIVER_BUILD_BENCHMARKS=OFF
# The libFuzzer targets (clang, address+undefined sanitizers), each run for a
# few seconds on a copy of its seed corpus; only the fuzz targets are built.
CC=clang CXX=clang++ SUITE_TARGETS=fuzzers run_suite "fuzz (libFuzzer, short)" build-tests/fuzz "-L fuzz" \
  -DPLCDRIVER_BUILD_FUZZERS=ON -DPLCDRIVER_BUILD_TESTS=OFF -DPLCDRIVER_BUILD_BENCHMARKS=OFF \
  -DPLCDRIVER_BUILD_PROGRAMS=OFF

echo
echo "==== summary"
printf '%s\n' "${summary[@]}"
echo "all suites: $total_pass passed, $total_fail failed"
exit $status
