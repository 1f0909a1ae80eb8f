#!/usr/bin/env bash
# System calls of one transaction of one put into the 1M-key B-tree of
# commit_bench, per side: `strace -c -f` attached only around that
# transaction (the program stops itself before and after it).
#   bench/strace_commit.sh [BENCH_BINARY] [SIDE...]   (sides: cache mapped lmdb)
set -euo pipefail
bench=${1:-build-bench/bench/commit_bench}
shift || true
sides=("$@")
[ ${#sides[@]} -gt 0 ] || sides=(cache mapped lmdb)
for side in "${sides[@]}"; do
  out=$(mktemp)
  QWVM_BENCH_STRACE=$side "$bench" >"$out" &
  pid=$!
  until grep -q '^ready' "$out" 2>/dev/null; do sleep 0.2; done
  until [ "$(ps -o stat= -p "$pid" | cut -c1)" = T ]; do sleep 0.05; done
  trace=$(mktemp)
  strace -c -f -p "$pid" -o "$trace" &
  tracer=$!
  sleep 1
  kill -CONT "$pid"
  sleep 0.2
  until [ "$(ps -o stat= -p "$pid" | cut -c1)" = T ]; do sleep 0.05; done
  kill -INT "$tracer"
  wait "$tracer" || true
  kill -CONT "$pid"
  wait "$pid" || true
  echo "== $side: $(tail -1 "$out")"
  cat "$trace"
  rm -f "$out" "$trace"
done
