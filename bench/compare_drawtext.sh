#!/usr/bin/env bash
# Our load_frame figures beside FFmpeg's drawtext filter on comparable scenes,
# in one run, each pinned to the same single core.
#
#   bench/compare_drawtext.sh [BUILD_DIR]
#
# Environment:
#   DRAWTEXT_ANCHOR  the drawtext script (default ../shared/bench/drawtext-anchor.sh beside the project);
#                    it prints "scene frames seconds fps" per scene
#   DRAWTEXT_FRAMES  frames per drawtext scene (default 3000)
#   BENCH_CPU        the core to pin both to (default 0)
#
# Pairs (ours = load_frame on a cache miss, bench/compositor_bench.cpp):
#   strip108  (1920x108, 90 px text, hard shadow)    ticker_1920x108 (104 px glyphs, blurred shadow)
#   full1080  (1920x1080, 900 px text)               one_line_1920x1080 (about 1000 px glyphs)
#   lines1080 (1920x1080, 4 lines of 250 px)         four_lines_1920x1080 (4 lines of 259 px glyphs)
# drawtext's time is the whole ffmpeg process (start-up, the colour source,
# the filter); ours is the frame alone. Needs ffmpeg and fonts-liberation.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build}
anchor=${DRAWTEXT_ANCHOR:-$here/../shared/bench/drawtext-anchor.sh}
frames=${DRAWTEXT_FRAMES:-3000}
cpu=${BENCH_CPU:-0}

bench="$build/bench/compositor_bench"
[ -x "$bench" ] || { echo "missing $bench: build the project first" >&2; exit 2; }
[ -r "$anchor" ] || { echo "missing drawtext script $anchor (set DRAWTEXT_ANCHOR)" >&2; exit 2; }

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

echo "ours: $bench (core $cpu)" >&2
taskset -c "$cpu" "$bench" --benchmark_out="$tmp/ours.json" --benchmark_out_format=json >/dev/null 2>"$tmp/ours.err" ||
  { cat "$tmp/ours.err" >&2; exit 1; }
echo "drawtext: $anchor $frames (core $cpu)" >&2
taskset -c "$cpu" bash "$anchor" "$frames" strip108 full1080 lines1080 >"$tmp/drawtext.txt"

python3 - "$tmp/ours.json" "$tmp/drawtext.txt" <<'EOF'
import json, sys
ours = {b["name"]: b["items_per_second"] for b in json.load(open(sys.argv[1]))["benchmarks"]}
theirs = {}
for line in open(sys.argv[2]):
    f = line.split()
    if len(f) == 4:
        theirs[f[0]] = float(f[3])
pairs = [("strip108", "ticker_1920x108"), ("full1080", "one_line_1920x1080"),
         ("lines1080", "four_lines_1920x1080")]
print(f"{'scene':<11} {'ours':<24} {'ours fps':>10} {'drawtext fps':>13} {'ratio':>7}")
for scene, case in pairs:
    o, t = ours.get(case), theirs.get(scene)
    ratio = f"{o / t:6.1f}x" if o and t else "   n/a"
    print(f"{scene:<11} {case:<24} {o or 0:>10.0f} {t or 0:>13.1f} {ratio:>7}")
for case in ("emoji_ticker_1920x108", "background_only_1920x108", "background_only_1920x1080"):
    if case in ours:
        print(f"{'-':<11} {case:<24} {ours[case]:>10.0f}")
EOF
