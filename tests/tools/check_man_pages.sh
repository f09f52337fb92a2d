#!/usr/bin/env bash
# The manual pages of a build: every exported function of the C interface has
# one, and man reads every page without a warning.
# Usage: check_man_pages.sh MAN_DIR SOURCE_DIR
set -euo pipefail
man_dir=$1 src=$2
fail() {
  echo "FAIL: $*" >&2
  exit 1
}
# The data symbols and the log handler have no page of their own.
for f in $(grep -vxE 'LB|LW|RWI|PLC_driver|customMessageHandler' "$src/tests/exported_symbols.txt"); do
  [[ -f "$man_dir/$f.3.gz" ]] || fail "no manual page $f(3) in $man_dir"
done
pages=0
for page in "$man_dir"/*.gz; do
  warnings=$(MANWIDTH=80 man --warnings -E UTF-8 -l "$page" 2>&1 >/dev/null) || fail "man -l $page failed: $warnings"
  [[ -z "$warnings" ]] || fail "man --warnings -l $page: $warnings"
  name=$(basename "$page" .gz)
  MANWIDTH=80 man -l "$page" 2>/dev/null | grep -q "^NAME" || fail "$page has no NAME section"
  pages=$((pages + 1))
done
[[ $pages -gt 0 ]] || fail "no manual pages in $man_dir"
echo "$pages manual pages read without warnings"
