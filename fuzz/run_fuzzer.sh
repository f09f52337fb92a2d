#!/usr/bin/env bash
# Runs one libFuzzer target for a bounded time on a working copy of its seed
# corpus and prints one summary line (executions, coverage, corpus size).
#
# Usage: run_fuzzer.sh BINARY SEED_DIR WORK_DIR SECONDS [libFuzzer options...]
#   WORK_DIR receives the working corpus (WORK_DIR/corpus), crash artifacts
#   (WORK_DIR/artifacts) and the log (WORK_DIR/fuzz.log); the seed directory
#   is only read. With KEEP_CORPUS=1 the working corpus of an earlier run is
#   kept and the seeds are added to it; otherwise it starts from the seeds.
# Exit status: 0 when the run ended without a finding, libFuzzer's otherwise.
set -uo pipefail

bin=$1 seeds=$2 work=$3 seconds=$4
shift 4
name=$(basename "$bin")

if [[ "${KEEP_CORPUS:-0}" != 1 ]]; then
  rm -rf "$work/corpus"
fi
rm -rf "$work/artifacts"
mkdir -p "$work/corpus" "$work/artifacts"
if [[ -d "$seeds" ]]; then
  cp -n "$seeds"/* "$work/corpus/" 2>/dev/null || true
fi

start=$(date +%s)
"$bin" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 -print_final_stats=1 \
  -artifact_prefix="$work/artifacts/" "$@" "$work/corpus" >"$work/fuzz.log" 2>&1
rc=$?
elapsed=$(($(date +%s) - start))

execs=$(sed -nE 's/^stat::number_of_executed_units: *([0-9]+).*/\1/p' "$work/fuzz.log" | tail -1)
cov=$(grep -oE 'cov: [0-9]+ ft: [0-9]+' "$work/fuzz.log" | tail -1)
files=$(find "$work/corpus" -type f | wc -l)
bytes=$(find "$work/corpus" -type f -printf '%s\n' | awk '{s += $1} END {print s + 0}')
echo "$name: ${execs:-?} executions in ${elapsed} s, ${cov:-cov: ?}, corpus ${files} files (${bytes} bytes), exit ${rc}"
if [[ $rc -ne 0 ]]; then
  echo "---- $name: end of the log ($work/fuzz.log)"
  tail -60 "$work/fuzz.log"
  ls -l "$work/artifacts"
fi
exit $rc
