#!/usr/bin/env bash
# Installs what is missing, builds, and runs the main job on the bundled
# example item. For now that is identification: the item is identified and its
# metadata written back; rendering to video joins when serving lands.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
bash "$here/scripts/setup.sh"
bash "$here/scripts/build.sh"
out="$here/out"
mkdir -p "$out"
cp "$here/examples/ticker.txt" "$out/ticker.txt"
"$here/build/t4mi_scrolltext" --file "$out/ticker.txt" --metadir "$out/ticker.meta" --identify
echo "demo: identified $out/ticker.txt; metadata: $out/ticker.meta/metadata.json"
cat "$out/ticker.meta/metadata.json"
