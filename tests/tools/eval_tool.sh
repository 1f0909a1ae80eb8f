#!/usr/bin/env bash
# The `qwvm eval` commands by hand: add (any expression), match at the three
# levels across separate processes, stat, and the refusals (nothing stored).
. "$(dirname "$0")/lib.sh"
q="$work/q"

"$qwvm" eval "$q" add '1 & !(2 | 3:1)' 10 >/dev/null || fail "add 10"
"$qwvm" eval "$q" add '(4 | 5) & 6:2' 20 >/dev/null || fail "add 20"
"$qwvm" eval "$q" add '!7' 30 >/dev/null || fail "add 30"
"$qwvm" eval "$q" add '6 & 1' 40 >/dev/null || fail "add 40"
expect() {  # expect "ATOMS" "LEVEL0" "LEVEL1" "LEVEL2"
  # shellcheck disable=SC2086
  out=$("$qwvm" eval "$q" match $1) || fail "match $1"
  want=$(printf 'level 0:%s\nlevel 1:%s\nlevel 2:%s' "$2" "$3" "$4")
  [ "$out" = "$want" ] || fail "match $1: got '$out', want '$want'"
}
expect "1" " 10 30" " 10" " 10"
expect "1 3:1" " 30" "" ""
expect "1 3:2 7" " 10" " 10" " 10"
expect "--weak 4 6:2 1" " 10 20 30 40" " 10 20 40" " 10 40"
expect "" " 30" "" ""
"$qwvm" eval "$q" stat | grep -q 'conjunctions:  5 (1 of negated atoms only)' || fail "stat: $("$qwvm" eval "$q" stat)"

before=$(md5sum <"$q"/arena.new)
for bad in '1 & (2' '1 &' '4294967295' '1 $ 2' '1:2:3' '16777216' \
           '(1|2)&(3|4)&(5|6)&(7|8)&(9|10)&(11|12)&(13|14)&(15|16)&(17|18)&(19|20)&(21|22)'; do
  refuses "" . eval "$q" add "$bad" 50
done
grep -q 'expression too large' "$work/err" || fail "size limit message: $(cat "$work/err")"
"$qwvm" eval "$q" add '1 & (2' 50 2>&1 | grep -q 'column 7: expected ")"' || fail "column of the fault"
refuses "" "" eval "$q" add '1' -5
[ "$(md5sum <"$q"/arena.new)" = "$before" ] || fail "a refused add committed something"
expect "1" " 10 30" " 10" " 10"
refuses 2 "" eval "$q" frob
refuses "" "" eval "$work/none" stat
echo "eval tool: ok"
