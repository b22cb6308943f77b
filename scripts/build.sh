#!/usr/bin/env bash
# Configures and builds into build/ (RelWithDebInfo, warnings as errors).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
cmake -S "$here" -B "$here/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DT4MI_WERROR=ON >/dev/null
cmake --build "$here/build" -j"$(nproc)"
