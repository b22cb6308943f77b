#!/usr/bin/env python3
"""The operator panel in a real browser (headless Chromium through Selenium).

Starts an item (a still white text on a transparent background), t4mi_panel
with a token, and Chromium; then drives the page as an operator would and
checks the item itself through its socket with t4mi_render:

- the page shows the live output, the figures and the text on air
  (screenshots in the output directory: look at them);
- a request without the token, or with a wrong one, gets 401 and changes
  nothing on the item;
- a bad colour and a non-number are refused on the page with their message
  and never reach the item;
- an item text made of HTML is shown as text, and runs no script;
- a new text and a yellow font colour sent from the form reach the frames
  the item serves.

Exit status 0 when all pass, 1 on a failure, 77 (skipped) when Chromium,
its driver or Selenium is missing.
"""
import argparse
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

SKIP = 77
TOKEN = "panel-test-token"
ITEM = (
    "#Tevrin4ScrollText\n"
    "#-scrollSpeed=0\n"
    "#-fontColor=ffffff\n"
    "#-backgroundOpacity=0\n"
    "#-multiLine=1\n"
    "Panel test: on air\n"
)
SIZE = (320, 54)
FONTS = {
    "liberation_sans.ttf": "/usr/share/fonts/truetype/liberation/LiberationSans-Regular.ttf",
    "TwitterColorEmoji-SVGinOT.ttf": "/usr/share/fonts/truetype/ancient-scripts/Symbola_hint.ttf",
}


class Failure(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Failure(message)


def wait_for(what, predicate, timeout=15.0, step=0.05):
    """Polls until predicate() gives a true value, which is returned."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > deadline:
            raise Failure("timed out waiting for " + what)
        time.sleep(step)


class Rig:
    """The item, the panel and the test's private installation."""

    def __init__(self, args):
        self.args = args
        self.dir = tempfile.mkdtemp(prefix="t4mi-panel-test-")
        self.procs = []
        root = os.path.join(self.dir, "root")
        fonts = os.path.join(root, "usr/share/tevrin4/fonts")
        os.makedirs(os.path.join(fonts, "emoji"))
        for d in ("mnt/main/tv/fonts", "run/tevrin/weather/kestrel"):
            os.makedirs(os.path.join(root, d))
        for name, target in FONTS.items():
            os.symlink(target, os.path.join(fonts, name))
        conf = os.path.join(self.dir, "fonts.conf")
        with open(conf, "w") as f:
            f.write('<?xml version="1.0"?>\n<!DOCTYPE fontconfig SYSTEM "fonts.dtd">\n<fontconfig>\n'
                    "  <cachedir>%s/fc-cache</cachedir>\n</fontconfig>\n" % self.dir)
        self.env = dict(os.environ, T4MI_ROOT=root, FONTCONFIG_FILE=conf)
        self.item = os.path.join(self.dir, "item.txt")
        with open(self.item, "w") as f:
            f.write(ITEM)
        self.metadir = os.path.join(self.dir, "meta")

    def start_item(self):
        err = open(os.path.join(self.dir, "item.err"), "w")
        self.procs.append(subprocess.Popen(
            [self.args.scrolltext, "--file", self.item, "--metadir", self.metadir],
            env=self.env, stdout=subprocess.DEVNULL, stderr=err, stdin=subprocess.DEVNULL))

        def ready():
            try:
                with open(os.path.join(self.metadir, "status.json")) as f:
                    status = json.load(f)
                return status.get("ready") == 1 and status.get("socket")
            except (OSError, ValueError):
                return None
        self.socket = wait_for("the item to be ready", ready)

    def start_panel(self):
        p = subprocess.Popen(
            [self.args.panel, "--socket", self.socket, "--listen", "127.0.0.1:0", "--token", TOKEN],
            env=self.env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, text=True)
        self.procs.append(p)
        line = p.stdout.readline()
        check(line.startswith("t4mi_panel: listening on http://127.0.0.1:"), "panel did not start: " + line)
        self.base = line.split()[-1].rstrip("/")

    def http(self, path, token=TOKEN, body=None):
        """(status, bytes) of a request to the panel."""
        headers = {}
        if token is not None:
            headers["Authorization"] = "Bearer " + token
        if body is not None:
            headers["Content-Type"] = "application/json"
            body = json.dumps(body).encode()
        request = urllib.request.Request(self.base + path, data=body, headers=headers)
        try:
            with urllib.request.urlopen(request, timeout=10) as r:
                return r.status, r.read()
        except urllib.error.HTTPError as e:
            return e.code, e.read()

    def item_stats(self):
        """The item's own "v4::stats", through its socket (t4mi_control)."""
        out = subprocess.run([self.args.control, "--socket", self.socket, "send", "v4::stats"],
                             capture_output=True, text=True, timeout=20, env=self.env)
        check(out.returncode == 0, "v4::stats failed: " + out.stdout + out.stderr)
        return json.loads(out.stdout.split("\n", 1)[1])

    def served_frame(self, name):
        """Y, U, V, A planes of frame 0 at SIZE, from the item's socket."""
        path = os.path.join(self.dir, name + ".y4m")
        out = subprocess.run(
            [self.args.render, "--socket", self.socket, "--out", path, "--size", "%dx%d" % SIZE, "--frames", "1"],
            capture_output=True, text=True, timeout=30, env=self.env)
        check(out.returncode == 0, "t4mi_render failed: " + out.stderr)
        data = open(path, "rb").read()
        start = data.index(b"FRAME\n") + len(b"FRAME\n")
        n = SIZE[0] * SIZE[1]
        return [data[start + i * n:start + (i + 1) * n] for i in range(4)]

    def stop(self):
        for p in reversed(self.procs):
            if p.poll() is None:
                p.send_signal(signal.SIGTERM)
                try:
                    p.wait(timeout=5)
                except subprocess.TimeoutExpired:
                    p.kill()
                    p.wait()
        shutil.rmtree(self.dir, ignore_errors=True)


def yellow_pixels(planes):
    """Opaque pixels near yellow ff ff 00 (Y 210, U 16, V 146 in studio range)."""
    y, u, v, a = planes
    return sum(1 for i in range(len(y)) if a[i] > 200 and y[i] > 180 and u[i] < 60 and v[i] > 120)


def white_pixels(planes):
    y, u, v, a = planes
    return sum(1 for i in range(len(y)) if a[i] > 200 and y[i] > 220 and abs(u[i] - 128) < 8 and abs(v[i] - 128) < 8)


# The preview's RGBA bytes as the page shows them, in `d`; the script ends
# with null while there is no picture yet.
PREVIEW_PIXELS = """
const img = document.getElementById('frame');
if (!img.complete || img.naturalWidth === 0) return null;
const c = document.createElement('canvas');
c.width = img.naturalWidth; c.height = img.naturalHeight;
const g = c.getContext('2d');
g.drawImage(img, 0, 0);
const d = g.getImageData(0, 0, c.width, c.height).data;
"""

# Counts the preview's opaque yellow pixels.
PREVIEW_YELLOW = PREVIEW_PIXELS + """
let n = 0;
for (let i = 0; i < d.length; i += 4)
  if (d[i + 3] > 200 && d[i] > 200 && d[i + 1] > 200 && d[i + 2] < 80) n++;
return n;
"""

# Whether the preview differs from the first picture it showed.
PREVIEW_CHANGED = PREVIEW_PIXELS + """
let sum = 0;
for (let i = 0; i < d.length; i += 4) sum = (sum * 31 + d[i] + d[i + 3]) % 1000000007;
if (window.__firstPreview === undefined) { window.__firstPreview = sum; return false; }
return sum !== window.__firstPreview;
"""


def browser(args):
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    options = webdriver.ChromeOptions()
    options.binary_location = args.chromium
    for a in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
              "--window-size=1280,1000", "--no-first-run", "--disable-extensions"):
        options.add_argument(a)
    return webdriver.Chrome(service=Service(args.chromedriver), options=options)


def run(args, rig):
    out = args.out
    os.makedirs(out, exist_ok=True)
    rig.start_item()
    rig.start_panel()
    original_text = "Panel test: on air"
    before = rig.served_frame("before")
    check(white_pixels(before) > 50 and yellow_pixels(before) == 0, "the item does not start white")

    # --- the token -------------------------------------------------------------
    for token in (None, "wrong-token"):
        status, _ = rig.http("/", token=token)
        check(status == 401, "GET / with token %r gave %d" % (token, status))
        status, _ = rig.http("/api/text", token=token, body={"text": "HACKED", "fontColor": "ff0000"})
        check(status == 401, "POST /api/text with token %r gave %d" % (token, status))
        status, _ = rig.http("/api/reload", token=token, body={})
        check(status == 401, "POST /api/reload with token %r gave %d" % (token, status))
        status, _ = rig.http("/frame.png?w=64&h=16", token=token)
        check(status == 401, "GET /frame.png with token %r gave %d" % (token, status))
    check(rig.item_stats()["settings"]["text"] == original_text, "a refused request changed the text")
    check(rig.served_frame("after-401")[0] == before[0], "a refused request changed the frames")

    from selenium.webdriver.common.by import By
    driver = browser(args)
    try:
        driver.set_page_load_timeout(20)
        driver.get(rig.base + "/?token=" + TOKEN)
        text = lambda id_: driver.find_element(By.ID, id_).text
        # The page is live: figures, text on air, and several preview frames.
        wait_for("the figures", lambda: text("stat-frames").isdigit() and text("current-text") == original_text)
        wait_for("preview frames", lambda: int(driver.find_element(By.ID, "frame").get_attribute("data-frames")
                                               or 0) >= 3)
        check(text("link-state") == "attached", "link state: " + text("link-state"))
        # Remembers the first picture (null until one has loaded).
        wait_for("a preview picture", lambda: driver.execute_script(PREVIEW_CHANGED) is not None)
        check(driver.find_element(By.ID, "f-fontColor").get_attribute("value") == "ffffff",
              "the form was not filled from the item")
        check(len(driver.find_elements(By.CSS_SELECTOR, "#messages li")) > 0, "no messages shown")
        driver.save_screenshot(os.path.join(out, "panel-initial.png"))

        def field(name, value):
            e = driver.find_element(By.ID, "f-" + name)
            e.clear()
            e.send_keys(value)

        def message():
            m = driver.find_element(By.ID, "form-message")
            return m.text, m.get_attribute("class")

        # --- refused input: shown on the page, never sent ------------------------
        served_before = rig.item_stats()
        field("text", "must not arrive")
        field("fontColor", "zz12")
        driver.find_element(By.ID, "send").click()
        msg, cls = wait_for("the colour message", lambda: message()[1] == "error" and message())
        check("Font colour (fontColor): not a colour" in msg, "colour message: " + msg)
        check(driver.find_element(By.ID, "f-fontColor").get_attribute("aria-invalid") == "true",
              "the bad field is not marked")
        driver.save_screenshot(os.path.join(out, "panel-refused-colour.png"))
        field("fontColor", "ffffff")
        field("scrollSpeed", "fast")
        driver.find_element(By.ID, "send").click()
        msg, cls = wait_for("the number message", lambda: "Speed" in message()[0] and message())
        check(cls == "error" and "Speed (scrollSpeed): not a number" in msg, "number message: " + msg)
        field("scrollSpeed", "1e3")  # exponents are refused too: plain decimals only
        driver.find_element(By.ID, "send").click()
        wait_for("the exponent message", lambda: message()[0].endswith("not a number") and message()[1] == "error")
        time.sleep(0.6)  # a request, had one left, would have arrived by now
        after = rig.item_stats()
        check(after["settings"]["text"] == original_text, "a refused form reached the item")
        check(after["settings"]["scrollSpeed"] == served_before["settings"]["scrollSpeed"], "speed changed")

        # --- an item text made of HTML is shown as text --------------------------
        hostile = '<img src=x onerror="window.__pwned=1"><script>window.__pwned=2</script><b>bold?</b>'
        out_ = subprocess.run([args.control, "--socket", rig.socket, "text", "text=" + hostile],
                              capture_output=True, text=True, timeout=20)
        check(out_.returncode == 0, "t4mi_control text failed: " + out_.stderr)
        wait_for("the hostile text on the page", lambda: text("current-text") == hostile)
        # A change made elsewhere shows in the preview too: the panel starts
        # its frames again when the item's settings change (a still text
        # keeps its picture on a connection that goes on asking).
        wait_for("the preview of the new text", lambda: driver.execute_script(PREVIEW_CHANGED) is True)
        check(driver.find_elements(By.CSS_SELECTOR, "#current-text *") == [], "HTML in the text became elements")
        check(driver.execute_script("return window.__pwned === undefined"), "script from the item's text ran")
        driver.find_element(By.ID, "fill").click()
        check(driver.find_element(By.ID, "f-text").get_attribute("value") == hostile, "form text differs")
        driver.save_screenshot(os.path.join(out, "panel-html-text.png"))

        # --- a change from the form reaches the served frames --------------------
        field("text", "Changed from the panel")
        field("scrollSpeed", "0")
        field("fontColor", "#ffff00")
        driver.find_element(By.ID, "send").click()
        wait_for("the sent message", lambda: message() == ("Sent to all outputs.", "ok"))
        changed = rig.item_stats()["settings"]
        check(changed["text"] == "Changed from the panel", "text not changed: " + changed["text"])
        check(changed["fontColor"] == "ffff00", "colour not changed: " + changed["fontColor"])
        check(abs(changed["fontOpacity"] - 1.0) < 1e-9, "font opacity changed")
        served = rig.served_frame("after-change")
        check(served[0] != before[0], "the served frame did not change")
        check(yellow_pixels(served) > 50, "the served frame has no yellow text")
        wait_for("the new text on the page", lambda: text("current-text") == "Changed from the panel")
        wait_for("yellow text in the preview", lambda: (driver.execute_script(PREVIEW_YELLOW) or 0) > 50)
        driver.save_screenshot(os.path.join(out, "panel-changed.png"))

        # --- the backdrop colour -------------------------------------------------
        from selenium.webdriver.support.ui import Select
        Select(driver.find_element(By.ID, "backdrop")).select_by_value("colour")
        bg = driver.execute_script("return getComputedStyle(document.getElementById('preview')).backgroundColor")
        check(bg == "rgb(31, 111, 63)", "backdrop colour: " + bg)
        time.sleep(0.3)
        driver.save_screenshot(os.path.join(out, "panel-backdrop.png"))
        logs = [e for e in driver.get_log("browser") if e.get("level") == "SEVERE"]
        check(not logs, "browser errors: %r" % logs)
    except Failure:
        driver.save_screenshot(os.path.join(out, "panel-failure.png"))
        print("page figures: %r, text on air: %r, state: %r" % (
            driver.find_element(By.ID, "stat-frames").text, driver.find_element(By.ID, "current-text").text,
            driver.find_element(By.ID, "link-state").text))
        print("browser log: %r" % driver.get_log("browser"))
        raise
    finally:
        driver.quit()


def main():
    parser = argparse.ArgumentParser()
    for name in ("scrolltext", "panel", "render", "control", "out"):
        parser.add_argument("--" + name, required=True)
    parser.add_argument("--chromium", default=shutil.which("chromium") or "/usr/bin/chromium")
    parser.add_argument("--chromedriver", default=shutil.which("chromedriver") or "/usr/bin/chromedriver")
    args = parser.parse_args()
    try:
        import selenium  # noqa: F401
    except ImportError:
        print("SKIPPED: Python's selenium is not installed (Debian python3-selenium)")
        return SKIP
    for path in (args.chromium, args.chromedriver):
        if not os.access(path, os.X_OK):
            print("SKIPPED: %s is not installed (Debian chromium, chromium-driver)" % path)
            return SKIP
    rig = Rig(args)
    try:
        run(args, rig)
    except Failure as e:
        print("FAILED: %s" % e)
        return 1
    finally:
        rig.stop()
    print("passed; screenshots in %s" % args.out)
    return 0


if __name__ == "__main__":
    sys.exit(main())
