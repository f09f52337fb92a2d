#!/usr/bin/env bash
# Makes the root file system of a board: Debian 12 (bookworm) of one
# architecture, unpacked with mmdebstrap (--variant=extract: the packages and
# their dependencies are unpacked, nothing is configured or run).
#
#   scripts/make-sysroot.sh ARCH
#       the sysroot the cross builds compile and link against: Qt 5 Core,
#       libmodbus, GoogleTest, nlohmann-json and libmosquitto for development, in
#       build-sysroot/ARCH/.
#       Made once; later runs reuse it while its package list is unchanged.
#   scripts/make-sysroot.sh --board DIR ARCH DEB...
#       a board's root file system in DIR (made anew): the given .deb files
#       installed with apt as on a board (`apt install ./x.deb`), that is with
#       exactly the dependencies their Depends fields name.
#
# ARCH is a Debian architecture: armhf (ARMv7, hard float), armel (ARMv5,
# soft float), arm64 or s390x. The packages come from the Debian mirror this
# machine's apt sources name (/etc/apt/sources.list and sources.list.d/).
# The machine's own packages are not touched. Prints the folder made on its
# last line of output.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

usage() {
  echo "usage: scripts/make-sysroot.sh ARCH | --board DIR ARCH DEB..." >&2
  exit 2
}

board_dir=""
if [[ ${1:-} == --board ]]; then
  [[ $# -ge 4 ]] || usage
  board_dir=$(realpath -m "$2")
  shift 2
fi
[[ $# -ge 1 ]] || usage
arch=$1
shift
case $arch in
  armhf | armel | arm64 | s390x) ;;
  *)
    echo "make-sysroot: unknown architecture '$arch' (armhf, armel, arm64 or s390x)" >&2
    exit 2
    ;;
esac
if [[ -z $board_dir && $# -gt 0 ]]; then usage; fi

debs=()
for deb in "$@"; do
  [[ -f $deb && $deb == *.deb ]] || {
    echo "make-sysroot: not a .deb file: $deb" >&2
    exit 2
  }
  debs+=("$(realpath "$deb")")
done
# The packages of a board are all taken from one folder.
deb_dir=""
if [[ ${#debs[@]} -gt 0 ]]; then
  deb_dir=$(dirname "${debs[0]}")
  for deb in "${debs[@]}"; do
    [[ $(dirname "$deb") == "$deb_dir" ]] || {
      echo "make-sysroot: the .deb files must be in one folder" >&2
      exit 2
    }
  done
fi

bash "$root/scripts/install-deps.sh" sysroot

# The first mirror of this machine's apt sources (one-line or deb822 format)
# that is not the security archive: bookworm and bookworm-updates from there.
# The security archive is left out: its indexes of other architectures are
# often caught mid-sync, and apt in mmdebstrap stops on any index it cannot
# fetch.
# One-line entries may carry options in brackets ("deb [signed-by=...] URL"),
# and may sit in sources.list.d/*.list as well as in sources.list.
mirror=$(cat /etc/apt/sources.list /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources 2>/dev/null |
  sed -E 's/\[[^]]*\] *//' | grep -oE '^(URIs:|deb) +[^ ]+' | awk '{print $2}' | grep -v security | head -1 || true)
[[ -n $mirror ]] || {
  echo "make-sysroot: no Debian mirror found in /etc/apt/sources.list or /etc/apt/sources.list.d/" >&2
  exit 1
}
sources="deb $mirror bookworm main
deb $mirror bookworm-updates main"

# mmdebstrap DIR PACKAGES...: unpack PACKAGES and their dependencies into
# DIR.tmp, then move it to DIR, so a failed run leaves no half-made folder.
unpack() {
  local dir=$1
  shift
  local includes=() p
  # apt reads local .deb files by the same path inside the new root, so they
  # are copied in there first (and removed from it afterwards).
  if [[ -n $board_dir ]]; then
    includes+=("--setup-hook=mkdir -p \"\$1$deb_dir\" && cp ${*@Q} \"\$1$deb_dir/\"")
  fi
  for p in "$@"; do includes+=("--include=$p"); done
  rm -rf "$dir.tmp" "$dir"
  mkdir -p "$(dirname "$dir")"
  if ! printf '%s\n' "$sources" | mmdebstrap --variant=extract --architectures="$arch" "${includes[@]}" \
    bookworm "$dir.tmp" - >"$dir.log" 2>&1; then
    tail -20 "$dir.log" >&2
    rm -rf "$dir.tmp"
    echo "make-sysroot: mmdebstrap failed for $arch (log: $dir.log)" >&2
    exit 1
  fi
  [[ -z $board_dir ]] || for p in "$@"; do rm -f "$dir.tmp$p"; done
  mv "$dir.tmp" "$dir"
}

if [[ -n $board_dir ]]; then
  # DIR is replaced: only an empty folder or one this script made before.
  if [[ -e $board_dir && ! -f $board_dir/.plcdriver-board && -n $(ls -A "$board_dir" 2>/dev/null) ]]; then
    echo "make-sysroot: $board_dir exists and is not a board root made by make-sysroot.sh; not replacing it" >&2
    exit 2
  fi
  # apt resolves the local packages' dependencies from the archive; all of
  # them, the local ones too, are unpacked.
  unpack "$board_dir" "${debs[@]}"
  echo "arch=$arch packages=${debs[*]##*/}" >"$board_dir/.plcdriver-board"
  echo "$board_dir"
  exit 0
fi

# The sysroot of the cross builds. libstdc++ and the C runtime start files
# come with the cross compiler; the C library's headers and libraries, Qt,
# libmodbus, GoogleTest, the JSON library of plcpoll and plcgate
# (header-only) and plcgate's MQTT client library (libmosquitto) from here.
packages=(libc6-dev qtbase5-dev libmodbus-dev libgtest-dev nlohmann-json3-dev libmosquitto-dev)
dir=$root/build-sysroot/$arch
stamp="arch=$arch suite=bookworm packages=${packages[*]}"
if [[ -f $dir/.plcdriver-sysroot && $(cat "$dir/.plcdriver-sysroot") == "$stamp" ]]; then
  echo "make-sysroot: reusing $dir"
  echo "$dir"
  exit 0
fi
echo "make-sysroot: making the $arch sysroot in $dir"
start=$SECONDS
unpack "$dir" "${packages[@]}"
echo "$stamp" >"$dir/.plcdriver-sysroot"
echo "make-sysroot: $arch sysroot made in $((SECONDS - start)) s ($(du -sh "$dir" | cut -f1))"
echo "$dir"
