#!/usr/bin/env bash
# Installs what is missing, builds, and runs the main job: starts the server on
# the bundled example ticker, renders ten seconds of it through the control
# socket to a Y4M video with alpha (yuva444p) and a PNG preview.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
bash "$here/scripts/setup.sh"
bash "$here/scripts/build.sh"
out="$here/out"
rm -rf "$out"
mkdir -p "$out"
cp "$here/examples/ticker.txt" "$out/ticker.txt"
"$here/build/tools/t4mi_render" --item "$out/ticker.txt" --size 1920x108 --seconds 10 \
  --out "$out/ticker.y4m" --sheet "$out/ticker-preview.png"
echo "demo: video   $out/ticker.y4m (1920x108 yuva444p, 30000/1001 fps; play it with: ffplay $out/ticker.y4m)"
echo "demo: preview $out/ticker-preview.png"
