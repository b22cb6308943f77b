#!/usr/bin/env bash
# CI stage: the whole test suite under AddressSanitizer and
# UndefinedBehaviorSanitizer, in build-asan/ (.ci/sanitized-tree.sh: clang,
# the tree .ci/fuzz-smoke.sh runs the fuzz targets from, which this builds
# too). The first report stops the test that made it (halt_on_error,
# -fno-sanitize-recover), so a finding fails CI. The benchmarks are not built.
#   bash .ci/asan-test.sh [CTEST_ARGS...]     (e.g. -R test_frames: its shards)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
. "$here/.ci/sanitized-tree.sh"
start=$(date +%s)
configure_sanitized_tree
cmake --build "$sanitized_tree" -j"$(nproc)"
built=$(date +%s)
echo "ci: sanitizer build: $((built - start)) s"

# Leaks count as failures too. Only third-party libraries are suppressed
# (.ci/lsan.supp says which, and why).
export ASAN_OPTIONS="halt_on_error=1:detect_leaks=1:strict_init_order=1:detect_stack_use_after_return=0"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export LSAN_OPTIONS="suppressions=$here/.ci/lsan.supp:print_suppressions=0"
cd "$sanitized_tree"
ctest --output-on-failure -j"$(nproc)" --timeout 900 "$@"
echo "ci: sanitizer tests: $(($(date +%s) - built)) s"
