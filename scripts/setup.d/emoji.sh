#!/usr/bin/env bash
# Fills the emoji image directory with one "emoji_u%x.png" per single-code-
# point emoji, rendered from Debian's fonts-noto-color-emoji by the project's
# own tool (tools/make_emoji_pngs.cpp). Runs before the project is built, so
# it compiles the tool itself. Idempotent: a stamp file holds the number of
# images of a complete set, and a set without it (an interrupted run) or with
# fewer images (the Debian package removed its own) is made again.
set -euo pipefail
here=$(cd "$(dirname "$0")/../.." && pwd)
dest=/usr/share/tevrin4/fonts/emoji
font=/usr/share/fonts/truetype/noto/NotoColorEmoji.ttf
stamp="$dest/.made-by-make_emoji_pngs"

count_images() { find "$dest" -maxdepth 1 -name 'emoji_u*.png' 2>/dev/null | wc -l; }
if [ -e "$stamp" ] && [ "$(cat "$stamp")" = "$(count_images)" ]; then
  echo "setup: emoji images already in $dest"
  exit 0
fi
if [ ! -r "$font" ]; then
  echo "setup: $font is missing (package fonts-noto-color-emoji)" >&2
  exit 1
fi

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
# shellcheck disable=SC2046  # pkg-config prints several words on purpose
g++ -std=c++20 -O2 -Wall -Wextra -o "$tmp/make_emoji_pngs" "$here/tools/make_emoji_pngs.cpp" \
  $(pkg-config --cflags --libs freetype2 libpng)
mkdir "$tmp/out"
"$tmp/make_emoji_pngs" "$font" "$tmp/out"
install -d "$dest"
find "$tmp/out" -name 'emoji_u*.png' -exec install -m 0644 -t "$dest" {} +
count_images >"$stamp"
echo "setup: emoji images written to $dest"
