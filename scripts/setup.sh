#!/usr/bin/env bash
# Installs what t4mi_scrolltext needs to build, test and run, from Debian's
# packages only, and puts the installation's fixed-path assets in place.
# Idempotent: run it as often as you like; it installs only what is missing.
# Needs root (apt-get, /usr/share, /mnt, /run).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)

packages=(
  g++ cmake make pkg-config python3
  libfreetype-dev libfontconfig-dev libxml2-dev libpng-dev nlohmann-json3-dev curl
  libgtest-dev libgmock-dev libbenchmark-dev ffmpeg
  pandoc dpkg-dev file clang libclang-rt-14-dev lld
  libcpp-httplib-dev chromium chromium-driver python3-selenium
  fonts-liberation fonts-symbola fonts-noto-color-emoji fonts-wqy-microhei
  libharfbuzz-dev libfribidi-dev libharfbuzz-bin fonts-dejavu-core fonts-noto-core
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
fi

# Fixed paths. The faces are symbolic links to the Debian fonts, so that a
# font package upgrade is picked up without running this again.
install -d /usr/share/tevrin4/fonts /usr/share/tevrin4/fonts/emoji /mnt/main/tv/fonts /run/tevrin/weather/kestrel
ln -sfn /usr/share/fonts/truetype/liberation/LiberationSans-Regular.ttf /usr/share/tevrin4/fonts/liberation_sans.ttf
# The emoji face only has to hold outline emoji that FreeType renders in grey
# at any size; Symbola does.
ln -sfn /usr/share/fonts/truetype/ancient-scripts/Symbola_hint.ttf /usr/share/tevrin4/fonts/TwitterColorEmoji-SVGinOT.ttf

# Further asset steps (emoji images) live beside this script.
for step in "$here"/scripts/setup.d/*.sh; do
  [ -e "$step" ] && bash "$step"
done
echo "setup: done"
