#!/usr/bin/env bash
# Runs the driver's libFuzzer targets for longer than the test suite does and
# prints, per target, the executions, the coverage and the corpus size.
#
# Usage: scripts/fuzz-long.sh TARGET|all SECONDS
#   TARGET: fuzz_datacom, fuzz_address, fuzz_read_list, fuzz_data_access,
#   fuzz_sequence, fuzz_set_request (plcgate's set payloads), or all (one
#   after the other).
# Environment: FUZZ_BUILD_DIR (default build-fuzz), JOBS (build jobs),
#   FUZZ_PARALLEL=2 runs two targets at a time (a 2-core machine has no room
#   for more), KEEP_CORPUS=0 starts every run from the seeds instead of the
#   corpus the previous long run left in FUZZ_BUILD_DIR/fuzz/long/TARGET.
# The seed corpora in fuzz/corpus are only read; findings land in
# FUZZ_BUILD_DIR/fuzz/long/TARGET/artifacts.
set -uo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

if [[ $# -ne 2 ]]; then
  sed -n '2,14p' "$0"
  exit 2
fi
which=$1 seconds=$2
all_targets=(fuzz_datacom fuzz_address fuzz_read_list fuzz_data_access fuzz_sequence fuzz_set_request)
if [[ $which == all ]]; then
  targets=("${all_targets[@]}")
else
  targets=("$which")
fi

bash scripts/install-deps.sh build fuzz || exit 1
build=${FUZZ_BUILD_DIR:-build-fuzz}
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPLCDRIVER_WERROR=ON \
  -DPLCDRIVER_BUILD_FUZZERS=ON -DPLCDRIVER_BUILD_TESTS=OFF -DPLCDRIVER_BUILD_BENCHMARKS=OFF \
  -DPLCDRIVER_BUILD_PROGRAMS=OFF >"$build.configure.log" 2>&1 || { cat "$build.configure.log"; exit 1; }
cmake --build "$build" -j"${JOBS:-2}" --target "${targets[@]}" >"$build.build.log" 2>&1 ||
  { grep -E "error|warning" "$build.build.log" | head -50; exit 1; }

export KEEP_CORPUS=${KEEP_CORPUS:-1}
parallel=${FUZZ_PARALLEL:-1}
results=$(mktemp)
status=0
run_one() {
  local t=$1
  bash fuzz/run_fuzzer.sh "$build/fuzz/$t" fuzz/corpus/"$t" "$build/fuzz/long/$t" "$seconds" >>"$results" 2>&1
}
running=0
for t in "${targets[@]}"; do
  run_one "$t" &
  running=$((running + 1))
  if [[ $running -ge $parallel ]]; then
    wait -n || status=1
    running=$((running - 1))
  fi
done
while [[ $running -gt 0 ]]; do
  wait -n || status=1
  running=$((running - 1))
done

echo "==== fuzz runs of $seconds s"
cat "$results"
rm -f "$results"
exit $status
