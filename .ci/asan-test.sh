#!/usr/bin/env bash
# CI stage: the whole test suite under AddressSanitizer and
# UndefinedBehaviorSanitizer, in build-asan/. The first report stops the
# test that made it (halt_on_error, -fno-sanitize-recover), so a finding
# fails CI. -O1 keeps the build and the run short; the benchmarks are not
# built.
#   bash .ci/asan-test.sh [CTEST_ARGS...]     (e.g. -R Golden)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
dir="$here/build-asan"
start=$(date +%s)
rm -rf "$dir"
# -O1 and line tables only: quicker to build and still exact stack traces.
cmake -S "$here" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1" \
  -DT4MI_SANITIZE="address;undefined" -DT4MI_WERROR=ON -DT4MI_BUILD_BENCH=OFF >/dev/null
cmake --build "$dir" -j"$(nproc)"
built=$(date +%s)
echo "ci: sanitizer build: $((built - start)) s"

# Leaks count as failures too. Only third-party libraries are suppressed
# (.ci/lsan.supp says which, and why).
export ASAN_OPTIONS="halt_on_error=1:detect_leaks=1:strict_init_order=1:detect_stack_use_after_return=0"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export LSAN_OPTIONS="suppressions=$here/.ci/lsan.supp:print_suppressions=0"
cd "$dir"
ctest --output-on-failure -j"$(nproc)" --timeout 900 "$@"
echo "ci: sanitizer tests: $(($(date +%s) - built)) s"
