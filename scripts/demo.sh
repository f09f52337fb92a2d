#!/usr/bin/env bash
# The main job: builds the driver, the simulator, plcpoll and plcgate, starts
# the PLC simulator in the background, polls it through the driver for a few
# seconds (values changing), writes a value and shows it read back; then the
# gateway: a broker (mosquitto) on a free port, plcgate with its sample
# configuration publishing the simulator's tags, a consumer (mosquitto_sub)
# printing some of them, a write through the broker and its acknowledgement;
# then stops everything it started. Installs the Debian packages it needs
# first.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

bash scripts/install-deps.sh build modbus gateway
work=$(mktemp -d)
sim_pid=""
broker_pid=""
gate_pid=""
# stop PID: ends one process this script started, and waits for it.
stop() {
  if [[ -n "$1" ]] && kill -0 "$1" 2>/dev/null; then
    kill -TERM "$1" 2>/dev/null || true
    wait "$1" 2>/dev/null || true
  fi
}
cleanup() {
  stop "$gate_pid"
  stop "$broker_pid"
  stop "$sim_pid"
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

echo "==== building the driver, plcsim, plcpoll and plcgate (build/)"
if ! cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPLCDRIVER_BUILD_TESTS=OFF \
  -DPLCDRIVER_BUILD_BENCHMARKS=OFF >"$work/configure.log" 2>&1; then
  cat "$work/configure.log"
  exit 1
fi
if ! cmake --build build -j"$(nproc)" --target plcdriver plcsim plcpoll plcgate >"$work/build.log" 2>&1; then
  grep -E "error" "$work/build.log" | head -30
  exit 1
fi
plcsim=$root/build/simulator/plcsim
plcpoll=$root/build/tools/plcpoll/plcpoll
plcgate=$root/build/tools/plcgate/plcgate

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
# The gateway: mosquitto on a free port of 127.0.0.1, plcgate with its sample
# configuration (tools/plcgate/plcgate.conf and tags.csv, as installed in
# /etc/plcgate) pointed at this plcsim and this broker, and mosquitto_sub as
# the consumer.
gateway_failed() {
  echo "demo: $1; plcgate's log:" >&2
  cat "$work/plcgate.log" >&2
  exit 1
}

gateway_demo() {
  local mport topic=plcgate/line1
  mport=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
  printf 'listener %s 127.0.0.1\nallow_anonymous true\n' "$mport" >"$work/mosquitto.conf"
  echo "==== starting mosquitto on 127.0.0.1:$mport"
  mosquitto -c "$work/mosquitto.conf" >"$work/mosquitto.log" 2>&1 &
  broker_pid=$!
  for _ in $(seq 1 100); do
    (exec 3<>"/dev/tcp/127.0.0.1/$mport") 2>/dev/null && break
    kill -0 "$broker_pid" 2>/dev/null || { cat "$work/mosquitto.log"; echo "demo: mosquitto did not start" >&2; exit 1; }
    sleep 0.05
  done
  echo "==== starting plcgate: plcgate --config tools/plcgate/plcgate.conf --plc.port $port --mqtt.port $mport"
  "$plcgate" --config tools/plcgate/plcgate.conf --plc.port "$port" --mqtt.port "$mport" >"$work/plcgate.log" 2>&1 &
  gate_pid=$!
  echo
  echo "==== mosquitto_sub -t '$topic/#': the first 12 messages (status and tags, retained ones first)"
  # The broker by its address: a minimal system may have no name for localhost.
  mosquitto_sub -h 127.0.0.1 -p "$mport" -v -t "$topic/status" -t "$topic/tags/+" -C 12 -W 15 ||
    gateway_failed "no messages from plcgate"
  echo
  echo "==== mosquitto_pub to $topic/tags/setpoint/set: {\"value\": 21.5, \"id\": \"demo-1\"}; its ack and the new value"
  mosquitto_sub -h 127.0.0.1 -p "$mport" -v -t "$topic/tags/setpoint/ack" -C 1 -W 10 >"$work/ack.out" &
  local ack_pid=$!
  sleep 0.5
  mosquitto_pub -h 127.0.0.1 -p "$mport" -q 1 -t "$topic/tags/setpoint/set" -m '{"value": 21.5, "id": "demo-1"}'
  wait "$ack_pid" || true
  cat "$work/ack.out"
  grep -q '"result": "ok"' "$work/ack.out" || gateway_failed "the set was not acknowledged ok"
  mosquitto_sub -h 127.0.0.1 -p "$mport" -v -t "$topic/tags/setpoint" -C 1 -W 5 || true
  echo
  echo "==== stopping plcgate (SIGTERM): the broker keeps its status"
  stop "$gate_pid"
  mosquitto_sub -h 127.0.0.1 -p "$mport" -v -t "$topic/status" -C 1 -W 5 || true
  stop "$broker_pid"
}
echo
gateway_demo

echo
echo "demo finished"
