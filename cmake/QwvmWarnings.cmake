# Warning and sanitizer flags shared by every target of the project.
add_library(qwvm_flags INTERFACE)
target_compile_options(qwvm_flags INTERFACE -Wall -Wextra)
if(QWVM_WERROR)
  target_compile_options(qwvm_flags INTERFACE -Werror)
  # g++ 12 at -O3 warns -Wrestrict inside std::string's operator+ on a
  # literal and a temporary (a false positive of its inliner, GCC PR105329):
  # keep it a warning, so Release builds with -Werror still build.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(qwvm_flags INTERFACE -Wno-error=restrict)
  endif()
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
