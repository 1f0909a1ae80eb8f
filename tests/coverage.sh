#!/usr/bin/env bash
# Line and branch coverage of src/ by the whole test suite:
#   bash tests/coverage.sh [BUILD_DIR]     (default build-cov)
# Builds with -DQWVM_COVERAGE=ON (gcov, -O0), runs every test, prints gcovr's
# summary. Needs gcovr (Debian package gcovr; installed here when missing).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-cov}
command -v gcovr >/dev/null || apt-get install -y gcovr >/dev/null
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DQWVM_COVERAGE=ON >/dev/null
cmake --build "$build" -j"${JOBS:-2}"
find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" -j"${JOBS:-2}" --output-on-failure >/dev/null
# Branches the compiler adds for exceptions are not the code's own: leave them out.
# The report goes to a file of the build (gcovr replaces its output file, so
# never name a device such as /dev/null there).
gcovr --root . --filter 'src/' --object-directory "$build" --exclude-throw-branches \
  --exclude-unreachable-branches --gcov-ignore-parse-errors --print-summary -o "$build/coverage.txt" "$build"
