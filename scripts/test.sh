#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
bash "$here/scripts/setup.sh"
bash "$here/scripts/build.sh"
cd "$here/build"
ctest --output-on-failure -j"$(nproc)" --timeout 600
