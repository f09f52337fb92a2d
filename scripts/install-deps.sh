#!/usr/bin/env bash
# Installs the Debian packages a task needs, only when some are missing.
# Usage: scripts/install-deps.sh GROUP...   (groups: build test modbus fuzz profile leaks package qt6 arm64 report)
# Safe to run any number of times; runs apt-get only when something is missing.
set -euo pipefail

declare -A GROUPS_PKGS=(
  [build]="cmake make g++ pkg-config qtbase5-dev"
  [test]="libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev"
  # python3-pymodbus imports serial and serial_asyncio in its server code but
  # only recommends them, and recommends are not installed here.
  [modbus]="libmodbus-dev python3-pymodbus python3-serial python3-serial-asyncio mbpoll"
  [fuzz]="clang libclang-rt-14-dev llvm"
  # Instruction counts of the benchmarks (valgrind --tool=callgrind).
  [profile]="valgrind"
  # The leak test of the shared library (dlopen/dlclose rounds under valgrind).
  [leaks]="valgrind"
  # The benchmark report (scripts/benchmarks.sh): charts with gnuplot, the
  # page written by Debian's /usr/bin/python3.
  [report]="gnuplot-nox python3"
  # The Debian package test (cpack: dpkg-shlibdeps and file).
  [package]="dpkg-dev file"
  # The Qt 6 build of the driver and its unit tests.
  [qt6]="qt6-base-dev"
  # Cross build for 64-bit ARM boards, unit tests under qemu: the arm64 Qt Core
  # runtime (multi-arch, beside the machine's own Qt 5) and GoogleTest's sources.
  [arm64]="g++-aarch64-linux-gnu qemu-user googletest libqt5core5a:arm64"
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
# Packages of another architecture (name:arch) need it enabled in dpkg first.
for pkg in "${missing[@]}"; do
  if [[ $pkg == *:* ]] && ! dpkg --print-foreign-architectures | grep -x "${pkg##*:}" >/dev/null; then
    $SUDO dpkg --add-architecture "${pkg##*:}"
  fi
done
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
