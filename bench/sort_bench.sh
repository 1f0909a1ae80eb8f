#!/usr/bin/env bash
# qwvm sort against GNU sort (LC_ALL=C) in the same run, on generated text
# lines (mixed lengths, many duplicates), with the same -S and --parallel,
# and against the two-pass floor: read the input, write runs, read runs,
# write the output at this disk's measured sequential bandwidth.
# Prints time and peak RSS of each, and the ratios.
#   bench/sort_bench.sh QWVM [SIZE_MB] [DIR]     (defaults: 1024 MB, ./sort-bench)
set -eu
qwvm=$1
sizeMB=${2:-1024}
dir=${3:-sort-bench}
export LC_ALL=C
mkdir -p "$dir"
input=$dir/input.txt
if [ ! -s "$input" ] || [ "$(($(stat -c %s "$input") >> 20))" -lt "$sizeMB" ]; then
  # Lines of 0..120 bytes over 40 symbols; about one line in four repeats
  # one of 50000 earlier lines.
  awk -v mb="$sizeMB" 'BEGIN { srand(1); total = mb * 1048576; a = "abcdefghijklmnopqrstuvwxyzABCDEFGH 0123";
    while (total > 0) { if (rand() < 0.25 && k > 0) s = keep[int(rand() * k)];
      else { n = int(rand() * rand() * 121); s = "";
        for (j = 0; j < n; j++) s = s substr(a, 1 + int(rand() * 40), 1);
        if (k < 50000) keep[k++] = s; else keep[int(rand() * 50000)] = s }
      print s; total -= length(s) + 1 } }' >"$input"
fi
bytes=$(stat -c %s "$input")

# Sequential bandwidth: write and read back a file of the input's size
# (dropping it from the cache is not possible without root; reads of a
# file just written may come from memory, as the sorts' reads may too).
# Prints: wall seconds, peak RSS (KB), CPU seconds (user + system).
measure() { /usr/bin/time -f "%e %M %U %S" "$@" 2>&1 >/dev/null | tail -1 | awk '{ print $1, $2, $3 + $4 }'; }
w=$(measure sh -c "dd if='$input' of='$dir/copy' bs=1M conv=fsync status=none")
r=$(measure sh -c "cat '$dir/copy' > /dev/null")
rm -f "$dir/copy"
floor=$(echo "$w $r" | awk '{ print 2 * ($1 + $4) }')
printf 'input %d MB; two-pass floor %.2f s (write %.2f s, read %.2f s); load %s\n' $((bytes >> 20)) "$floor" \
  "$(echo "$w" | cut -d' ' -f1)" "$(echo "$r" | cut -d' ' -f1)" "$(cut -d' ' -f1-3 /proc/loadavg)"

for mem in 64M 1G; do
  for par in 1 2; do
    rm -rf "$dir/tmp" && mkdir "$dir/tmp"
    g=$(measure sort -S "$mem" --parallel="$par" -T "$dir/tmp" -o "$dir/gnu.out" "$input")
    q=$(measure "$qwvm" sort -S "$mem" --parallel "$par" -T "$dir/tmp" -o "$dir/qwvm.out" "$input")
    cmp -s "$dir/gnu.out" "$dir/qwvm.out" || { echo "outputs differ at -S $mem --parallel $par"; exit 1; }
    echo "$mem $par $g $q $floor" | awk '{ printf "-S %-3s --parallel %s: GNU sort %6.2f s (cpu %5.2f) %7d KB | qwvm sort %6.2f s (cpu %5.2f) %7d KB | GNU/qwvm wall %.2fx cpu %.2fx, qwvm/floor %.2fx\n", $1, $2, $3, $5, $4, $6, $8, $7, $3 / $6, $5 / $8, $6 / $9 }'
  done
done
rm -rf "$dir/tmp" "$dir/gnu.out" "$dir/qwvm.out"
