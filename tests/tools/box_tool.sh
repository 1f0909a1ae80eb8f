#!/usr/bin/env bash
# The `qwvm box` commands by hand: put/get of binary bytes, rm, stat, check on
# a clean box and on a damaged data file, dump, and the refusals.
. "$(dirname "$0")/lib.sh"
box=$work/box

head -c 30000 /dev/urandom >"$work/big"       # four blocks, with NUL and newline bytes
printf '\x00\x01\xff\n\x00' >"$work/small"
"$qwvm" box "$box" put 3 "$work/big" --buckets 2 >/dev/null || fail "put big"
"$qwvm" box "$box" put 4 "$work/small" >/dev/null || fail "put small"
"$qwvm" box "$box" put 5 "$work/small" >/dev/null || fail "put 5"
out=$("$qwvm" box "$box" put 5 "$work/big") || fail "overwrite"
[ "$out" = "id 5: 30000 bytes (replaced, bucket 1)" ] || fail "put output: $out"
"$qwvm" box "$box" get 3 | cmp - "$work/big" || fail "get big"
"$qwvm" box "$box" get 4 | cmp - "$work/small" || fail "get small"
"$qwvm" box "$box" rm 4 >/dev/null || fail "rm"
refuses "" 'no entry 4' box "$box" get 4
refuses "" 'cannot remove non-existing entry' box "$box" rm 4

stat=$("$qwvm" box "$box" stat) || fail "stat"
echo "$stat" | grep -q "^box $box: 2 buckets, 2 entries$" || fail "stat header: $stat"
echo "$stat" | grep -Eq '^ +all +2 ' || fail "stat total: $stat"
"$qwvm" box "$box" check >"$work/report" || fail "clean box: $(cat "$work/report")"
grep -q ': 2 buckets, 2 entries checked, 0 faults$' "$work/report" || fail "clean report: $(cat "$work/report")"
"$qwvm" box "$box" dump | grep -q 'BoxUpdate id 4, sizeNew = 0' || fail "dump lacks the removal"

# Id 3 is bucket 1's first entry: its first block at handle 0 of that data file.
printf '\x55' | dd of="$box/bucket.1/data/box.dat" bs=1 seek=40 conv=notrunc 2>/dev/null
"$qwvm" box "$box" check >"$work/report" && fail "damaged data file passed the check"
grep -q '^bucket 1: id 3: part 0 at handle 0: .*wrong checksum' "$work/report" || fail "report: $(cat "$work/report")"
refuses "" "" box "$box" get 3

refuses "" 'Could not read status in' box "$work/none" stat
refuses 2 "" box "$box" get x
refuses 2 "" box "$box" stat --buckets 3
"$qwvm" box --help | grep -q 'qwvm box DIR check' || fail "help"
echo "box tool: ok"
