#!/usr/bin/env bash
# CI stage: every libFuzzer target in fuzz/ for a few seconds from its seed
# corpus (fuzz/corpus/<target>/), with ASan and UBSan. The targets come from
# the sanitizer tree build-asan/ (.ci/sanitized-tree.sh), which
# .ci/asan-test.sh has built already in a CI run; alone, this configures it
# when it is missing and builds the targets only. A crash, a sanitizer
# report, a leak or a timeout fails the stage; the input that did it is kept
# and its path printed. New inputs go to a temporary directory, never into
# the repository's corpus.
#   bash .ci/fuzz-smoke.sh [SECONDS_PER_TARGET]     (default 5)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
. "$here/.ci/sanitized-tree.sh"
seconds=${1:-5}
start=$(date +%s)
sanitized_tree_is_current || configure_sanitized_tree
targets=()
for src in "$here"/fuzz/*_fuzz.cpp; do
  targets+=("$(basename "$src" .cpp)")
done
cmake --build "$sanitized_tree" -j"$(nproc)" --target "${targets[@]}"
echo "ci: fuzz build: $(($(date +%s) - start)) s"

work=$(mktemp -d /var/tmp/t4mi-fuzz.XXXXXX)
failed=()
for target in "${targets[@]}"; do
  seeds="$here/fuzz/corpus/$target"
  [ -d "$seeds" ] || { echo "fuzz: $target has no seed corpus in fuzz/corpus/$target" >&2; exit 1; }
  # The markup parser loops for ever on a field body over 511 bytes (kept
  # on purpose; --harden refuses it), so its inputs stay shorter.
  max_len=4096
  [ "$target" = markup_fuzz ] && max_len=510
  extra=()
  [ -f "$here/fuzz/${target%_fuzz}.dict" ] && extra+=(-dict="$here/fuzz/${target%_fuzz}.dict")
  mkdir -p "$work/$target"
  # The targets' own log lines go nowhere (-close_fd_mask=3); libFuzzer's
  # reports still reach stderr.
  if "$sanitized_tree/fuzz/$target" -max_total_time="$seconds" -max_len="$max_len" -timeout=20 -rss_limit_mb=2048 \
      -close_fd_mask=3 -print_final_stats=1 -artifact_prefix="$work/$target-" "${extra[@]}" "$work/$target" "$seeds" \
      >"$work/$target.log" 2>&1; then
    echo "fuzz: $target: $(grep -o 'stat::number_of_executed_units: *[0-9]*' "$work/$target.log" |
      grep -o '[0-9]*$') runs in ${seconds} s, no crash"
  else
    tail -n 60 "$work/$target.log" >&2
    echo "fuzz: $target FAILED; the input is kept in $work" >&2
    failed+=("$target")
  fi
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: failed: ${failed[*]}" >&2
  exit 1
fi
rm -rf "$work"
