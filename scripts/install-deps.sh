#!/usr/bin/env bash
# Installs the Debian packages a task needs, only when some are missing.
# Usage: scripts/install-deps.sh GROUP...   (groups: build test modbus fuzz profile)
# Safe to run any number of times; runs apt-get only when something is missing.
set -euo pipefail

declare -A GROUPS_PKGS=(
  [build]="cmake make g++ pkg-config qtbase5-dev"
  [test]="libgtest-dev libgmock-dev libbenchmark-dev"
  [modbus]="libmodbus-dev python3-pymodbus mbpoll"
  [fuzz]="clang libclang-rt-14-dev llvm"
  # Instruction counts of the benchmarks (valgrind --tool=callgrind).
  [profile]="valgrind"
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
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
