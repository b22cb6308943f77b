# T4MI_SANITIZE: sanitizers for the whole tree, as a list ("address;undefined";
# CI's tree, .ci/sanitized-tree.sh, adds "fuzzer-no-link" with clang, so that
# the same build serves the test suite and the fuzz targets). Every report is
# fatal, so that a finding fails the test that made it. The tests see
# T4MI_SANITIZED=1 and skip or scale only what a sanitizer makes meaningless
# (peak memory, the timing of slow paths, signals that a sanitizer turns into
# a report).
set(T4MI_SANITIZE "" CACHE STRING "Sanitizers to build with, e.g. address;undefined (empty: none)")
# T4MI_SANITIZE_LINK_FLAG: what a program linked against our instrumented
# libraries needs too (the install test's example builds); empty without.
set(T4MI_SANITIZE_LINK_FLAG "")
if(T4MI_SANITIZE)
  list(JOIN T4MI_SANITIZE "," T4MI_SANITIZE_FLAG)
  set(T4MI_SANITIZE_LINK_FLAG -fsanitize=${T4MI_SANITIZE_FLAG})
  add_compile_options(-fsanitize=${T4MI_SANITIZE_FLAG} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(${T4MI_SANITIZE_LINK_FLAG})
endif()
