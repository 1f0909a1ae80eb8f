# Warning and sanitizer flags shared by every target of the project.
add_library(qwvm_flags INTERFACE)
target_compile_options(qwvm_flags INTERFACE -Wall -Wextra)
if(QWVM_WERROR)
  target_compile_options(qwvm_flags INTERFACE -Werror)
endif()
if(QWVM_SANITIZE)
  target_compile_options(qwvm_flags INTERFACE -fsanitize=${QWVM_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(qwvm_flags INTERFACE -fsanitize=${QWVM_SANITIZE})
endif()
if(QWVM_COVERAGE)
  # gcov instrumentation for tests/coverage.sh; -O0 keeps lines and branches
  # as written so the figures mean what they say; atomic counters stay exact
  # under the concurrency tests.
  target_compile_options(qwvm_flags INTERFACE --coverage -fprofile-update=atomic -O0)
  target_link_options(qwvm_flags INTERFACE --coverage)
endif()
