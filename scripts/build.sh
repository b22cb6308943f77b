#!/usr/bin/env bash
# Configures and builds into build/ (RelWithDebInfo, warnings as errors).
# The tests' own code compiles at -O0 with its common headers precompiled:
# it is most of the build, and runs for moments; the program under test
# keeps its optimisation.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
cmake -S "$here" -B "$here/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DT4MI_WERROR=ON \
  -DT4MI_TEST_COMPILE_OPTIONS=-O0 -DT4MI_TEST_PCH=ON >/dev/null
cmake --build "$here/build" -j"$(nproc)"
