#!/usr/bin/env bash
# CI stage: the Release build type builds from a clean tree with warnings as
# errors. The program, the tools and the client library only: scripts/test.sh
# has built everything, tests included, in the default type already, and
# this keeps CI short. Leaves build-release/ for the package test.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
dir="$here/build-release"
rm -rf "$dir"
cmake -S "$here" -B "$dir" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DT4MI_WERROR=ON \
  -DT4MI_BUILD_TESTS=OFF -DT4MI_BUILD_BENCH=OFF >/dev/null
cmake --build "$dir" -j"$(nproc)"
