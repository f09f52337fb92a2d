#!/usr/bin/env bash
# Installs the Debian packages a task needs, only when some are missing.
# Usage: scripts/install-deps.sh GROUP...
#   (groups: build test modbus fuzz profile leaks package qt6 sysroot arm64 armhf armel s390x board report gateway)
# Safe to run any number of times; runs apt-get only when something is missing.
set -euo pipefail

declare -A GROUPS_PKGS=(
  # plcpoll writes its JSON with nlohmann's header-only library; the manual
  # pages are turned from scdoc into roff at build time; plcgate speaks MQTT
  # through libmosquitto.
  [build]="cmake make g++ pkg-config qtbase5-dev nlohmann-json3-dev scdoc libmosquitto-dev"
  # The manual pages are checked with man --warnings (man-db). The gateway's
  # tests run a real broker (mosquitto), consume with mosquitto_sub/pub and
  # make their TLS certificates with openssl.
  [test]="libgtest-dev libgmock-dev libbenchmark-dev man-db mosquitto mosquitto-clients openssl"
  # python3-pymodbus imports serial and serial_asyncio in its server code but
  # only recommends them, and recommends are not installed here.
  [modbus]="libmodbus-dev python3-pymodbus python3-serial python3-serial-asyncio mbpoll"
  [fuzz]="clang libclang-rt-14-dev llvm"
  # Instruction counts of the benchmarks (valgrind --tool=callgrind).
  [profile]="valgrind"
  # The leak test of the shared library (dlopen/dlclose rounds under valgrind).
  [leaks]="valgrind"
  # A broker and its clients for running plcgate (scripts/demo.sh, the
  # gateway benchmark): Debian's mosquitto, mosquitto_sub and mosquitto_pub.
  [gateway]="mosquitto mosquitto-clients"
  # The benchmark report (scripts/benchmarks.sh): charts with gnuplot, the
  # page written by Debian's /usr/bin/python3.
  [report]="gnuplot-nox python3"
  # The Debian package test (cpack: dpkg-shlibdeps and file; man reads the
  # unpacked manual pages).
  [package]="dpkg-dev file man-db"
  # The Qt 6 build of the driver and its unit tests.
  [qt6]="qt6-base-dev"
  # Root file systems of the boards (scripts/make-sysroot.sh): the target's
  # libraries are unpacked there, never installed on this machine.
  [sysroot]="mmdebstrap"
  # Cross compilers of the board architectures (Debian names), and qemu-user,
  # which runs the target's programs on this machine.
  [arm64]="g++-aarch64-linux-gnu qemu-user"
  [armhf]="g++-arm-linux-gnueabihf qemu-user"
  [armel]="g++-arm-linux-gnueabi qemu-user"
  [s390x]="g++-s390x-linux-gnu qemu-user"
  # The on-board check (tests/board): the board in a network namespace joined
  # by a veth pair (ip), packet loss on its link (nft), an independent Modbus
  # client (mbpoll), the values check (python3).
  [board]="iproute2 nftables mbpoll python3"
)

wanted=()
for group in "$@"; do
  [[ -n "${GROUPS_PKGS[$group]:-}" ]] || { echo "install-deps: unknown group '$group'" >&2; exit 2; }
  read -r -a pkgs <<<"${GROUPS_PKGS[$group]}"
  wanted+=("${pkgs[@]}")
done

missing=()
for pkg in "${wanted[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$pkg")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "install-deps: installing ${missing[*]}"
SUDO=""
if [[ $(id -u) -ne 0 ]]; then
  command -v sudo >/dev/null || { echo "install-deps: need root (or sudo) to install: ${missing[*]}" >&2; exit 1; }
  SUDO="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
# A list that fails to download (a mirror in sync, say, for one architecture)
# need not stop an install that the other lists satisfy; the install below
# fails clearly if it does not.
$SUDO apt-get update -qq || echo "install-deps: apt-get update reported errors; installing from the lists it has" >&2
# Never remove an installed package to make room (others build against them):
# simulate first and refuse when apt would remove anything.
plan=$($SUDO apt-get install -s --no-install-recommends "${missing[@]}" 2>&1) || {
  echo "$plan" | tail -5 >&2
  echo "install-deps: cannot install ${missing[*]}" >&2
  exit 1
}
if removals=$(grep '^Remv ' <<<"$plan"); then
  echo "install-deps: installing ${missing[*]} would remove installed packages; not installing:" >&2
  echo "$removals" >&2
  exit 1
fi
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
