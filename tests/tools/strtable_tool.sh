#!/usr/bin/env bash
# The `qwvm strtable` commands by hand: set/get round trips (binary keys via
# --hex), overwrite, rm, list with a prefix (escaped and hex), stat, and the
# refusals.
. "$(dirname "$0")/lib.sh"
t=$work/table
st() { "$qwvm" strtable "$t" "$@"; }

st set fruit/apple red >/dev/null || fail "set apple"
st set fruit/kiwi green >/dev/null || fail "set kiwi"
st set veg/leek 'white\with	tab' >/dev/null || fail "set leek"
out=$(st set fruit/apple crimson) || fail "overwrite"
[ "$out" = '"fruit/apple": 7 bytes (replaced)' ] || fail "overwrite output: $out"
[ "$(st get fruit/apple)" = crimson ] || fail "get after overwrite"
# Keys holding 00 and ff, one a prefix of the other; a value with 00 and ff.
st --hex set 00ff 61ff00 >/dev/null || fail "hex set"
st --hex set 00 7a >/dev/null || fail "hex set prefix key"
[ "$(st --hex get 00ff)" = 61ff00 ] || fail "hex get: $(st --hex get 00ff)"
[ "$(st --hex get 00)" = 7a ] || fail "hex get of the shorter key"

st rm fruit/kiwi >/dev/null || fail "rm"
refuses 1 'no key "fruit/kiwi"' strtable "$t" get fruit/kiwi
refuses "" "" strtable "$t" rm fruit/kiwi

[ "$(st list fruit/)" = "fruit/apple	crimson" ] || fail "list prefix: $(st list fruit/)"
[ "$(st list veg)" = 'veg/leek	white\\with\x09tab' ] || fail "escaped list: $(st list veg)"
[ "$(st --hex list 00)" = "$(printf '00\t7a\n00ff\t61ff00')" ] || fail "hex list: $(st --hex list 00)"
[ "$(st list | wc -l)" = 4 ] || fail "full list: $(st list)"
stat=$(st stat) || fail "stat"
echo "$stat" | grep -q "^string table $t: 4 keys," || fail "stat keys: $stat"
echo "$stat" | grep -q "^box $t/box: 4 buckets, 5 entries$" || fail "stat box: $stat"
st checkpoint | grep -q 'recovered and checkpointed' || fail "checkpoint"

refuses 2 "" strtable "$t" get ""
refuses 2 "" strtable "$t" --hex get 0
refuses 2 "" strtable "$t" --hex get zz
refuses 1 'cannot open the string table' strtable "$work/none" get x
refuses "" "" strtable "$work/none" rm x
[ -e "$work/none" ] && fail "rm created a table"
"$qwvm" strtable --help | grep -q 'no page' || fail "help"
echo "strtable tool: ok"
