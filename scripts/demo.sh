#!/usr/bin/env bash
# The main job: builds the driver, the simulator and plcpoll, starts the PLC
# simulator in the background, polls it through the driver for a few seconds
# (values changing), writes a value and shows it read back, then stops the
# simulator. Installs the Debian packages it needs first.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

bash scripts/install-deps.sh build modbus
work=$(mktemp -d)
sim_pid=""
cleanup() {
  if [[ -n "$sim_pid" ]] && kill -0 "$sim_pid" 2>/dev/null; then
    kill -TERM "$sim_pid" 2>/dev/null || true
    wait "$sim_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

echo "==== building the driver, plcsim and plcpoll (build/)"
if ! cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPLCDRIVER_BUILD_TESTS=OFF \
  -DPLCDRIVER_BUILD_BENCHMARKS=OFF >"$work/configure.log" 2>&1; then
  cat "$work/configure.log"
  exit 1
fi
if ! cmake --build build -j"$(nproc)" --target plcdriver plcsim plcpoll >"$work/build.log" 2>&1; then
  grep -E "error" "$work/build.log" | head -30
  exit 1
fi
plcsim=$root/build/simulator/plcsim
plcpoll=$root/build/tools/plcpoll/plcpoll

# The simulator's default ports when they are free, otherwise free ones.
port=1502
remote=1503
if (exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null || (exec 3<>/dev/tcp/127.0.0.1/$remote) 2>/dev/null; then
  port=0
  remote=0
fi
echo "==== starting plcsim (station 1 and 2)"
"$plcsim" --port "$port" --remote-port "$remote" --stations 1,2 --port-file "$work/ports" \
  --log "$work/plcsim.log" >"$work/plcsim.out" 2>&1 &
sim_pid=$!
for _ in $(seq 1 100); do
  [[ -s "$work/ports" ]] && grep -q '^remote=' "$work/ports" && break
  kill -0 "$sim_pid" 2>/dev/null || { cat "$work/plcsim.out"; echo "demo: plcsim did not start" >&2; exit 1; }
  sleep 0.05
done
port=$(sed -n 's/^modbus=//p' "$work/ports")
remote=$(sed -n 's/^remote=//p' "$work/ports")
echo "plcsim: Modbus TCP on 127.0.0.1:$port, remote frame on 127.0.0.1:$remote"

echo
echo "==== plcpoll: the example tags (all 15 register kinds) for 4 seconds, Modbus TCP"
"$plcpoll" --port "$port" --tags tools/plcpoll/example-tags.csv --duration 4 --interval 1000

echo
echo "==== plcpoll write: word 0 (kind 4) of station 1 := 1234, 4321; then read back"
"$plcpoll" --port "$port" write 4 0 1234 4321 --station 1
echo
echo "==== plcpoll write: bit 1.3 (kind 5, bit 11 of word 0) := 1, a read-modify-write"
"$plcpoll" --port "$port" write 5 1.3 1 --station 1

echo
echo "==== plcpoll: one pass over the same tags through the remote frame, as JSON"
"$plcpoll" --port "$remote" --link remote --tag word,4,0,1,2 --tag ramp,2,4,1,1 --tag onehot,0,0.0,1,8 --once --json

echo
echo "==== plcpoll: a request and its reply, hex-dumped"
"$plcpoll" --port "$port" --tag ramp,2,4,1,1 --once --trace >"$work/trace.out" 2>&1
head -3 "$work/trace.out"

echo
echo "==== what plcsim saw: $(grep -c . "$work/plcsim.log" || true) log lines; the last three:"
tail -3 "$work/plcsim.log"
echo
echo "demo finished"
