#!/usr/bin/env bash
# Runs every fuzz target of a fuzz build for a bounded time each.
#   fuzz/run.sh BUILD_DIR SECONDS
# CI runs it briefly; run it with a larger SECONDS (e.g. 3600) for a long
# campaign. Corpora are kept in BUILD_DIR/corpus/<target>.
set -euo pipefail
build=${1:?build dir}
seconds=${2:-60}
for target in "$build"/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  corpus="$build/corpus/$name"
  mkdir -p "$corpus"
  QWVM_FUZZ_WRITE_SEEDS="$corpus" "$target" >/dev/null 2>&1 || true
  echo "fuzzing $name for ${seconds}s"
  "$target" "$corpus" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 -print_final_stats=1 2>&1 | tail -n 12
done
