#!/usr/bin/env bash
# The whole server against FFmpeg's drawtext filter, in one run: 3,000 frames
# of the 1920x108 ticker requested through the control socket with
# t4mi_render, beside drawtext rendering the same scene to yuva444p.
#
#   bench/serve_vs_drawtext.sh [BUILD_DIR]
#
# Builds nothing: expects BUILD_DIR (default build/) with t4mi_scrolltext and
# tools/t4mi_render. Needs ffmpeg and fonts-liberation (Debian packages).
#
# Environment:
#   FRAMES           frames to request and to render with drawtext (default 3000)
#   BENCH_CPU        core for the server and for ffmpeg (default 0)
#   CLIENT_CPU       core for t4mi_render (default 1, or BENCH_CPU on one core)
#   STARTS           start-ups timed for the start-up figure (default 5)
#   DRAWTEXT_ANCHOR  the drawtext script (default /work/shared/bench/drawtext-anchor.sh)
#   TICKER_TEXT      the text (default ticker.txt beside the drawtext script)
#
# The scene, as close as the item syntax comes to drawtext's strip108:
#   Liberation Sans (the default face), white, 90 px glyphs (#-fontScale of
#   the 108-line height: 0.8345 x 108 = 90.1, truncated to 90), a hard shadow
#   (#-shadowBlur=0) offset 3 px right and down (#-shadowX/Y in percent of
#   the line height: 2.7778 % of 108 = 3.0) at 50 % black
#   (#-shadowOpacity=0.5), transparent background, one line entering from
#   the right edge and scrolling right to left at 200 px/s (#-scrollSpeed is
#   in picture heights a second: 200 / 108 = 1.851852), 30000/1001 frames/s.
#
# Figures:
#   - frames/s as t4mi_render reports it (wall clock, client included);
#   - the server's CPU time per frame (utime + stime from /proc/<pid>/stat
#     around the 3,000 frames, so connection and settings are included);
#   - drawtext's frames/s (its whole process, one thread) and the ratios;
#   - the server's peak memory (VmHWM of /proc/<pid>/status just before it
#     is stopped; shared frame pages it touched count in it);
#   - start-up: from exec to status.json saying ready (median of STARTS).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build}
frames=${FRAMES:-3000}
cpu=${BENCH_CPU:-0}
client_cpu=${CLIENT_CPU:-1}
[ "$(nproc)" -gt 1 ] || client_cpu=$cpu
starts=${STARTS:-5}
anchor=${DRAWTEXT_ANCHOR:-/work/shared/bench/drawtext-anchor.sh}
text=${TICKER_TEXT:-$(dirname "$anchor")/ticker.txt}

server="$build/t4mi_scrolltext"
render="$build/tools/t4mi_render"
for f in "$server" "$render"; do
  [ -x "$f" ] || { echo "missing $f: build the project first" >&2; exit 2; }
done
[ -r "$anchor" ] || { echo "missing drawtext script $anchor (set DRAWTEXT_ANCHOR)" >&2; exit 2; }
[ -r "$text" ] || { echo "missing ticker text $text (set TICKER_TEXT)" >&2; exit 2; }
command -v ffmpeg >/dev/null || { echo "ffmpeg missing: apt-get install -y ffmpeg" >&2; exit 2; }

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# A private installation tree, so that the figures never depend on what is
# installed at the fixed paths: the default face is Liberation Sans.
fonts="$tmp/root/usr/share/tevrin4/fonts"
mkdir -p "$fonts/emoji" "$tmp/root/mnt/main/tv/fonts" "$tmp/root/run/tevrin/weather/kestrel"
ln -s /usr/share/fonts/truetype/liberation/LiberationSans-Regular.ttf "$fonts/liberation_sans.ttf"
ln -s /usr/share/fonts/truetype/ancient-scripts/Symbola_hint.ttf "$fonts/TwitterColorEmoji-SVGinOT.ttf"

item="$tmp/ticker.txt"
{
  echo "#Tevrin4ScrollText"
  echo "#-fontColor=ffffff"
  echo "#-fontOpacity=1"
  echo "#-fontScale=0.8345"
  echo "#-backgroundColor=000000"
  echo "#-backgroundOpacity=0"
  echo "#-shadowColor=000000"
  echo "#-shadowOpacity=0.5"
  echo "#-shadowBlur=0"
  echo "#-shadowX=2.7778"
  echo "#-shadowY=2.7778"
  echo "#-scrollSpeed=1.851852"
  echo "#-multiLine=1"
  tr -d '\n' <"$text"
  echo
} >"$item"

echo "server: $server (core $cpu), client: $render (core $client_cpu), $frames frames" >&2
T4MI_ROOT="$tmp/root" python3 - "$server" "$render" "$item" "$tmp" "$frames" "$cpu" "$client_cpu" "$starts" \
  >"$tmp/ours.txt" <<'EOF'
import os, re, signal, statistics, subprocess, sys, time
server, render, item, tmp, frames, cpu, client_cpu, starts = sys.argv[1:9]
frames, starts = int(frames), int(starts)
tick = os.sysconf("SC_CLK_TCK")

def cpu_seconds(pid):
    stat = open(f"/proc/{pid}/stat").read()
    fields = stat[stat.rindex(")") + 2:].split()
    return (int(fields[11]) + int(fields[12])) / tick   # utime, stime

def status_kb(pid, key):
    for line in open(f"/proc/{pid}/status"):
        if line.startswith(key + ":"):
            return int(line.split()[1])
    return 0

def start(n):
    meta = f"{tmp}/meta{n}"
    err = open(f"{tmp}/server{n}.err", "w")
    t0 = time.monotonic()
    p = subprocess.Popen(["taskset", "-c", cpu, server, "--file", item, "--metadir", meta],
                         stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=err)
    status = f"{meta}/status.json"
    while True:
        try:
            if '"ready":1' in open(status).read():
                return p, time.monotonic() - t0, meta
        except FileNotFoundError:
            pass
        if p.poll() is not None:
            sys.exit(f"server ended at start-up: see {tmp}/server{n}.err")
        if time.monotonic() - t0 > 30:
            p.kill()
            sys.exit("server not ready after 30 s")
        time.sleep(0.0005)

def stop(p):
    p.send_signal(signal.SIGTERM)
    p.wait(timeout=30)

startup = []
for n in range(starts):
    p, took, _ = start(n)
    startup.append(took)
    stop(p)

p, took, meta = start(starts)
socket = f"{meta}/control.sock"
cpu0 = cpu_seconds(p.pid)
r = subprocess.run(["taskset", "-c", client_cpu, render, "--socket", socket, "--size", "1920x108",
                    "--frames", str(frames), "--out", "/dev/null"],
                   stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
cpu1 = cpu_seconds(p.pid)
hwm = status_kb(p.pid, "VmHWM")
shmem = status_kb(p.pid, "RssShmem")
stop(p)
if r.returncode != 0:
    sys.exit("t4mi_render failed: " + r.stderr)
m = re.search(r"in ([0-9.]+) s: ([0-9.]+) frames/s", r.stderr)
print(f"fps {m.group(2)}")
print(f"wall {m.group(1)}")
print(f"cpu_per_frame_ms {(cpu1 - cpu0) * 1000 / frames:.4f}")
print(f"hwm_kb {hwm}")
print(f"shmem_kb {shmem}")
print(f"startup_ms {statistics.median(startup) * 1000:.1f} {min(startup) * 1000:.1f} {max(startup) * 1000:.1f}")
EOF

echo "drawtext: $anchor $frames strip108 (core $cpu)" >&2
taskset -c "$cpu" bash "$anchor" "$frames" strip108 >"$tmp/drawtext.txt"

python3 - "$tmp/ours.txt" "$tmp/drawtext.txt" "$frames" <<'EOF'
import sys
ours = {l.split()[0]: l.split()[1:] for l in open(sys.argv[1]) if l.strip()}
theirs = [l.split() for l in open(sys.argv[2]) if l.startswith("strip108")][0]
frames = int(sys.argv[3])
fps, cpu_ms = float(ours["fps"][0]), float(ours["cpu_per_frame_ms"][0])
dt_fps = float(theirs[3])
dt_ms = float(theirs[2]) * 1000 / frames
med, lo, hi = ours["startup_ms"]
print(f"1920x108 ticker, {frames} frames")
print(f"  t4mi_scrolltext through the socket: {fps:9.1f} frames/s (t4mi_render, wall clock)")
print(f"  server CPU per frame:               {cpu_ms:9.3f} ms  ({1000 / cpu_ms if cpu_ms > 0 else 0:.0f} frames per CPU second)")
print(f"  ffmpeg drawtext (whole process):    {dt_fps:9.1f} frames/s  ({dt_ms:.3f} ms a frame)")
print(f"  ratio, frames/s:                    {fps / dt_fps:9.2f}x")
print(f"  ratio, drawtext time / server CPU:  {dt_ms / cpu_ms if cpu_ms > 0 else 0:9.2f}x")
print(f"  server peak memory (VmHWM):         {int(ours['hwm_kb'][0]) / 1024:9.1f} MiB "
      f"(shared frame pages at the end: {int(ours['shmem_kb'][0]) / 1024:.1f} MiB)")
print(f"  start-up to ready:                  {float(med):9.1f} ms median (min {lo}, max {hi})")
EOF
