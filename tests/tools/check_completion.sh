#!/usr/bin/env bash
# The bash completions of plcpoll and plcsim: every option the program's
# --help names is offered, and option values complete.
# Usage: check_completion.sh SOURCE_DIR PLCPOLL PLCSIM
set -euo pipefail
src=$1 plcpoll=$2 plcsim=$3
fail() {
  echo "FAIL: $*" >&2
  exit 1
}
# complete COMMAND WORD...: what the completion offers for the last word.
complete_words() {
  local command=$1
  shift
  bash -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); "_$1"; echo "${COMPREPLY[*]}"' _ \
    "$src/tools/completion/$command" "$command" "$@"
}
expect() { # expect COMMAND WORD... -- EXPECTED
  local args=() got
  while [[ $1 != -- ]]; do args+=("$1"); shift; done
  shift
  got=$(complete_words "${args[@]}")
  [[ "$got" == "$*" ]] || fail "'${args[*]}' completes to '$got', expected '$*'"
}
for command in plcpoll plcsim; do
  program=$plcpoll
  [[ $command == plcsim ]] && program=$plcsim
  offered=" $(complete_words "$command" --) "
  for option in $("$program" --help | grep -oE -- '--[a-z][a-z-]+' | sort -u); do
    [[ "$offered" == *" $option "* ]] || fail "the completion of $command does not offer $option"
  done
done
expect plcpoll --ty -- --type
expect plcpoll --type float -- float32 float64
expect plcpoll --order C -- CDAB
expect plcpoll --link r -- remote
expect plcpoll --json "" -- write scan
expect plcpoll scan "" --
expect plcpoll --port "" --
expect plcsim --fill a -- address
expect plcsim --sta -- --stations --static
echo "completions of plcpoll and plcsim as expected"
