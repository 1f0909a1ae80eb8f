#!/usr/bin/env bash
# The `qwvm sfs` commands by hand: put, get, ls, and the refusals.
. "$(dirname "$0")/lib.sh"

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

refuses "" 'no file "nothing"' sfs "$work/store" get nothing
refuses "" 'SFSOpen:cannot open arena in directory' sfs "$work/none" ls
refuses "" "" sfs "$work/store" put x "$work/absent"
refuses 2 "" sfs "$work/store" frob
echo "sfs tool: ok"
