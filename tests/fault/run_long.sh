#!/usr/bin/env bash
# The long fault campaign: every power-loss and I/O-error point of every
# workload (QWVM_FAULT_FULL=1), the damaged-file cases and every other sweep
# of the suite in full, then each fuzz target for SECONDS (default 3600).
#   tests/fault/run_long.sh [SECONDS]
# Needs clang for the fuzz build; runs from any directory.
set -euo pipefail
cd "$(dirname "$0")/../.."
seconds=${1:-3600}
JOBS=${JOBS:-2}

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$JOBS" --target fault_test arena_test
QWVM_FAULT_FULL=1 build/tests/fault_test | grep -E "^(fault points|damaged files)|PASSED|FAILED"
QWVM_FAULT_FULL=1 build/tests/arena_test --gtest_filter='*PowerLoss*:*Damaged*' | grep -E "PASSED|FAILED"

CC=clang CXX=clang++ cmake -S . -B build-fuzz -DQWVM_BUILD_FUZZ=ON -DQWVM_BUILD_TESTS=OFF \
  -DQWVM_SANITIZE=address,undefined >/dev/null
for t in $(cd fuzz && ls fuzz_*.cpp | sed 's/\.cpp$//'); do cmake --build build-fuzz -j"$JOBS" --target "$t"; done
bash fuzz/run.sh build-fuzz "$seconds"
