# Sourced by the tool tests (`. "$(dirname "$0")/lib.sh"`): $qwvm, the tool
# (first argument); $work, a scratch directory removed on exit; fail; refuses.
set -u
qwvm=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }
# refuses STATUS PATTERN ARGS...: `qwvm ARGS` exits with STATUS (any but 0
# when STATUS is "") and its stderr holds PATTERN (grep; "": anything).
refuses() {
  local want=$1 pattern=$2 got
  shift 2
  "$qwvm" "$@" >/dev/null 2>"$work/err"
  got=$?
  if [ -n "$want" ]; then [ "$got" = "$want" ] || fail "qwvm $*: status $got, not $want: $(cat "$work/err")"
  elif [ "$got" = 0 ]; then fail "qwvm $*: accepted"; fi
  [ -z "$pattern" ] || grep -q -- "$pattern" "$work/err" || fail "qwvm $*: message: $(cat "$work/err")"
}
