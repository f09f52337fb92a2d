#!/usr/bin/env bash
# Line and region coverage of the driver sources reached by a fuzz corpus:
# builds the fuzz targets once more with clang's source-based coverage, runs
# every input of the corpora once and prints llvm-cov's report for driver/.
#
# Usage: fuzz/coverage.sh [CORPUS_ROOT]
#   CORPUS_ROOT holds one folder per target (default: the corpora the long
#   runs of scripts/fuzz-long.sh left in build-fuzz/fuzz/long, each with the
#   seeds added; without them, the seed corpora fuzz/corpus).
# Environment: COV_BUILD_DIR (default build-fuzz-cov), JOBS (build jobs).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
targets=(fuzz_datacom fuzz_address fuzz_read_list fuzz_data_access fuzz_sequence)
build=${COV_BUILD_DIR:-build-fuzz-cov}
corpora=${1:-}

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DPLCDRIVER_BUILD_FUZZERS=ON -DPLCDRIVER_BUILD_TESTS=OFF -DPLCDRIVER_BUILD_BENCHMARKS=OFF \
  -DPLCDRIVER_BUILD_PROGRAMS=OFF -DCMAKE_CXX_FLAGS="-fprofile-instr-generate -fcoverage-mapping" \
  -DCMAKE_EXE_LINKER_FLAGS="-fprofile-instr-generate" >"$build.configure.log" 2>&1
cmake --build "$build" -j"${JOBS:-2}" --target fuzzers >"$build.build.log" 2>&1

profiles="$build/profiles"
rm -rf "$profiles"
mkdir -p "$profiles"
objects=()
for t in "${targets[@]}"; do
  inputs=()
  if [[ -n "$corpora" ]]; then
    inputs+=("$corpora/$t")
  elif [[ -d build-fuzz/fuzz/long/$t/corpus ]]; then
    inputs+=("build-fuzz/fuzz/long/$t/corpus")
  fi
  inputs+=("fuzz/corpus/$t")
  LLVM_PROFILE_FILE="$profiles/$t-%p.profraw" "$build/fuzz/$t" -runs=0 "${inputs[@]}" >/dev/null 2>&1
  objects+=(-object "$build/fuzz/$t")
done
llvm-profdata merge -sparse "$profiles"/*.profraw -o "$profiles/all.profdata"
llvm-cov report "${objects[@]:1}" -instr-profile="$profiles/all.profdata" "$root"/driver/*.cpp
