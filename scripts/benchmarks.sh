#!/usr/bin/env bash
# Runs every benchmark and writes the results and a report page:
#   bash scripts/benchmarks.sh [--quick] [--out DIR] [--baseline DIR] [--only LIST]
#
# Installs the Debian packages it needs, builds in Release (build-perf/, or
# $BUILD_DIR), runs the Google Benchmark programs (bench_exchange,
# bench_read_list, bench_mirror), counts instructions per exchange with
# callgrind, runs the loopback benchmarks against plcsim (host + driver side
# by side with a plain libmodbus client; scaling of the cyclic list), runs
# plcgate against mosquitto and plcsim (latency, updates per second and the
# broker's own ceiling) and writes under DIR (default results/):
#   meta.json             machine, date, load average at start and end, commit, every command
#   *.json                what each benchmark produced
#   summary.json          the figures the report shows
#   report.md, *.png      the report page and its charts
# --quick: fewer repetitions and shorter windows (about 1 minute instead of 4).
# --baseline DIR: a results directory of an earlier run; its throughput
#   ratios are shown beside this run's.
# --only LIST: comma-separated subset of exchange,callgrind,read_list,mirror,
#   throughput,profile,scaling,gateway (the report covers what was run).
# Every process it starts talks only to 127.0.0.1 and stops by itself.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

quick=0
out=results
baseline=""
only="exchange,callgrind,read_list,mirror,throughput,profile,scaling,gateway"
while [[ $# -gt 0 ]]; do
  case $1 in
    --quick) quick=1 ;;
    --out) out=$2; shift ;;
    --baseline) baseline=$2; shift ;;
    --only) only=$2; shift ;;
    -h|--help) sed -n '2,21p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "benchmarks: unknown option $1 (see --help)" >&2; exit 2 ;;
  esac
  shift
done
wants() { [[ ",$only," == *",$1,"* ]]; }

build=${BUILD_DIR:-build-perf}
jobs=${JOBS:-2}
mkdir -p "$out"
out=$(cd "$out" && pwd)
logs=$out/logs
mkdir -p "$logs"
rm -f "$out"/*.json "$out"/*.png "$out"/report.md "$out"/commands.tsv

bash scripts/install-deps.sh build test modbus profile report gateway

loadavg() { cut -d' ' -f1-3 /proc/loadavg; }
start_date=$(date -u +%Y-%m-%dT%H:%M:%SZ)
start_load=$(loadavg)
t0=$SECONDS

# run NAME COMMAND...: runs one benchmark command, output in logs/NAME.log,
# and records the command (relative to the repository) for the report.
run() {
  local name=$1
  shift
  local cmd="" arg
  for arg in "$@"; do
    if [[ $arg =~ ^[][A-Za-z0-9_./=,:+@%-]+$ ]]; then
      cmd+=" $arg"
    else
      cmd+=" '${arg//\'/\'\\\'\'}'"
    fi
  done
  cmd=${cmd# }
  printf '%s\t%s\n' "$name" "$cmd" >>"$out/commands.tsv"
  echo "==== $name: $cmd"
  if ! "$@" >"$logs/$name.log" 2>&1; then
    tail -20 "$logs/$name.log"
    echo "benchmarks: $name failed (log: $logs/$name.log)" >&2
    exit 1
  fi
}

echo "==== build (Release, $build)"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DPLCDRIVER_BUILD_BENCHMARKS=ON >"$logs/configure.log" 2>&1 ||
  { cat "$logs/configure.log"; exit 1; }
cmake --build "$build" -j"$jobs" --target plcsim bench_exchange bench_read_list bench_mirror \
  bench_loopback_throughput bench_loopback_scaling plcgate bench_gateway >"$logs/build.log" 2>&1 ||
  { grep -E "error|warning" "$logs/build.log" | head -40; exit 1; }
b=$build/benchmarks
plcsim=$build/simulator/plcsim

if [[ $quick -eq 1 ]]; then
  gb=(--benchmark_repetitions=3 --benchmark_min_time=0.05)
  cg_iterations=1000
  tp=(--rounds 5 --seconds 0.3)
  sc=(--rounds 1 --seconds 0.5)
  gw=(--changes 100 --seconds 2 --ceiling 20000)
else
  gb=(--benchmark_repetitions=5 --benchmark_min_time=0.1)
  cg_iterations=10000
  # Many short rounds: a burst of other load spoils few pairs.
  tp=(--rounds 15 --seconds 0.5)
  sc=(--rounds 2 --seconds 1.5)
  gw=(--changes 300 --seconds 5 --ceiling 20000)
fi
gb+=(--benchmark_enable_random_interleaving=true --benchmark_out_format=json)

if wants exchange; then
  run bench_exchange "$b/bench_exchange" "${gb[@]}" --benchmark_out="$out/bench_exchange.json"
fi
if wants read_list; then
  run bench_read_list "$b/bench_read_list" "${gb[@]}" --benchmark_out="$out/bench_read_list.json"
fi
if wants mirror; then
  run bench_mirror "$b/bench_mirror" "${gb[@]}" --benchmark_out="$out/bench_mirror.json"
fi
if wants callgrind; then
  # Instructions per exchange: callgrind counts only inside run_exchanges().
  printf '{"iterations": %d, "runs": [' "$cg_iterations" >"$out/callgrind.json"
  sep=""
  for case in read_words read_bits write_words; do
    for mode in 0 1; do
      name=callgrind_${case}_$mode
      cg_out=$logs/$name.out
      run "$name" valgrind --tool=callgrind --callgrind-out-file="$cg_out" --toggle-collect='*run_exchanges*' \
        "$b/bench_exchange" --exchange_case=$case --exchange_link_mode=$mode --exchange_iterations=$cg_iterations
      total=$(sed -n 's/^\(totals\|summary\): *\([0-9]*\).*/\2/p' "$cg_out" | head -1)
      printf '%s{"case": "%s", "link_mode": %d, "instructions": %s}' "$sep" "$case" "$mode" "${total:-null}" \
        >>"$out/callgrind.json"
      sep=", "
    done
  done
  printf ']}\n' >>"$out/callgrind.json"
fi
if wants throughput; then
  run throughput "$b/loopback/bench_loopback_throughput" --plcsim "$plcsim" "${tp[@]}" --out "$out/throughput.json"
fi
if wants profile; then
  # Where the communication thread's instructions go in the loopback
  # exchange (user space only; the socket calls run in the kernel).
  for case in bits_2000 registers_100; do
    run "profile_$case" valgrind --tool=callgrind --callgrind-out-file="$logs/profile_$case.out" \
      --toggle-collect='plchost::Host::exchange_once*' "$b/loopback/bench_loopback_throughput" --plcsim "$plcsim" \
      --rounds 1 --seconds 1 --cases "$case" --out "$logs/profile_$case.json"
    callgrind_annotate --inclusive=yes --threshold=100 "$logs/profile_$case.out" >"$logs/profile_$case.txt" 2>/dev/null
  done
fi
if wants scaling; then
  run scaling "$b/loopback/bench_loopback_scaling" --plcsim "$plcsim" --tags 10,100,1000,10000,100000 \
    --stations 1,4,16 "${sc[@]}" --out "$out/scaling.json"
fi
if wants gateway; then
  run gateway "$b/gateway/bench_gateway" --tags 1000,10000 "${gw[@]}" --out "$out/gateway.json"
fi

end_load=$(loadavg)
end_date=$(date -u +%Y-%m-%dT%H:%M:%SZ)
commit=$(git rev-parse --short HEAD 2>/dev/null || echo unknown)
dirty=$(git status --porcelain --untracked-files=no 2>/dev/null | grep -c . || true)
cpu_model=$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)
cmdline="bash scripts/benchmarks.sh"
[[ $quick -eq 1 ]] && cmdline+=" --quick"
[[ $out != "$root/results" ]] && cmdline+=" --out ${out#"$root"/}"
[[ -n $baseline ]] && cmdline+=" --baseline $baseline"
[[ $only != "exchange,callgrind,read_list,mirror,throughput,profile,scaling,gateway" ]] && cmdline+=" --only $only"
/usr/bin/python3 - "$out/meta.json" <<EOF
import json, sys
commands = []
for line in open("$out/commands.tsv"):
    name, cmd = line.rstrip("\n").split("\t", 1)
    commands.append({"name": name, "command": cmd.replace("$root/", "")})
json.dump({
    "command": "$cmdline",
    "quick": $quick == 1,
    "start": "$start_date", "end": "$end_date", "seconds": $SECONDS - $t0,
    "load_start": "$start_load", "load_end": "$end_load",
    "nproc": $(nproc), "cpu_model": "$cpu_model", "kernel": "$(uname -sr)",
    "commit": "$commit", "modified_tracked_files": $dirty,
    "build_dir": "$build", "commands": commands,
}, open(sys.argv[1], "w"), indent=1)
EOF
rm -f "$out/commands.tsv"

echo "==== report"
/usr/bin/python3 scripts/benchmark_report.py "$out" ${baseline:+--baseline "$baseline"}
echo "benchmarks: report at ${out#"$root"/}/report.md ($((SECONDS - t0)) s)"
