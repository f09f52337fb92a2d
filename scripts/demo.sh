#!/usr/bin/env bash
# The main job: builds the driver and shows what it offers a runtime.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh build
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPLCDRIVER_BUILD_TESTS=OFF -DPLCDRIVER_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build build -j"$(nproc)" --target plcdriver >/dev/null
lib=$(readlink -f build/driver/libplcdriver.so)
echo "built $lib (SONAME $(objdump -p "$lib" | awk '/SONAME/ {print $2}'))"
echo "exported interface:"
nm -D --defined-only "$lib" | awk '$2 != "A" {sub(/@.*/, "", $3); print "  " $3 "  (" ($2 == "T" ? "function" : "data") ")"}'
