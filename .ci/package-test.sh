#!/usr/bin/env bash
# CI stage, as root: builds the Debian package (in build-release/, which
# .ci/release-build.sh leaves), installs it with apt-get, checks the program
# and the tools from PATH, the fixed-path assets, the SDK and a rendered
# frame 0 of the example item, then purges the package and checks that
# nothing of it is left.
#
# The machine may be shared: other people's demos read the development
# assets that scripts/setup.sh makes at the same fixed paths. dpkg takes
# those files over on install (it replaces files no package owns) and so
# removes them on purge. This script keeps hard links to the emoji images
# beforehand and puts everything back when it ends, however it ends.
#   bash .ci/package-test.sh [BUILD_DIR]     (default: build-release/)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
tree=${1:-$here/build-release}
start=$(date +%s)
emoji=/usr/share/tevrin4/fonts/emoji

fail() { echo "package test: $*" >&2; exit 1; }
installed() { dpkg-query -W -f='${Status}' t4mi-scrolltext 2>/dev/null | grep -q "install ok installed"; }

[ "$(id -u)" = 0 ] || fail "needs root (apt-get)"
! installed || fail "t4mi-scrolltext is installed on this machine already; this test would purge it"

work=$(mktemp -d /var/tmp/t4mi-package-test.XXXXXX)
restore() {
  status=$?
  if installed; then apt-get purge -y -qq t4mi-scrolltext >/dev/null 2>&1 || true; fi
  if [ -d "$work/emoji" ]; then
    install -d "$emoji"
    cp -alf "$work/emoji/." "$emoji/" 2>/dev/null || cp -af "$work/emoji/." "$emoji/"
  fi
  bash "$here/scripts/setup.sh" >/dev/null
  rm -rf "$work"
  echo "package test: $([ $status = 0 ] && echo passed || echo FAILED) in $(($(date +%s) - start)) s"
  exit $status
}
trap restore EXIT
# Hard links when /var/tmp shares the file system: instant, and dpkg
# replaces the files by renaming, so the linked copies keep their bytes.
if [ -d "$emoji" ]; then
  cp -al "$emoji" "$work/emoji" 2>/dev/null || { rm -rf "$work/emoji" && cp -a "$emoji" "$work/emoji"; }
fi

deb=$(bash "$here/scripts/package.sh" "$tree" | tail -1)
version=$(dpkg-deb -f "$deb" Version)
echo "package test: $(basename "$deb"), $(du -k "$deb" | cut -f1) KiB; Depends: $(dpkg-deb -f "$deb" Depends)"
[ "$(basename "$deb")" = "t4mi-scrolltext_${version}_amd64.deb" ] || fail "unexpected name $deb"

DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$deb" >/dev/null </dev/null
dpkg -L t4mi-scrolltext >"$work/files"

# The program and the tools, from PATH.
cd "$work"
[ "$(command -v t4mi_scrolltext)" = /usr/bin/t4mi_scrolltext ] || fail "t4mi_scrolltext is not on PATH"
for program in t4mi_scrolltext t4mi_render t4mi_control t4mi_frames; do
  [ "$($program --version)" = "$program $version" ] || fail "$program --version: $($program --version)"
done
[ -e /usr/share/man/man1/t4mi_scrolltext.1.gz ] || fail "no man page"

# The fixed-path assets, owned by the package.
for path in /usr/share/tevrin4/fonts/liberation_sans.ttf /usr/share/tevrin4/fonts/TwitterColorEmoji-SVGinOT.ttf \
    "$emoji/emoji_u1f600.png" /mnt/main/tv/fonts; do
  [ -e "$path" ] || fail "$path is missing"
  dpkg -S "$path" >/dev/null || fail "$path does not belong to the package"
done
[ -d /run/tevrin/weather/kestrel ] || fail "the weather directory is missing"
echo "package test: $(grep -c '/emoji_u.*\.png$' "$work/files") emoji images"

# Frame 0 of the example item, through the installed server's socket.
t4mi_render --item /usr/share/doc/t4mi-scrolltext/examples/ticker.txt --size 1920x108 --frames 1 \
  --png-dir "$work/frames" --timeout 60 >/dev/null
file "$work/frames/frame_0.png" | grep -q "PNG image data, 1920 x 108" || fail "no frame 0"

# The SDK from the system paths: pkg-config and a shared library ldconfig knows.
[ "$(pkg-config --modversion t4mi-client)" = "$version" ] || fail "pkg-config does not know t4mi-client"
ldconfig -p | grep -q "libt4mi_client.so.1 " || fail "ldconfig does not know libt4mi_client.so.1"

# Purge: nothing of the package is left.
apt-get purge -y -qq t4mi-scrolltext >/dev/null </dev/null
while read -r path; do
  if { [ -e "$path" ] || [ -L "$path" ]; } && [ ! -d "$path" ]; then fail "$path is left after purge"; fi
done <"$work/files"
[ ! -e /run/tevrin/weather/kestrel ] || [ -n "$(ls -A /run/tevrin/weather/kestrel)" ] ||
  fail "the empty weather directory is left after purge"
