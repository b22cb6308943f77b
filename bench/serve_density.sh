#!/usr/bin/env bash
# How many items one core carries: N fresh servers pinned to one core, each
# with a client paced at 30000/1001 frames/s at 1920x1080 (one line of
# 900 px) on the other core, the clients' phases spread evenly over a frame
# period as independent channels' are. N grows by DENSITY_STEP until some
# client's p99 reply reaches 10 ms, then by one from the last N that passed.
#
#   bench/serve_density.sh [--scene full1080|lines1080|strip108] [-- SERVER SWITCHES]
#
# Prints one line per N (worst and median p99, worst max, late replies, the
# servers' CPU share of their core) and the largest N that passed.
#
# Each client first takes PREROLL frames back to back, unmeasured, as a
# playout system cues an item before air: a client's first read of each
# frame slot maps its pages into the client, which on a virtual machine
# costs tens of milliseconds a 1080-line slot on the clients' one core, and
# twenty clients doing it at the same moment would measure each other.
# The last preroll frame stays held, renewed every second, until the start,
# so that no server drops its frame memory as idle (after 5 s) meanwhile.
# PREROLL=0 measures from the first frame after the warm-up frame.
#
# Environment: SECONDS_PACED (15 per trial), DENSITY_START (4), DENSITY_STEP
# (4), DENSITY_ITEMS (unset; set, RUNS trials of that many items and no
# search), P99_LIMIT_MS (10), RATE (30000/1001), PREROLL (10), BENCH_CPU (0),
# CLIENT_CPU (1), LOG_DIR (unset; set, each client writes its per-frame log
# there: items<N>-client<i>.log, as serve_client --log describes).
set -euo pipefail
exec python3 "$(dirname "$0")/serving_bench.py" density "$@"
