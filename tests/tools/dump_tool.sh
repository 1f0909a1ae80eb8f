#!/usr/bin/env bash
# `qwvm dump` and `qwvm load` over the tour's stores: dump(load(dump)) is
# dump byte for byte and the loaded store checks clean and reads the same;
# --structure on both sides; malformed dumps name their line and leave
# nothing behind; progress only when asked for on a pipe. Also `check` and
# `copy` on an arena whose index file was cut short.
. "$(dirname "$0")/lib.sh"
tour=$work/tour
"$qwvm" tour "$tour" >/dev/null 2>&1 || fail "tour"

for store in arena files queries logged box strtable; do
  "$qwvm" dump "$tour/$store" >"$work/$store.dump" 2>"$work/err" || fail "dump $store: $(cat "$work/err")"
  [ -s "$work/err" ] && fail "dump $store wrote to stderr on a pipe: $(cat "$work/err")"
  "$qwvm" load "$work/$store" <"$work/$store.dump" || fail "load $store"
  "$qwvm" dump "$work/$store" | cmp -s - "$work/$store.dump" || fail "dump(load(dump)) of $store differs"
  "$qwvm" check "$work/$store" >/dev/null || fail "loaded $store does not check clean"
done
diff <("$qwvm" sfs "$tour/files" ls) <("$qwvm" sfs "$work/files" ls) >/dev/null || fail "loaded small file store"
diff <("$qwvm" eval "$tour/queries" match 1 2) <("$qwvm" eval "$work/queries" match 1 2) >/dev/null ||
  fail "loaded queries"
grep -q '^ldbarray files/pathdict/atom ' "$work/arena.dump" || fail "no large-element array in the arena dump"
grep -q '^blockarray tour/words/dbarray/' "$work/arena.dump" || fail "no block array in the arena dump"

"$qwvm" dump "$tour/arena" --structure tour/words --progress >"$work/words.dump" 2>"$work/err"
grep -q '^qwvm dump: [0-9]* records' "$work/err" || fail "no progress with --progress: $(cat "$work/err")"
grep -v '^qwvm-dump\|^end' "$work/words.dump" | grep -qv ' tour/words/' && fail "--structure let others through"
"$qwvm" load "$work/words" --structure tour/words "$work/arena.dump" || fail "load --structure"
"$qwvm" dump "$work/words" | cmp -s - "$work/words.dump" || fail "load --structure built something else"
refuses "" "" dump "$tour/box" --structure pairs

# Malformed dumps: the line is named, nothing is left behind.
bad() {  # name, expected line, sed script applied to the string table dump
  sed "$3" "$work/strtable.dump" >"$work/bad"
  refuses "" "line $2: " load "$work/bad-$1" "$work/bad"
  ls "$work" | grep -q "^bad-$1" && fail "$1: left a directory behind"
}
bad field 2 '2s/^pair \([^ ]*\) .*/pair \1/'
bad escape 3 '3s/ [^ ]*$/ \\xzz/'
bad count 4 '$s/.*/end 7/'
bad cut 4 '$d'
bad header 1 '1s/qwvm-dump 1/qwvm-dump 9/'
refuses "" "" load "$work/box" <"$work/box.dump"

# A damaged arena: check says so, copy refuses it and leaves no destination.
"$qwvm" copy "$tour/arena" "$work/cut" >/dev/null || fail "copy arena"
head -c 20 "$work/cut/block/index0.new" >"$work/i" && mv "$work/i" "$work/cut/block/index0.new"
refuses 1 "" check "$work/cut"
refuses 1 "" copy "$work/cut" "$work/cut2"
[ -e "$work/cut2" ] && fail "a failed copy left its destination"
echo "dump tool: ok"
