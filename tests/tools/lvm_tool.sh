#!/usr/bin/env bash
# `qwvm log` and `qwvm lvm` on the logged arena the tour writes, on a
# damaged copy of its log, and on paths that are not logs.
. "$(dirname "$0")/lib.sh"

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
refuses "" "log file \"$file\": no valid record at serial" lvm "$lvm"
refuses "" 'cannot read the log' log "$lvm"

refuses "" "" lvm "$work/none"
refuses "" "" log "$work/none"
refuses 2 "" lvm
echo "lvm tool: ok"
