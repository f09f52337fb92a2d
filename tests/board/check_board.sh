#!/usr/bin/env bash
# On-board check of a cross build: the packages installed on a board of that
# architecture, its plcpoll run there against the PC's plcsim over TCP.
# Usage: check_board.sh DEB_ARCH BUILD_DIR SOURCE_DIR WORK_DIR CPACK NATIVE_BUILD QEMU
#   BUILD_DIR     the cross build (with the programs)
#   NATIVE_BUILD  a build for this PC holding simulator/plcsim and tools/plcpoll/plcpoll
#   QEMU          qemu-user for the architecture (qemu-arm, qemu-aarch64)
#
# 1. CPack makes the packages; scripts/make-sysroot.sh --board makes a board's
#    root file system holding libplcdriver1 and plcdriver-tools with the
#    dependencies apt resolves for them, nothing else.
# 2. The board's plcpoll and plcsim are run from that tree under qemu-user with
#    the tree as library prefix: they must load the packaged libplcdriver.so.1
#    and the board's Qt and libmodbus.
# 3. The PC's plcsim (--static) serves; board_values.py fills its memory with
#    mbpoll, checks a --once --json pass of the board's plcpoll over the
#    example tags on both links against that memory, and a write of every
#    writable kind. First on loopback, then with the board in a network
#    namespace of its own, joined to the PC by a veth pair, with delay (tc
#    netem) and loss (nftables) on that link where the kernel offers them.
set -uo pipefail
[[ $# -eq 7 ]] || {
  echo "usage: check_board.sh DEB_ARCH BUILD_DIR SOURCE_DIR WORK_DIR CPACK NATIVE_BUILD QEMU" >&2
  exit 2
}
arch=$1 build=$2 src=$3 work=$4 cpack=$5 native=$6 qemu=$7
tags=$src/tools/plcpoll/example-tags.csv
sim=$native/simulator/plcsim
native_poll=$native/tools/plcpoll/plcpoll

fail() {
  echo "FAIL: $*"
  exit 1
}
for f in "$sim" "$native_poll"; do
  [[ -x $f ]] || fail "$f is missing (the native build $native must have the programs)"
done
for p in "$qemu" mbpoll python3 ip nsenter; do
  command -v "$p" >/dev/null || fail "$p is not installed"
done

sims=()
ns=""
host_if=""
netns_mount_was_there=0
cleanup() {
  local pid
  for pid in "${sims[@]}"; do
    kill -TERM "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
  done
  # Removing one end of the veth pair removes both.
  [[ -z $host_if ]] || ip link del "$host_if" 2>/dev/null
  [[ -z $ns ]] || ip netns del "$ns" 2>/dev/null
  # ip netns add makes /run/netns a mount point of its own; one this check
  # made goes again once no namespace is left in it, so that no mount
  # outlives the check (a root file system holding this checkout could not
  # be removed through it).
  if [[ $netns_mount_was_there -eq 0 ]] && mountpoint -q /run/netns && [[ -z $(ls -A /run/netns) ]]; then
    umount /run/netns 2>/dev/null
  fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

rm -rf "$work"
mkdir -p "$work"

# 1. The packages, and a board with them.
(cd "$build" && "$cpack" -G DEB -B "$work/debs" --config "$build/CPackConfig.cmake") >"$work/cpack.log" 2>&1 || {
  tail -20 "$work/cpack.log"
  fail "cpack failed"
}
debs=("$work"/debs/libplcdriver1_*_"$arch".deb "$work"/debs/plcdriver-tools_*_"$arch".deb)
for deb in "${debs[@]}"; do [[ -f $deb ]] || fail "no package $deb"; done
board=$work/board
bash "$src/scripts/make-sysroot.sh" --board "$board" "$arch" "${debs[@]}" >"$work/board.log" 2>&1 || {
  tail -20 "$work/board.log"
  fail "the board's root file system could not be made"
}
echo "board: $arch root file system with $(for d in "${debs[@]}"; do basename "$d"; done | tr '\n' ' ')and what apt resolved for them ($(du -sh "$board" | cut -f1))"

# 2. What the board's programs load.
lib=$(cd "$board" && find usr/lib -maxdepth 1 -name 'libplcdriver.so.1.*' -type f)
[[ -n $lib ]] || fail "libplcdriver.so.1.x.y is not in the board's /usr/lib"
deb_sum=$(dpkg-deb --fsys-tarfile "${debs[0]}" | tar -xO "./$lib" | sha256sum | cut -d' ' -f1)
[[ $(sha256sum <"$board/$lib" | cut -d' ' -f1) == "$deb_sum" ]] || fail "/$lib on the board is not the packaged file"
for prog in plcpoll plcsim; do
  "$qemu" -L "$board" -E LD_TRACE_LOADED_OBJECTS=1 "$board/usr/bin/$prog" >"$work/$prog.libs" 2>&1 ||
    fail "the board's $prog does not load: $(head -5 "$work/$prog.libs")"
  ! grep -q 'not found' "$work/$prog.libs" || fail "the board's $prog misses libraries: $(grep 'not found' "$work/$prog.libs")"
done
# Paths as the board sees them; qemu looks each up in the board's tree first.
loaded() { awk -v lib="$2" '$1 == lib {print $3}' "$work/$1.libs"; }
got=$(loaded plcpoll libplcdriver.so.1)
[[ -n $got && $(realpath "$got") == $(realpath "$board/$lib") ]] || fail "plcpoll loads libplcdriver.so.1 from '$got'"
qt=$(loaded plcpoll libQt5Core.so.5)
[[ -n $qt && -e $board$qt ]] || fail "plcpoll does not load the board's libQt5Core.so.5 (got '$qt')"
modbus=$(loaded plcsim libmodbus.so.5)
[[ -n $modbus && -e $board$modbus ]] || fail "plcsim does not load the board's libmodbus.so.5 (got '$modbus')"
echo "board: plcpoll loads the packaged /$lib (as libplcdriver.so.1) and the board's $qt ($(basename "$(realpath "$board$qt")")); plcsim the board's $modbus"
"$qemu" -L "$board" "$board/usr/bin/plcsim" --help >/dev/null 2>&1 || fail "the board's plcsim --help failed"

# start_sim ADDRESS NAME: the PC's plcsim on ADDRESS, ports in $work/NAME.ports
start_sim() {
  "$sim" --address "$1" --port 0 --remote-port 0 --static --port-file "$work/$2.ports" >"$work/$2.sim.log" 2>&1 &
  sims+=($!)
  local i
  for i in $(seq 1 200); do
    grep -q '^remote=' "$work/$2.ports" 2>/dev/null && return 0
    kill -0 "${sims[-1]}" 2>/dev/null || break
    sleep 0.05
  done
  cat "$work/$2.sim.log"
  fail "plcsim on $1 did not start"
}
port_of() { sed -n "s/^$2=//p" "$work/$1.ports"; }
status=0

# 3a. Loopback: the board's programs on this machine's network stack.
echo "---- loopback (127.0.0.1)"
start_sim 127.0.0.1 loopback
python3 "$src/tests/board/board_values.py" --host 127.0.0.1 --port "$(port_of loopback modbus)" \
  --remote-port "$(port_of loopback remote)" --tags "$tags" --label "board (loopback)" \
  --plcpoll "$qemu -L $board $board/usr/bin/plcpoll" --plcpoll-native "$native_poll" || status=1

# 3b. The board behind a network hop: its own namespace, a veth pair, an
# address pair from the range set aside for network tests (198.18.0.0/15).
echo "---- network namespace (veth pair, the board at 198.18.x.2)"
net=198.18.$(($$ % 256))
board_if=pbb$$
mountpoint -q /run/netns && netns_mount_was_there=1
if ! ip netns add "plcboard-$$" 2>"$work/netns.err"; then
  echo "network namespace: cannot be made here ($(head -1 "$work/netns.err")); skipped, the loopback run stands alone"
  exit $status
fi
ns=plcboard-$$
# nsenter switches the network namespace only (ip netns exec also remounts
# /sys, which fails where / is not a mount point, as in a chroot).
in_ns() { nsenter --net="/run/netns/$ns" "$@"; }
in_ns true 2>"$work/netns.err" || {
  echo "network namespace: cannot be entered here ($(head -1 "$work/netns.err")); skipped, the loopback run stands alone"
  exit $status
}
host_if=pbh$$
ip link add "$host_if" type veth peer name "$board_if" netns "$ns" &&
  ip addr add "$net.1/30" dev "$host_if" && ip link set "$host_if" up &&
  in_ns ip addr add "$net.2/30" dev "$board_if" && in_ns ip link set "$board_if" up && in_ns ip link set lo up ||
  fail "the veth pair could not be set up"
# Delay from tc netem where the kernel has it. Loss from nftables' random
# numbers in the board's namespace, 1 % each way, of the TCP segments after
# the handshake: plcpoll gives a connection up after its reply timeout (1 s
# here), and TCP sends a lost SYN again only after 1 s, so a lost handshake
# would end a run instead of showing how the exchange copes.
if in_ns tc qdisc add dev "$board_if" root netem delay 2ms 2>"$work/netem.err"; then
  echo "link: 2 ms delay on the board's side (tc netem)"
else
  echo "link: no delay: tc netem is unavailable ($(head -1 "$work/netem.err"))"
fi
drop_rules=0
if in_ns nft -f - 2>"$work/nft.err" <<'EOF'; then
table inet plcboard {
  chain in { type filter hook input priority 0; tcp flags & syn == 0 numgen random mod 100 < 1 counter drop; }
  chain out { type filter hook output priority 0; tcp flags & syn == 0 numgen random mod 100 < 1 counter drop; }
}
EOF
  drop_rules=1
  echo "link: 1 % loss each way of the TCP segments after the handshake (nftables numgen random, board's namespace)"
else
  echo "link: no loss: nftables is unavailable ($(head -1 "$work/nft.err"))"
fi
retrans() { in_ns awk '/^Tcp:/ {if (!n++) {for (i = 1; i <= NF; i++) c[$i] = i} else print $c["RetransSegs"]}' /proc/net/snmp; }
start_sim "$net.1" netns
before=$(retrans)
python3 "$src/tests/board/board_values.py" --host "$net.1" --port "$(port_of netns modbus)" \
  --remote-port "$(port_of netns remote)" --tags "$tags" --label "board ($ns)" --soak 3 \
  --plcpoll "nsenter --net=/run/netns/$ns $qemu -L $board $board/usr/bin/plcpoll" || status=1
echo "link: $(($(retrans) - before)) TCP segments retransmitted by the board$(
  [[ $drop_rules -eq 0 ]] || echo ", $(in_ns nft list table inet plcboard | awk '/counter/ {s += $(NF - 3)} END {print s + 0}') packets dropped by the loss rules")"
exit $status
