#!/usr/bin/env bash
# The whole server through its control socket beside FFmpeg's drawtext, in
# one run, each scene on fresh servers:
#
#   bench/serve_vs_drawtext.sh [--scene strip108|full1080|lines1080]... [-- SERVER SWITCHES]
#
# For every scene of ../shared/bench/drawtext-anchor.sh (1920x108 ticker,
# 3,000 frames; 1920x1080 one line of 900 px and four lines of 250 px, 600
# frames each), RUNS times: a new server (core BENCH_CPU) and a client
# (build/bench/serve_client, core CLIENT_CPU) that asks for the frames with
# four requests in flight and reads every byte of each, then drawtext on the
# same scene. Prints, as median (min, max) over the runs: frames/s through
# the socket, drawtext's frames/s and the ratio of the two in the same run,
# the server's CPU time and page faults a frame, the client's page faults a
# frame and the server's peak memory (VmHWM); then the start-up time.
#
# Builds nothing: expects build/ (or --build DIR) with t4mi_scrolltext and
# bench/serve_client. Needs ffmpeg and fonts-liberation (Debian packages).
#
# Environment: RUNS (5), FRAMES (per scene), STARTS (5; 0 skips start-up),
# BENCH_CPU (0), CLIENT_CPU (1), DRAWTEXT_ANCHOR (../shared/bench/drawtext-anchor.sh
# beside the project; the ticker texts are read beside it).
set -euo pipefail
exec python3 "$(dirname "$0")/serving_bench.py" drawtext "$@"
