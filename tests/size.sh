#!/usr/bin/env bash
# Non-blank lines of library code (src, include, tools) against tests (tests,
# fuzz), and their ratio. Exits 1 when the tests pass 35% of the code.
set -euo pipefail
cd "$(dirname "$0")/.."
count() {
  find "$@" -type f \( -name '*.c' -o -name '*.cpp' -o -name '*.h' -o -name '*.sh' \
    -o -name 'CMakeLists.txt' -o -name '*.cmake' \) -print0 | xargs -0 cat | grep -cv '^[[:space:]]*$'
}
code=$(count src include tools)
tests=$(count tests fuzz)
percent=$((tests * 100 / code))
printf 'code  %6d lines (src, include, tools)\ntests %6d lines (tests, fuzz)\nratio %5d%%  (limit 35%%)\n' \
  "$code" "$tests" "$percent"
[ "$percent" -le 35 ]
