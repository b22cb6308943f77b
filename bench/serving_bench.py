#!/usr/bin/env python3
"""The whole server through its control socket, always started fresh.

Three benchmarks, each a script of its own in bench/ that calls this one:

  serve_vs_drawtext.sh  frames as fast as the server answers, for the scenes of
                        ../shared/bench/drawtext-anchor.sh, beside drawtext in
                        the same run: frames/s, the ratio, server CPU and page
                        faults a frame, client faults a frame, peak memory;
                        min/median/max over RUNS fresh servers.
  serve_playout.sh      one client paced at 60000/1001 frames/s for 30 s at
                        1920x1080: server CPU and faults a frame, peak memory
                        and frame memory, reply latency p50/p99/max.
  serve_density.sh      how many 1920x1080 items paced at 30000/1001 frames/s
                        one core serves with every client's p99 reply under
                        10 ms.

Each server is a new process on a private installation tree (fonts linked
from Debian's fonts-liberation), pinned to BENCH_CPU; the clients
(build/bench/serve_client) run on CLIENT_CPU. The figures come from
/proc/<pid>/stat (utime, stime, minflt) and /proc/<pid>/status (VmHWM,
RssShmem) of the server, and from what the client prints.
"""
import argparse
import os
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
TICK = os.sysconf("SC_CLK_TCK")
PAGE = os.sysconf("SC_PAGE_SIZE")

# The scenes of drawtext-anchor.sh in the item syntax. Sizes of one line
# height: 834/1000 of 108 is 90 px, of 1080 is 900 px; 926/1000 of 270 (four
# lines on 1080) is 250 px. Shadow 3 px at 50 % black, no blur (percent of a
# line height); 200 px/s (picture heights a second); white text, transparent
# background.
SCENES = {
    "strip108": dict(size=(1920, 108), lines=1, text="ticker.txt", font_scale="0.8345", shadow="2.7778",
                     speed="1.851852", frames=3000, title="1920x108 ticker"),
    "full1080": dict(size=(1920, 1080), lines=1, text="ticker.txt", font_scale="0.8345", shadow="0.27778",
                     speed="0.185185", frames=600, title="1920x1080, one line of 900 px"),
    "lines1080": dict(size=(1920, 1080), lines=4, text="ticker4.txt", font_scale="0.9261", shadow="1.1111",
                      speed="0.185185", frames=600, title="1920x1080, four lines of 250 px"),
}


def env_int(name, default):
    return int(os.environ.get(name, default))


def fail(message):
    sys.exit(f"serving_bench: {message}")


class Rig:
    """Binaries, cores, the drawtext script and a private installation tree."""

    def __init__(self, build):
        self.server = os.path.join(build, "t4mi_scrolltext")
        self.client = os.path.join(build, "bench", "serve_client")
        for f in (self.server, self.client):
            if not os.access(f, os.X_OK):
                fail(f"missing {f}: build the project first (bash scripts/build.sh)")
        self.cpu = os.environ.get("BENCH_CPU", "0")
        self.client_cpu = os.environ.get("CLIENT_CPU", "1" if os.cpu_count() > 1 else self.cpu)
        shared = os.path.join(os.path.dirname(ROOT), "shared", "bench")
        self.anchor = os.environ.get("DRAWTEXT_ANCHOR", os.path.join(shared, "drawtext-anchor.sh"))
        self.texts = os.path.dirname(self.anchor)
        self.tmp = tempfile.mkdtemp(prefix="t4mi-serving-bench-")
        fonts = os.path.join(self.tmp, "root/usr/share/tevrin4/fonts")
        for d in (fonts + "/emoji", self.tmp + "/root/mnt/main/tv/fonts", self.tmp + "/root/run/tevrin/weather/kestrel"):
            os.makedirs(d)
        os.symlink("/usr/share/fonts/truetype/liberation/LiberationSans-Regular.ttf", fonts + "/liberation_sans.ttf")
        os.symlink("/usr/share/fonts/truetype/ancient-scripts/Symbola_hint.ttf",
                   fonts + "/TwitterColorEmoji-SVGinOT.ttf")
        self.servers = 0

    def close(self):
        shutil.rmtree(self.tmp, ignore_errors=True)

    def item(self, scene):
        s = SCENES[scene]
        path = os.path.join(self.tmp, scene + ".txt")
        if not os.path.exists(path):
            source = os.path.join(self.texts, s["text"])
            if not os.access(source, os.R_OK):
                fail(f"missing {source} (set DRAWTEXT_ANCHOR to the drawtext script beside the texts)")
            text = open(source).read()
            # One line: the whole text on it. Four lines: one text line each.
            text = text.replace("\n", "") if s["lines"] == 1 else text.rstrip("\n")
            settings = ["fontColor=ffffff", "fontOpacity=1", f"fontScale={s['font_scale']}", "backgroundColor=000000",
                        "backgroundOpacity=0", "shadowColor=000000", "shadowOpacity=0.5", "shadowBlur=0",
                        f"shadowX={s['shadow']}", f"shadowY={s['shadow']}", f"scrollSpeed={s['speed']}",
                        f"multiLine={s['lines']}"]
            with open(path, "w") as f:
                f.write("#Tevrin4ScrollText\n" + "".join(f"#-{x}\n" for x in settings) + text + "\n")
        return path

    def start(self, scene, extra=()):
        """A fresh server on the scene's item; returns (process, socket, seconds to ready)."""
        self.servers += 1
        meta = os.path.join(self.tmp, f"meta{self.servers}")
        err = open(os.path.join(self.tmp, f"server{self.servers}.err"), "w")
        env = dict(os.environ, T4MI_ROOT=os.path.join(self.tmp, "root"))
        t0 = time.monotonic()
        p = subprocess.Popen(["taskset", "-c", self.cpu, self.server, "--file", self.item(scene), "--metadir", meta,
                              *extra], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=err, env=env)
        status = os.path.join(meta, "status.json")
        while True:
            try:
                if re.search(r'"ready"\s*:\s*1', open(status).read()):
                    return p, os.path.join(meta, "control.sock"), time.monotonic() - t0
            except FileNotFoundError:
                pass
            if p.poll() is not None:
                fail(f"server ended at start-up: see {err.name}")
            if time.monotonic() - t0 > 60:
                p.kill()
                fail("server not ready after 60 s")
            time.sleep(0.0005)

    def client_cmd(self, socket, scene, *args):
        w, h = SCENES[scene]["size"]
        return ["taskset", "-c", self.client_cpu, self.client, "--socket", socket, "--size", f"{w}x{h}", *args]

    def run_client(self, socket, scene, *args):
        r = subprocess.run(self.client_cmd(socket, scene, *args), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                           text=True)
        if r.returncode != 0:
            fail("serve_client failed: " + r.stderr.strip())
        return parse_figures(r.stdout)

    def drawtext(self, scene, frames):
        if not os.access(self.anchor, os.R_OK):
            fail(f"missing drawtext script {self.anchor} (set DRAWTEXT_ANCHOR)")
        r = subprocess.run(["taskset", "-c", self.cpu, "bash", self.anchor, str(frames), scene],
                           stdout=subprocess.PIPE, text=True, check=True)
        fields = [l.split() for l in r.stdout.splitlines() if l.startswith(scene + " ")][0]
        return float(fields[3]), float(fields[2])  # frames/s, seconds


def parse_figures(text):
    out = {}
    for line in text.splitlines():
        parts = line.split()
        if parts:
            out[parts[0]] = [float(x) for x in parts[1:]]
    return out


def proc_stat(pid):
    """CPU seconds (utime + stime) and minor faults of a process."""
    stat = open(f"/proc/{pid}/stat").read()
    fields = stat[stat.rindex(")") + 2:].split()
    return (int(fields[11]) + int(fields[12])) / TICK, int(fields[7])


def status_kib(pid, key):
    for line in open(f"/proc/{pid}/status"):
        if line.startswith(key + ":"):
            return int(line.split()[1])
    return 0


def stop(p):
    p.send_signal(signal.SIGTERM)
    try:
        p.wait(timeout=30)
    except subprocess.TimeoutExpired:
        p.kill()
        p.wait()


class ShmemSampler:
    """Peak RssShmem of a process (its frame memory), sampled every 20 ms."""

    def __init__(self, pid):
        self.pid, self.peak, self.done = pid, 0, threading.Event()
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self):
        while not self.done.wait(0.02):
            try:
                self.peak = max(self.peak, status_kib(self.pid, "RssShmem"))
            except OSError:
                return

    def finish(self):
        self.done.set()
        self.thread.join()
        return max(self.peak, status_kib(self.pid, "RssShmem"))


def kdamond_seconds():
    """CPU seconds of the kernel's DAMON threads (kdamond.N), or None when
    there are none. Some virtual machines run DAMON over all of physical
    memory; every sampling pass clears page-table accessed bits, which under
    shadow paging stalls every process that maps the pages for a moment.
    The benchmarks print its share of a run so that such stalls are seen for
    what they are."""
    total, found = 0.0, False
    for pid in os.listdir("/proc"):
        if not pid.isdigit():
            continue
        try:
            if open(f"/proc/{pid}/comm").read().startswith("kdamond"):
                total += proc_stat(pid)[0]
                found = True
        except OSError:
            pass
    return total if found else None


def spread(values, fmt):
    """min / median / max of a list, formatted."""
    return f"{fmt.format(statistics.median(values))} (min {fmt.format(min(values))}, max {fmt.format(max(values))})"


def load_note():
    one, five, _ = os.getloadavg()
    return f"load average {one:.2f} (1 min), {five:.2f} (5 min) on {os.cpu_count()} cores"


# --- serve_vs_drawtext ----------------------------------------------------------------------------

def measure_fast(rig, scene, frames, extra):
    """One fresh server, `frames` frames as fast as it answers."""
    p, socket, _ = rig.start(scene, extra)
    cpu0, flt0 = proc_stat(p.pid)
    fig = rig.run_client(socket, scene, "--frames", str(frames), "--in-flight", "4", "--touch", "all")
    cpu1, flt1 = proc_stat(p.pid)
    hwm = status_kib(p.pid, "VmHWM")
    stop(p)
    n = frames + 1  # with the warm-up frame
    return dict(fps=fig["fps"][0], cpu_ms=(cpu1 - cpu0) * 1000 / n, faults=(flt1 - flt0) / n,
                client_faults=fig["client_minflt"][0] / frames, hwm_mib=hwm / 1024)


def cmd_drawtext(rig, args):
    runs = env_int("RUNS", 5)
    scenes = args.scenes or list(SCENES)
    extra = args.server_args
    print(f"# {runs} fresh servers a scene; server on core {rig.cpu}, client on core {rig.client_cpu}; "
          f"drawtext on core {rig.cpu}; {load_note()}", flush=True)
    for scene in scenes:
        frames = env_int("FRAMES", SCENES[scene]["frames"])
        rows, ratios, dts = [], [], []
        for _ in range(runs):
            ours = measure_fast(rig, scene, frames, extra)
            dt_fps, _ = rig.drawtext(scene, frames)
            rows.append(ours)
            dts.append(dt_fps)
            ratios.append(ours["fps"] / dt_fps)
            print(f"#   {scene}: {ours['fps']:.1f} frames/s, drawtext {dt_fps:.1f}", file=sys.stderr, flush=True)
        col = lambda k: [r[k] for r in rows]
        print(f"{SCENES[scene]['title']}, {frames} frames, {runs} runs: median (min, max)")
        print(f"  frames/s through the socket     {spread(col('fps'), '{:.1f}')}")
        print(f"  drawtext frames/s               {spread(dts, '{:.1f}')}")
        print(f"  ratio to drawtext (same run)    {spread(ratios, '{:.2f}x')}")
        print(f"  server CPU a frame              {spread(col('cpu_ms'), '{:.3f} ms')}")
        print(f"  server page faults a frame      {spread(col('faults'), '{:.2f}')}")
        print(f"  client page faults a frame      {spread(col('client_faults'), '{:.2f}')}")
        print(f"  server peak memory (VmHWM)      {spread(col('hwm_mib'), '{:.1f} MiB')}", flush=True)
    starts = env_int("STARTS", 5)
    if starts > 0:
        took = []
        for _ in range(starts):
            p, _, t = rig.start("strip108", extra)
            took.append(t * 1000)
            stop(p)
        print(f"start-up to ready ({starts} starts)  {spread(took, '{:.1f} ms')}")


# --- serve_playout --------------------------------------------------------------------------------

def cmd_playout(rig, args):
    runs = env_int("RUNS", 3)
    seconds = float(os.environ.get("SECONDS_PACED", "30"))
    scene = args.scenes[0] if args.scenes else "full1080"
    rate = os.environ.get("RATE", "60000/1001")
    w, h = SCENES[scene]["size"]
    print(f"# {SCENES[scene]['title']} ({w}x{h}) paced at {rate} frames/s for {seconds:g} s, {runs} fresh servers; "
          f"server on core {rig.cpu}, client on core {rig.client_cpu}; {load_note()}", flush=True)
    rows = []
    for _ in range(runs):
        p, socket, _ = rig.start(scene, args.server_args)
        sampler = ShmemSampler(p.pid)
        damon0, t0 = kdamond_seconds(), time.monotonic()
        cpu0, flt0 = proc_stat(p.pid)
        fig = rig.run_client(socket, scene, "--paced", "--rate", rate, "--seconds", str(seconds), "--touch", "all",
                             "--server-pid", str(p.pid))
        cpu1, flt1 = proc_stat(p.pid)
        damon = None if damon0 is None else (kdamond_seconds() - damon0) / (time.monotonic() - t0) * 100
        shmem = sampler.finish()
        hwm = status_kib(p.pid, "VmHWM")
        stop(p)
        n = fig["frames"][0] + 1
        p50, p99, mx = fig["latency_us"]
        ticks, faults = fig["server_measured"]
        rows.append(dict(cpu_ms=(cpu1 - cpu0) * 1000 / n, faults=(flt1 - flt0) / n, hwm=hwm / 1024,
                         paced_cpu_ms=ticks * 1000 / TICK / (n - 1), paced_faults=faults / (n - 1),
                         shmem=shmem / 1024, p50=p50 / 1000, p99=p99 / 1000, max=mx / 1000,
                         first=fig["first_us"][0] / 1000, late=fig["late"][0],
                         client_faults=fig["client_minflt"][0] / fig["frames"][0], damon=damon))
        print(f"#   {rows[-1]}", file=sys.stderr, flush=True)
    col = lambda k: [r[k] for r in rows]
    print(f"paced {rate} frames/s, {seconds:g} s, {runs} runs: median (min, max)")
    print(f"  server CPU a frame              {spread(col('cpu_ms'), '{:.3f} ms')}")
    print(f"    paced frames only             {spread(col('paced_cpu_ms'), '{:.3f} ms')}")
    print(f"  server page faults a frame      {spread(col('faults'), '{:.2f}')}")
    print(f"    paced frames only             {spread(col('paced_faults'), '{:.2f}')}")
    print(f"  client page faults a frame      {spread(col('client_faults'), '{:.2f}')}")
    print(f"  frame memory (peak RssShmem)    {spread(col('shmem'), '{:.1f} MiB')}")
    print(f"  server peak memory (VmHWM)      {spread(col('hwm'), '{:.1f} MiB')}")
    print(f"  reply p50                       {spread(col('p50'), '{:.2f} ms')}")
    print(f"  reply p99                       {spread(col('p99'), '{:.2f} ms')}")
    print(f"  reply max                       {spread(col('max'), '{:.2f} ms')}")
    print(f"  replies later than a period     {spread(col('late'), '{:.0f}')}")
    print(f"  first frame (lays the text out) {spread(col('first'), '{:.1f} ms')}")
    if all(r["damon"] is not None for r in rows):
        print(f"  kdamond CPU share (the machine) {spread(col('damon'), '{:.1f} %')}")


# --- serve_density --------------------------------------------------------------------------------

def density_trial(rig, scene, count, seconds, rate, extra, preroll):
    """`count` fresh servers on one core, one paced client each, their phases
    spread evenly over a frame period (channels are not in step). Returns each
    client's figures, the servers' CPU share of their core, kdamond's share
    and the servers' CPU a frame, all three over the paced frames only (from
    the common start on; the cue before it is left out)."""
    servers = [rig.start(scene, extra) for _ in range(count)]
    num, den = (int(x) for x in rate.split("/"))
    period_us = den * 1_000_000 // num
    # Start in step once every client has connected and taken its warm-up frame.
    start_at = int(time.clock_gettime(time.CLOCK_MONOTONIC) * 1e6) + 3_000_000 + (200_000 + 50_000 * preroll) * count
    log_dir = os.environ.get("LOG_DIR")
    logs = lambda i: ["--log", os.path.join(log_dir, f"items{count}-client{i}.log")] if log_dir else []
    clients = [subprocess.Popen(rig.client_cmd(sock, scene, "--paced", "--rate", rate, "--seconds", str(seconds),
                                               "--touch", "pages", "--preroll", str(preroll),
                                               "--start-at-us", str(start_at),
                                               "--phase-us", str(i * period_us // count), *logs(i)),
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
               for i, (_, sock, _) in enumerate(servers)]
    wait = start_at / 1e6 - time.clock_gettime(time.CLOCK_MONOTONIC)
    if wait > 0:
        time.sleep(wait)
    cpu0 = sum(proc_stat(p.pid)[0] for p, _, _ in servers)
    damon0 = kdamond_seconds()
    t0 = time.monotonic()
    results = []
    for c in clients:
        out, err = c.communicate()
        if c.returncode != 0:
            fail("serve_client failed: " + err.strip())
        results.append(parse_figures(out))
    wall = time.monotonic() - t0
    cpu1 = sum(proc_stat(p.pid)[0] for p, _, _ in servers)
    damon = None if damon0 is None else (kdamond_seconds() - damon0) / wall
    for p, _, _ in servers:
        stop(p)
    frames = sum(r["frames"][0] for r in results)
    return results, (cpu1 - cpu0) / wall, damon, (cpu1 - cpu0) * 1000 / max(frames, 1)


def cmd_density(rig, args):
    seconds = float(os.environ.get("SECONDS_PACED", "15"))
    limit_ms = float(os.environ.get("P99_LIMIT_MS", "10"))
    rate = os.environ.get("RATE", "30000/1001")
    scene = args.scenes[0] if args.scenes else "full1080"
    step = env_int("DENSITY_STEP", 4)
    preroll = env_int("PREROLL", 10)
    print(f"# {SCENES[scene]['title']}, clients paced at {rate} frames/s for {seconds:g} s after a preroll of "
          f"{preroll} frames; all servers on core {rig.cpu}, all clients on core {rig.client_cpu}; pass: every "
          f"client's p99 reply < {limit_ms:g} ms; {load_note()}", flush=True)
    damon = "" if kdamond_seconds() is None else f" {'kdamond CPU':>11}"
    print(f"{'items':>5} {'worst p99':>10} {'median p99':>11} {'worst max':>10} {'late':>6} {'servers CPU':>12}"
          f" {'CPU a frame':>11}{damon}")

    def trial(n):
        res, share, damon, frame_ms = density_trial(rig, scene, n, seconds, rate, args.server_args, preroll)
        p99s = [r["latency_us"][1] / 1000 for r in res]
        maxes = [r["latency_us"][2] / 1000 for r in res]
        late = sum(r["late"][0] for r in res)
        ok = max(p99s) < limit_ms
        print(f"{n:>5} {max(p99s):>8.2f}ms {statistics.median(p99s):>9.2f}ms {max(maxes):>8.2f}ms {late:>6.0f} "
              f"{share * 100:>10.0f}% {frame_ms:>8.2f} ms {'' if damon is None else f'{damon * 100:>10.1f}%'}  {'pass' if ok else 'FAIL'}",
              flush=True)
        return ok

    fixed = env_int("DENSITY_ITEMS", 0)
    if fixed > 0:  # that many items, RUNS times, no search
        passed = sum(trial(fixed) for _ in range(env_int("RUNS", 1)))
        print(f"density: {fixed} items passed {passed} of {env_int('RUNS', 1)} trials")
        return
    best, n = 0, env_int("DENSITY_START", step)
    while trial(n):
        best, n = n, n + step
    for m in range(best + 1, n):  # the step that failed, one item at a time
        if not trial(m):
            break
        best = m
    print(f"density: {best} items of {SCENES[scene]['title']} at {rate} frames/s on one core "
          f"(every p99 reply < {limit_ms:g} ms)")


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("command", choices=["drawtext", "playout", "density"])
    ap.add_argument("--build", default=os.path.join(ROOT, "build"))
    ap.add_argument("--scene", dest="scenes", action="append", choices=list(SCENES),
                    help="scene(s) to run (default: all for drawtext, full1080 otherwise)")
    ap.add_argument("server_args", nargs="*", help="switches for every server (after --), e.g. --frame-cache 32")
    args = ap.parse_args()
    rig = Rig(args.build)
    try:
        {"drawtext": cmd_drawtext, "playout": cmd_playout, "density": cmd_density}[args.command](rig, args)
    finally:
        rig.close()


if __name__ == "__main__":
    main()
