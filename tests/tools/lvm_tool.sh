#!/usr/bin/env bash
# `qwvm log` and `qwvm lvm` on the logged arena the tour writes, on a
# damaged copy of its log, and on paths that are not logs.
set -u
qwvm=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

"$qwvm" tour "$work/tour" >/dev/null || fail "tour"
lvm=$work/tour/logged
state=$("$qwvm" lvm "$lvm") || fail "lvm: $state"
echo "$state" | grep -q 'log reads cleanly: *[0-9]* records' || fail "lvm state: $state"
echo "$state" | grep -q 'arena serial: *file 1, offset' || fail "lvm arena serial: $state"
dump=$("$qwvm" log "$lvm") || fail "log"
[ "$(echo "$dump" | head -1)" = "file = 1, offset =       0: [16 bytes] FileHeader" ] || fail "log first line: $dump"
echo "$dump" | tail -1 | grep -q ': \[0 bytes\] LVMRecycle$' || fail "log last line: $dump"
[ "$("$qwvm" log "$lvm/log" | wc -l)" = "$(echo "$dump" | wc -l)" ] || fail "log DIR/log differs from log DIR"

# A flipped byte in a record the log had synced: an error naming file and serial.
file=$lvm/log/00000001.qwlog
printf '\x55' | dd of="$file" bs=1 seek=200 conv=notrunc 2>/dev/null
"$qwvm" lvm "$lvm" >/dev/null 2>"$work/err" && fail "damaged log accepted by lvm"
grep -q "log file \"$file\": no valid record at serial" "$work/err" || fail "lvm message: $(cat "$work/err")"
"$qwvm" log "$lvm" >/dev/null 2>"$work/err" && fail "damaged log accepted by log"
grep -q 'cannot read the log' "$work/err" || fail "log message: $(cat "$work/err")"

"$qwvm" lvm "$work/none" 2>/dev/null && fail "missing directory accepted by lvm"
"$qwvm" log "$work/none" 2>/dev/null && fail "missing directory accepted by log"
"$qwvm" lvm 2>/dev/null; [ $? = 2 ] || fail "lvm without DIR not a usage error"
echo "lvm tool: ok"
