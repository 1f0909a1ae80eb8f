#!/usr/bin/env bash
# `qwvm copy` beside a writer that commits in a loop (one store per kind):
# every copy checks clean and holds exactly one state the writer committed
# (the writer records a digest of each); a copy onto an existing directory
# is refused and leaves it alone.
. "$(dirname "$0")/lib.sh"
trap 'kill $writer 2>/dev/null; [ -n "${KEEP:-}" ] || rm -rf "$work"' EXIT
head -c 20000 /dev/urandom >"$work/value"

# kind, the command that writes item $i, the command that lists a store.
run() {
  local name=$1 write=$2 list=$3 store=$work/$1
  i=0; eval "$write" >/dev/null || fail "$name: first write"
  eval "${list//\$dir/$store}" | md5sum >"$work/$name.states"
  (for i in $(seq 1 12); do
     eval "$write" >/dev/null || exit 1
     eval "${list//\$dir/$store}" | md5sum >>"$work/$name.states"
   done) &
  writer=$!
  for n in 1 2 3 4 5 6; do
    "$qwvm" copy "$store" "$work/$name.copy$n" >/dev/null || fail "$name: copy $n"
  done
  wait $writer || fail "$name: writer"
  "$qwvm" copy "$store" "$work/$name.compact" --compact >/dev/null || fail "$name: compact copy"
  eval "${list//\$dir/$store}" | md5sum >>"$work/$name.states"
  for copy in "$work/$name".copy* "$work/$name.compact"; do
    "$qwvm" check "$copy" >/dev/null || fail "$name: $copy does not check clean"
    grep -qxF "$(eval "${list//\$dir/$copy}" | md5sum)" "$work/$name.states" ||
      fail "$name: $copy holds no committed state"
  done
  cmp -s <(eval "${list//\$dir/$store}") <(eval "${list//\$dir/$work/$name.compact}") ||
    fail "$name: the compact copy of the quiet store differs"
}
run arena '"$qwvm" sfs "$work/arena" put f$i "$work/value"' '"$qwvm" sfs "$dir" ls; for f in $("$qwvm" sfs "$dir" ls | awk "{print \$2}"); do "$qwvm" sfs "$dir" get $f | md5sum; done'
run strtable '"$qwvm" strtable "$work/strtable" set k$i "$(head -c $((i * 1250)) "$work/value" | base64 -w0)"' '"$qwvm" strtable "$dir" list'
run box 'head -c $((i * 1000 + 1)) "$work/value" >"$work/v"; "$qwvm" box "$work/box" put $((i % 7)) "$work/v"' \
  'for id in 0 1 2 3 4 5 6; do "$qwvm" box "$dir" get $id 2>/dev/null | md5sum; done'

# A copy held (QWVMCOPYHOLD) after it read the generation files while two
# commits free and reuse the blocks it was about to read: it must see that
# and take the copy again, ending with the newest state.
held() {  # store, list command, two writes
  local store=$work/$1 hold=$work/hold-$1
  QWVMCOPYHOLD=$hold "$qwvm" copy "$store" "$work/$1.held" >"$work/held.out" &
  local copier=$!
  for _ in $(seq 1 500); do [ -e "$hold.held" ] && break; sleep 0.01; done
  eval "$3" >/dev/null && eval "$4" >/dev/null || fail "$1: writes beside the held copy"
  touch "$hold.go"
  wait $copier || fail "$1: held copy"
  grep -q '(2 passes)' "$work/held.out" || fail "$1: the held copy did not start again: $(cat "$work/held.out")"
  "$qwvm" check "$work/$1.held" >/dev/null || fail "$1: held copy does not check clean"
  cmp -s <(eval "${2//\$dir/$store}") <(eval "${2//\$dir/$work/$1.held}") || fail "$1: held copy is not the newest state"
}
held arena '"$qwvm" sfs "$dir" ls; for f in $("$qwvm" sfs "$dir" ls | awk "{print \$2}"); do "$qwvm" sfs "$dir" get $f | md5sum; done' \
  'head -c 9000 "$work/value" >"$work/v"; "$qwvm" sfs "$work/arena" put f1 "$work/v"' \
  '"$qwvm" sfs "$work/arena" put f2 "$work/v"'
held strtable '"$qwvm" strtable "$dir" list' '"$qwvm" strtable "$work/strtable" set k1 changed' \
  '"$qwvm" strtable "$work/strtable" rm k2'

refuses 1 'exists' copy "$work/box" "$work/arena.copy1"
"$qwvm" check "$work/arena.copy1" | grep -q 'arena: clean' || fail "refused copy touched the destination"
echo "copy tool: ok"
