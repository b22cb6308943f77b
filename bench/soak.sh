#!/usr/bin/env bash
# Soak run: a well-behaved client against hostile ones, against a fresh
# t4mi_scrolltext, for N minutes (bench/soak_client.cpp says what each side
# does). Prints frames checked, lost and wrong, and the p50, p99 and max
# reply times; exits 1 when a frame was lost or wrong or the server did not
# live to stop in order.
#
#   bench/soak.sh [--minutes N] [--build DIR] [soak_client options: --size WxH --rate FPS]
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
minutes=1
build="$here/build"
extra=()
while [ $# -gt 0 ]; do
    case "$1" in
    --minutes) minutes=$2; shift 2 ;;
    --build) build=$2; shift 2 ;;
    *) extra+=("$1"); shift ;;
    esac
done
cmake --build "$build" --target soak_client -j2 >/dev/null
seconds=$(awk -v m="$minutes" 'BEGIN { printf "%d", m * 60 }')
exec "$build/bench/soak_client" --seconds "$seconds" "${extra[@]}"
