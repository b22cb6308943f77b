#!/usr/bin/env bash
# Builds the Debian package t4mi-scrolltext_<version>_amd64.deb: configures a
# Release tree (without tests and benchmarks) installing below /usr, builds
# it and runs cpack there. Prints the package's path on its last line.
#   bash scripts/package.sh [BUILD_DIR]      (default: build-release/)
# Needs dpkg-dev (dpkg-shlibdeps), pandoc for the man pages and Debian's
# fonts-noto-color-emoji for the emoji images; scripts/setup.sh installs them.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$here/build-release}
cmake -S "$here" -B "$dir" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DT4MI_BUILD_TESTS=OFF -DT4MI_BUILD_BENCH=OFF >/dev/null
cmake --build "$dir" -j"$(nproc)"
rm -f "$dir"/t4mi-scrolltext_*.deb
(cd "$dir" && cpack -G DEB >/dev/null)
ls "$dir"/t4mi-scrolltext_*.deb
