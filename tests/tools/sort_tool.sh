#!/usr/bin/env bash
# `qwvm sort` against `LC_ALL=C sort`: every flag combination on generated
# lines (duplicates, empty lines, NUL and high bytes, no final newline),
# stdin, SIGKILL at random moments then --resume, and the refusals.
. "$(dirname "$0")/lib.sh"
export LC_ALL=C

# ~6 MB of lines of mixed lengths over a small alphabet (many duplicates).
awk 'BEGIN { srand(3); for (i = 0; i < 200000; i++) { n = int(rand() * rand() * 60);
  s = ""; for (j = 0; j < n; j++) s = s substr("abcAB z~", 1 + int(rand() * 8), 1); print s } }' >"$work/in"
printf 'x\0y\nx\nx\0a\n\n\xff\xfe\nlast without newline' >"$work/odd"
cat "$work/in" "$work/odd" >"$work/all"

for flags in "" "-r" "--compress" "--parallel 3" "-r --compress --parallel 2"; do
  sortFlags=${flags//--compress/}
  # shellcheck disable=SC2086
  "$qwvm" sort -S 2M $flags -o "$work/out" "$work/all" "$work/odd" || fail "sort $flags"
  # shellcheck disable=SC2086
  sort $sortFlags "$work/all" "$work/odd" | cmp - "$work/out" || fail "output of sort $flags"
done
"$qwvm" sort <"$work/odd" | cmp - <(sort "$work/odd") || fail "stdin"
"$qwvm" sort </dev/null | cmp - /dev/null || fail "empty input"
# A pipe given as -o is written in place, not replaced by a file.
mkfifo "$work/fifo"
cat "$work/fifo" >"$work/piped" &
"$qwvm" sort -o "$work/fifo" "$work/odd" || fail "sort into a pipe"
wait
[ -p "$work/fifo" ] && sort "$work/odd" | cmp - "$work/piped" || fail "output into a pipe"

# Killed at moments spread over an uninterrupted sort's duration (run
# phase, merge, output), then resumed.
sort "$work/all" >"$work/ref"
rm -rf "$work/state"; mkdir "$work/state"
t0=$(date +%s%N)
"$qwvm" sort -S 1M -T "$work/state" -o "$work/out" "$work/all" || fail "timed sort"
duration=$(( ($(date +%s%N) - t0) / 1000000 ))
resumed=0
for percent in 5 15 25 35 45 55 65 75 85 95; do
  rm -rf "$work/state" "$work/out"; mkdir "$work/state"
  "$qwvm" sort -S 1M -T "$work/state" -o "$work/out" "$work/all" 2>/dev/null &
  pid=$!
  sleep "$(awk -v ms="$duration" -v p="$percent" 'BEGIN { printf "%.3f", ms * p / 100000 }')"
  kill -9 "$pid" 2>/dev/null
  wait "$pid" 2>/dev/null
  if [ -d "$work/state/qwvm-sort" ]; then
    resumed=$((resumed + 1))
    "$qwvm" sort --resume "$work/state" -o "$work/out" || fail "resume at $percent%"
  fi
  # Killed before its state was in place: the sort had not begun.
  [ -e "$work/out" ] || continue
  cmp "$work/out" "$work/ref" || fail "resumed output at $percent%"
  [ -e "$work/state/qwvm-sort" ] && fail "state left after resume"
done
[ "$resumed" -ge 3 ] || fail "only $resumed of the kills stopped a sort in progress"

# Refusals: a clear error, exit 2, no output file.
rm -f "$work/out"
refuses 2 'cannot read' sort -o "$work/out" "$work/absent"
[ ! -e "$work/out" ] || fail "missing input: output written"
refuses 2 'unknown option --frob' sort --frob "$work/in"
refuses 2 "" sort --resume "$work/nothing" -o "$work/out"
mkdir -p "$work/bad/qwvm-sort" && echo garbage >"$work/bad/qwvm-sort/job"
refuses 2 "" sort --resume "$work/bad" -o "$work/out"
printf 'qwvm sort job 1\noutput %s\ninput %s\nend\n' "$work/out" "$work/in" >"$work/bad/qwvm-sort/job"
mkdir -p "$work/bad/qwvm-sort/meta" && echo junk >"$work/bad/qwvm-sort/meta/arena.new"
refuses 2 "" sort --resume "$work/bad"
[ ! -e "$work/out" ] || fail "output written by a failed sort"
echo "sort tool: ok"
