# Sourced by .ci/asan-test.sh and .ci/fuzz-smoke.sh (needs $here, the
# project root): the one sanitizer tree, build-asan/, that serves both the
# test suite and the fuzz targets. clang builds it with ASan, UBSan and the
# fuzzer's coverage hooks (fuzzer-no-link), so the program is compiled once
# for the two stages; without a fuzzer linked in, a hook is a call that does
# nothing. Every report is fatal (cmake/sanitizers.cmake).
# The program at -O1 with line tables only: quick to build and to run, exact
# stack traces. The tests' own code, most of the compile, is still checked
# by both sanitizers but at -O0, without the fuzzer's hooks (no fuzz target
# runs it) and with GoogleTest and the standard headers precompiled: a test
# file compiles in a third of the time (tests/CMakeLists.txt).
# Each test program runs as four shard processes, not one process a test: a
# sanitized process's start and leak check cost about 0.13 CPU-seconds,
# a third of the suite's time when every test had its own.
# lld links the big instrumented programs.
sanitized_tree="$here/build-asan"

# Configures $sanitized_tree from scratch.
configure_sanitized_tree() {
  rm -rf "$sanitized_tree"
  cmake -S "$here" -B "$sanitized_tree" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1" -DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld \
    -DCMAKE_SHARED_LINKER_FLAGS=-fuse-ld=lld -DT4MI_SANITIZE="address;undefined;fuzzer-no-link" \
    -DT4MI_TEST_COMPILE_OPTIONS="-O0;-fno-sanitize=fuzzer-no-link" -DT4MI_TEST_PCH=ON -DT4MI_TEST_SHARDS=4 \
    -DT4MI_BUILD_FUZZ=ON -DT4MI_BUILD_BENCH=OFF -DT4MI_WERROR=ON >/dev/null
}

# Whether $sanitized_tree is configured that way already (a tree of an
# earlier layout, gcc without the fuzz targets, is not).
sanitized_tree_is_current() {
  grep -qx 'T4MI_BUILD_FUZZ:BOOL=ON' "$sanitized_tree/CMakeCache.txt" 2>/dev/null &&
    grep -qx 'T4MI_TEST_SHARDS:STRING=4' "$sanitized_tree/CMakeCache.txt" &&
    grep -q '^CMAKE_EXE_LINKER_FLAGS:STRING=-fuse-ld=lld$' "$sanitized_tree/CMakeCache.txt"
}
