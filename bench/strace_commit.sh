#!/usr/bin/env bash
# System calls of one transaction of one put into the 1M-key B-tree of
# commit_bench, per side. The program (QWVM_BENCH_STRACE=<side>) fills the
# store, stops itself, runs the transaction and stops again; it runs under
# `strace -f`, and the calls between the two stops are counted by name.
#   bench/strace_commit.sh [BENCH_BINARY] [SIDE...]   (sides: cache mapped lmdb)
set -euo pipefail
bench=${1:-build-bench/bench/commit_bench}
shift || true
sides=("$@")
[ ${#sides[@]} -gt 0 ] || sides=(cache mapped lmdb)
stops() { grep -c -- '--- stopped by SIGSTOP ---' "$1" || true; }
for side in "${sides[@]}"; do
  out=$(mktemp)
  trace=$(mktemp)
  QWVM_BENCH_STRACE=$side strace -f -o "$trace" "$bench" >"$out" &
  tracer=$!
  until grep -q '^ready' "$out" 2>/dev/null; do sleep 0.2; done
  pid=$(awk '/^ready/ {print $2}' "$out")
  until [ "$(stops "$trace")" -ge 1 ]; do sleep 0.05; done
  kill -CONT "$pid"
  until [ "$(stops "$trace")" -ge 2 ]; do sleep 0.05; done
  kill -CONT "$pid"
  wait "$tracer" || true
  echo "== $side: $(grep -v '^ready\|^done' "$out")"
  awk '/--- stopped by SIGSTOP ---/ {n++; next}
       n == 1 && /^[0-9]+ +[a-z_0-9]+\(/ {sub(/^[0-9]+ +/, ""); sub(/\(.*/, ""); calls[$0]++; total++}
       END {for (c in calls) printf "%8d %s\n", calls[c], c; printf "%8d total\n", total}' "$trace" | sort -rn
  rm -f "$out" "$trace"
done
