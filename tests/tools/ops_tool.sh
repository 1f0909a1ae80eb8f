#!/usr/bin/env bash
# `qwvm check` and `qwvm stat` over every store the tour writes: one clean line
# per store on the tour's root, a damaged box data file and a damaged log
# found, an empty directory refused, and `stat --json` parsing for each kind.
. "$(dirname "$0")/lib.sh"
tour=$work/tour

"$qwvm" tour "$tour" >"$work/tour.log" 2>&1 || fail "tour: $(tail -5 "$work/tour.log")"
"$qwvm" check "$tour" >"$work/report" || fail "clean tour: $(cat "$work/report")"
printf '%s\n' "$tour/arena: arena: clean" "$tour/box: box: clean" "$tour/files: arena: clean" \
  "$tour/logged: logged arena: clean" "$tour/queries: arena: clean" "$tour/strtable: string table: clean" \
  | diff - "$work/report" || fail "clean tour report"

json() { "$qwvm" stat "$1" --json | python3 -c "import json,sys; d=json.load(sys.stdin); print($2)"; }
[ "$(json "$tour/arena" 'd["kind"], d["buckets"], len(d["committed"]["free_lists"])')" = "arena 2 16" ] ||
  fail "arena json: $("$qwvm" stat "$tour/arena" --json)"
[ "$(json "$tour/box" 'd["kind"], d["bucket_count"], sum(b["entries"] for b in d["buckets"])')" = "box 2 3" ] ||
  fail "box json: $("$qwvm" stat "$tour/box" --json)"
[ "$(json "$tour/strtable" 'd["kind"], d["keys"], d["box"]["bucket_count"]')" = "strtable 2 4" ] ||
  fail "strtable json: $("$qwvm" stat "$tour/strtable" --json)"
[ "$(json "$tour/logged" 'd["log"]["records"] > 0, d["log"]["last_serial"] == d["arena_serial"]')" = "True True" ] ||
  fail "logged arena json: $("$qwvm" stat "$tour/logged" --json)"
[ "$(json "$tour" 'd["kind"], len(d["stores"])')" = "tree 6" ] || fail "tree json"
"$qwvm" stat "$tour/box" | grep -q '^  entries: 3$' || fail "box text: $("$qwvm" stat "$tour/box")"

# A sort state: its job file is read (its sorter arena, absent here, would be checked).
mkdir "$work/tour/sorting" && printf 'qwvm sort job 1\noutput x\nend\n' >"$work/tour/sorting/job"
"$qwvm" check "$tour" | grep -qx "$tour/sorting: sort directory: clean" || fail "sort directory"
printf 'qwvm sort job 1\noutput x\n' >"$work/tour/sorting/job"
"$qwvm" check "$tour/sorting" | grep -q '^  job: the job file is damaged' || fail "cut job file passed"

# Bucket 1's first value starts at byte 16 of its data file.
printf 'X' | dd of="$tour/box/bucket.1/data/box.dat" bs=1 seek=20 conv=notrunc 2>/dev/null
printf 'X' | dd of="$tour/logged/log/00000001.qwlog" bs=1 seek=1000 conv=notrunc 2>/dev/null
"$qwvm" check "$tour" >"$work/report" && fail "damaged stores passed the check"
grep -qx "$tour/box: box: 1 fault" "$work/report" || fail "box fault: $(cat "$work/report")"
grep -q '^  bucket 1: id 1: part 0 at handle 0: .*wrong checksum' "$work/report" || fail "box fault line"
grep -qx "$tour/logged: logged arena: 1 fault" "$work/report" || fail "log fault: $(cat "$work/report")"
grep -qx "$tour/arena: arena: clean" "$work/report" || fail "clean arena among damaged stores"

mkdir "$work/empty"
refuses 1 "^$work/empty: no qwvm store found\$" check "$work/empty"
refuses 1 "" stat "$work/empty" --json
refuses 2 "" check "$tour/box" --serial 1 2
"$qwvm" help stat | grep -q 'logged_arena' || fail "help stat"
echo "ops tool: ok"
