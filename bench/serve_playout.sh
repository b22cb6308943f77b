#!/usr/bin/env bash
# A playout client against a fresh server: frames asked for at their time,
# 60000/1001 a second for 30 s at 1920x1080 (one line of 900 px), each read
# whole and released when the next one came.
#
#   bench/serve_playout.sh [--scene full1080|lines1080|strip108] [-- SERVER SWITCHES]
#
# Prints, as median (min, max) over RUNS fresh servers: the server's CPU
# time and page faults a frame (over the whole run, the first frame's text
# layout and frame memory included, and over the paced frames only), the
# client's page faults a frame, frame
# memory (the peak of the server's RssShmem, sampled every 20 ms), peak
# memory (VmHWM), reply latency p50/p99/max (request sent to reply read),
# replies later than one frame period, and the first frame's reply (it lays
# the text out).
#
# Environment: RUNS (3), SECONDS_PACED (30), RATE (60000/1001), BENCH_CPU (0),
# CLIENT_CPU (1).
set -euo pipefail
exec python3 "$(dirname "$0")/serving_bench.py" playout "$@"
