#!/usr/bin/env python3
"""Writes the fuzz targets' seed corpus, fuzz/corpus/<target>/, from the
test data, the example item and the packets of docs/protocol.md.

The corpus is kept in the repository; run this again (from anywhere) after
the test data changes, and commit what it writes. Files over 4 KiB are left
out: small seeds mutate faster, and the fuzzers find depth on their own."""
import pathlib
import shutil
import struct

ROOT = pathlib.Path(__file__).resolve().parent.parent
CORPUS = ROOT / "fuzz" / "corpus"
MAX_SEED = 4096

ITEM_HEADER = "#Tevrin4ScrollText\n"


def packet(command, entries=(), arguments=(), status="", data=b"", flags=0, request_id=1):
    """One control-socket packet, encoded as docs/protocol.md lays it out."""
    def text(s):
        b = s.encode()
        return struct.pack("<H", len(b)) + b

    body = text(command) + text(status)
    body += struct.pack("<H", len(arguments)) + b"".join(text(a) for a in arguments)
    body += struct.pack("<H", len(entries))
    for name, value in entries:
        v = value if isinstance(value, bytes) else str(value).encode()
        body += text(name) + struct.pack("<I", len(v)) + v
    body += struct.pack("<I", len(data)) + data
    return b"T4MP" + struct.pack("<IHHI", 16 + len(body), 1, flags, request_id) + body


def packets():
    reply, push, fd = 0x1, 0x2, 0x4
    yield "reload", packet("reload", request_id=7)
    yield "settings", packet("settings", [("width", 1920), ("height", 1080), ("time_scale", 60000),
                                          ("frame_duration", 1001), ("field_rate", 0),
                                          ("aspect_num", 16), ("aspect_den", 9)])
    yield "settings_reply", packet("settings", [("width", 640), ("height", 480), ("time_scale", 30000),
                                                ("frame_duration", 1001)], status="OK", flags=reply)
    yield "frame", packet("frame", [("frame", 12), ("variant", 0), ("flags", 0)], flags=fd, request_id=2)
    yield "frame_reply", packet("frame", [("frame", 12), ("variant", 0), ("rendered", 12), ("buffer", 1),
                                          ("offset", 4096), ("length", 3110400), ("descriptor", 3110235),
                                          ("descriptor_length", 165), ("width", 1920), ("height", 1080)],
                                status="OK", flags=reply | fd, request_id=2)
    yield "release", packet("release", [("frame", 12)], request_id=3)
    yield "error_reply", packet("release", [("message", "Frame not held")], status="ERROR", flags=reply)
    yield "data", packet("data", data=b'{"title": "News", "artist": ["A", "B"], "next": [{"title": "Later"}]}')
    yield "status_subscribe", packet("status", [("subscribe", 1)])
    yield "status_push", packet("status", status="OK", flags=push, request_id=0,
                                data=b'{"type": "application/x-tevrin-scrolling-text", "clients": 1}')
    yield "exit", packet("exit")
    yield "text", packet("v4::text", [("text", "Breaking %{color;red}%news"), ("scrollSpeed", "2.5"),
                                      ("fontColor", "ffffff"), ("fontOpacity", "0.8"), ("justify", "center"),
                                      ("multiLine", "1"), ("newcontextonly", "0")])
    yield "arguments", packet("reload", arguments=["now", "again"])


def item_files():
    yield "example", (ROOT / "examples" / "ticker.txt").read_bytes()
    bodies = {
        "colours": "#-fontColor=#ff0000\n#-fontOpacity=0.5\n#-backgroundColor=10204a\n#-backgroundOpacity=1\nA\n",
        "crlf": "#-fontColor=00ff00\r\nA\r\nB\r\n",
        "static_lines": "#-scrollSpeed=0\nline 1\nline 2\n\n\nline 3\n",
        "shadow": "#-shadowColor=000000\n#-shadowOpacity=1.5\n#-shadowBlur=3\n#-shadowX=2\n#-shadowY=-2\nHi\n",
        "layout": "#-justify=Center\n#-space=1.5\n#-fontScale=0.0005\n#-multiLine=1\nA\n\nB\n",
        "font": "#-fontFamily= Liberation Sans \n#-fontStyle=Bold\n#-emoji=sepia\n#-smoothScroll=1\nKeep\n",
        "markup": "#-scrollSpeed=1\n%{color;red}%A%{color}% %{time;now;;24h}% %{title;next;1}%\n",
    }
    for name, body in bodies.items():
        yield name, (ITEM_HEADER + body).encode()
    yield "no_header", b"Hello\n"


def markup():
    texts = [
        "Hello", "%{color;red}%A%{color}%B", "%{alpha;0.2}%%{color;#00ff80}%A%{color;nosuch}%B",
        "%{shadow-color;blue}%%{shadow-alpha;0.4}%A%{shadow-color;?}%%{shadow-alpha;x}%B",
        "<%{artist;sideways}%>", "50%{", "%%x%}%", "[%{%{test}%}%]", "%{time;now;;24h}%",
        "%{time;next;;s}%", "%{title;next;1}%|%{program}%|%{episode}%", "%{artist;current}%",
    ]
    for i, t in enumerate(texts):
        yield f"text_{i:02}", t.encode()
    yield "utf8", "\u00e9\u20ac\U0001f600 \u4e2d\u6587".encode()
    yield "bad_utf8", b"A\xffB\xc3C\xe2\x82D\x80E"


def shaping():
    texts = {
        "latin": "Breaking news: markets close higher",
        "arabic": "\u0645\u0631\u062d\u0628\u0627 \u0628\u0627\u0644\u0639\u0627\u0644\u0645",
        "hebrew_digits": "\u05e9\u05dc\u05d5\u05dd 2026 world",
        "cjk": "\u4e2d\u6587 \u65e5\u672c\u8a9e",
        "emoji": "Weather \u2726 sunny \U0001f600",
        "combining": "e\u0301 a\u0308 \u0915\u094d\u0937",
    }
    # The target reads a direction byte, then UTF-32 code points.
    for i, (name, t) in enumerate(texts.items()):
        yield name, bytes([i % 3]) + t.encode("utf-32-le")


def copies(folder, pattern):
    for path in sorted(folder.glob(pattern)):
        yield path.stem, path.read_bytes()


TARGETS = {
    "packet_fuzz": packets,
    "item_file_fuzz": item_files,
    "markup_fuzz": markup,
    "shaping_fuzz": shaping,
    "rss_fuzz": lambda: copies(ROOT / "tests" / "items" / "data" / "rss_corpus", "*.xml"),
    "weather_json_fuzz": lambda: copies(ROOT / "tests" / "text" / "data" / "json_corpus", "*.json"),
}


def main():
    for target, seeds in TARGETS.items():
        folder = CORPUS / target
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir(parents=True)
        kept = 0
        for name, data in seeds():
            if len(data) > MAX_SEED:
                continue
            (folder / name).write_bytes(data)
            kept += 1
        print(f"{target}: {kept} seeds")


if __name__ == "__main__":
    main()
