#!/usr/bin/env bash
# Longer runs of the reliability tests than the test command makes.
#
#   bash scripts/reliability-long.sh [SCALE] [SEEDS] [ROUNDS] [SOAK]
#   bash scripts/reliability-long.sh --soak SECONDS [PERCENT]     (the soak alone)
#
# SCALE  (default 10)  PLCDRIVER_RELIABILITY_SCALE: the stress test runs SCALE
#                      times as many cycles (thread sanitizer build and normal
#                      build), the fault test SCALE times as many writes.
# SEEDS  (default 5)   the fault test once per seed 1..SEEDS, in both link modes.
# ROUNDS (default 200) dlopen/traffic/dlclose rounds under valgrind.
# SOAK   (default 120) seconds of the soak: host and plcsim through the
#                      fault-injecting proxy (PERCENT of the replies faulted,
#                      default 10), writing and reading, Modbus TCP and the
#                      remote frame side by side, each in a process of its own.
#                      Each reports requests, faults, wrong values seen (must
#                      be 0), lost writes (must be 0) and its resident memory
#                      after a tenth of the run and at the end (must not grow
#                      by 4 MiB or more).
#
# Uses the build directories of scripts/test.sh (build-tests/normal and
# build-tests/tsan; NORMAL_DIR and TSAN_DIR choose others), configures them
# the same way when they do not exist yet, and builds only the targets it
# runs. Prints the tests' own summary lines; exit status 0 when all passed.
set -uo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
soak_only=0
if [[ ${1:-} == --soak ]]; then
  soak_only=1
  [[ ${2:-} =~ ^[0-9]+$ && ${2} -gt 0 ]] || { echo "reliability-long: --soak needs a number of seconds" >&2; exit 2; }
  soak=$2
  percent=${3:-10}
else
  soak=${4:-120}
  percent=10
fi
[[ $percent =~ ^[0-9]+$ && $percent -le 100 ]] || { echo "reliability-long: PERCENT must be 0..100" >&2; exit 2; }
scale=${1:-10}
seeds=${2:-5}
rounds=${3:-200}
normal=${NORMAL_DIR:-build-tests/normal}
tsan=${TSAN_DIR:-build-tests/tsan}
jobs=${JOBS:-$(nproc)}
status=0

bash scripts/install-deps.sh build test modbus leaks || exit 1

# build DIR TARGETS... -- CMAKE_ARGS...
build() {
  local dir=$1
  shift
  local targets=()
  while [[ $# -gt 0 && $1 != -- ]]; do targets+=("$1"); shift; done
  shift
  mkdir -p "$(dirname "$dir")"
  if [[ ! -f $dir/CMakeCache.txt ]]; then
    cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPLCDRIVER_WERROR=ON "$@" >"$dir.configure.log" 2>&1 ||
      { cat "$dir.configure.log"; exit 1; }
  fi
  cmake --build "$dir" -j"$jobs" --target "${targets[@]}" >"$dir.reliability-build.log" 2>&1 ||
    { grep -E "error|warning" "$dir.reliability-build.log" | head -30; exit 1; }
}

if [[ $soak_only -eq 0 ]]; then
  build "$tsan" reliability_test_stress_threads reliability_test_faults -- -DPLCDRIVER_SANITIZE=thread \
    -DPLCDRIVER_BUILD_BENCHMARKS=OFF
fi
build "$normal" reliability_test_stress_threads reliability_test_faults dlopen_cycles reliability_soak -- \
  -DPLCDRIVER_BUILD_BENCHMARKS=OFF

# run LABEL COMMAND...: runs, prints the summary lines and the time taken.
run() {
  local label=$1
  shift
  local log start=$SECONDS
  log=$(mktemp)
  "$@" >"$log" 2>&1
  local rc=$?
  grep -E "^(stress|faults|idle close|dlopen_cycles|soak):|ThreadSanitizer|definitely lost|indirectly lost|possibly lost|still reachable|ERROR SUMMARY|FAILED" "$log" | sed 's/^==[0-9]*== *//'
  echo "== $label: exit $rc, $((SECONDS - start)) s"
  [[ $rc -eq 0 ]] || { status=1; echo "   (full output kept in $log)"; return; }
  rm -f "$log"
}

# The soak: both link modes at once, each in a process of its own (the
# driver is one global object per process).
soak_run() {
  local start=$SECONDS logs=() pids=() mode
  for mode in modbus remote; do
    logs+=("$(mktemp)")
    "$normal/tests/reliability/reliability_soak" --mode "$mode" --seconds "$soak" --percent "$percent" \
      >"${logs[-1]}" 2>&1 &
    pids+=($!)
  done
  local i rc
  for i in 0 1; do
    wait "${pids[$i]}"
    rc=$?
    grep -E "^soak:" "${logs[$i]}"
    [[ $rc -eq 0 ]] || { status=1; echo "   (full output kept in ${logs[$i]})"; continue; }
    rm -f "${logs[$i]}"
  done
  echo "== soak, $soak s per link mode, $percent % of replies faulted: $((SECONDS - start)) s"
}
if [[ $soak_only -eq 1 ]]; then
  soak_run
  exit $status
fi

export PLCDRIVER_RELIABILITY_SCALE=$scale
run "stress, thread sanitizer, scale $scale" "$tsan/tests/reliability/reliability_test_stress_threads"
run "stress, normal build, scale $scale" "$normal/tests/reliability/reliability_test_stress_threads"
for seed in $(seq 1 "$seeds"); do
  PLCDRIVER_FAULT_SEED=$seed run "faults, seed $seed, scale $scale" "$normal/tests/reliability/reliability_test_faults" \
    --gtest_filter='*RepliesFaultedBetweenHostAndPlcsim*'
done
run "dlopen/dlclose, $rounds rounds under valgrind" valgrind --leak-check=full \
  --errors-for-leak-kinds=definite,indirect --show-leak-kinds=definite,indirect --error-exitcode=1 \
  "$normal/tests/reliability/dlopen_cycles" --rounds "$rounds"
soak_run
exit $status
