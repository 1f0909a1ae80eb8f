#!/usr/bin/env bash
# The `qwvm sfs` commands by hand: put, get, ls, and the refusals.
set -u
qwvm=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

head -c 70000 /dev/urandom >"$work/big"
printf 'hello\n' >"$work/small"
: >"$work/empty"
"$qwvm" sfs "$work/store" put docs/big "$work/big" >/dev/null || fail "put big"
"$qwvm" sfs "$work/store" put docs/small "$work/small" >/dev/null || fail "put small"
"$qwvm" sfs "$work/store" put empty "$work/empty" >/dev/null || fail "put empty"
"$qwvm" sfs "$work/store" put docs/small "$work/big" >/dev/null || fail "overwrite"
"$qwvm" sfs "$work/store" get docs/big | cmp - "$work/big" || fail "get big"
"$qwvm" sfs "$work/store" get /docs//small/ | cmp - "$work/big" || fail "get overwritten, slashes"
"$qwvm" sfs "$work/store" get empty | cmp - "$work/empty" || fail "get empty"
listing=$("$qwvm" sfs "$work/store" ls docs) || fail "ls"
[ "$(echo "$listing" | wc -l)" = 2 ] || fail "ls docs lists $listing"
echo "$listing" | grep -q '70000  docs/big' || fail "ls size: $listing"

"$qwvm" sfs "$work/store" get nothing 2>"$work/err" && fail "missing path accepted"
grep -q 'no file "nothing"' "$work/err" || fail "missing path message: $(cat "$work/err")"
"$qwvm" sfs "$work/none" ls 2>"$work/err" && fail "missing store accepted"
grep -q 'SFSOpen:cannot open arena in directory' "$work/err" || fail "missing store message: $(cat "$work/err")"
"$qwvm" sfs "$work/store" put x "$work/absent" 2>/dev/null && fail "missing input file accepted"
"$qwvm" sfs "$work/store" frob 2>/dev/null; [ $? = 2 ] || fail "bad verb not a usage error"
echo "sfs tool: ok"
