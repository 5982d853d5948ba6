#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz harnesses into fuzz/corpus/<harness>/.

The seeds are checked in; run this again only after changing an input format (the formats are
described at the top of each harness). Regression inputs found by fuzzing are added to the
corpus directories by hand, under names starting with "crash-" or "regress-", and are not
touched here.
"""

import json
import os
import struct

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")


def write(harness, name, data):
    folder = os.path.join(ROOT, harness)
    os.makedirs(folder, exist_ok=True)
    if isinstance(data, str):
        data = data.encode("utf-8")
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def record_json(fields):
    return json.dumps({str(i): v for i, v in enumerate(fields)}, separators=(",", ":"))


# --- zvr_fuzz_shm_event: the segment's text --------------------------------------------------

SHM = "zvr_fuzz_shm_event"
write(SHM, "created", record_json(["created", "200", "ses-1", "zvr-1"]))
write(SHM, "started", record_json(
    ["started", "200", "ses-2", "zvr-1", "", "", "http://127.0.0.1:8080/a.ts", "", "ok",
     "", ""]))
write(SHM, "definition", record_json(
    ["definition", "200", "ses-3", "zvr-1", "", "", "", "576p,720p,1080p"]))
write(SHM, "empty", b"")
write(SHM, "only-zero", b"\x00")
write(SHM, "not-json", b"created 200 ses-1 zvr-1")
write(SHM, "truncated", b'{"0":"created","1":"20')
write(SHM, "scalars", b'{"0":12,"1":true,"2":null,"3":-0.5e3,"4":false,"5":18446744073709551615}')
write(SHM, "nested", b'{"0":{"a":[1,{"b":2}]},"1":[["x"]],"3":{"0":"created"},"10":"last"}')
write(SHM, "other-members", b'{"00":"x","+1":"y","11":"z","-1":"w","0 ":"v","3":"kept"}')
write(SHM, "not-object", b'["created","200","ses-1","zvr-1"]')
write(SHM, "comments", b'// service\n{/* a */"0":"status","2":"ses-4" // b\n}')
write(SHM, "escapes", b'{"0":"a\\u0000b","3":"\\ud83d\\ude00","6":"\\uD800","7":"\\t\\"\\\\"}')
write(SHM, "invalid-utf8", b'{"0":"started","3":"\xff\xfe\xc3","6":"\xed\xa0\x80"}')
write(SHM, "embedded-zero", b'{"0":"created"}\x00{"0":"status"}')
write(SHM, "long-member", '{"0":"started","6":"' + "u" * 3900 + '"}')
write(SHM, "deep", "[" * 1200 + "]" * 1200)
# First byte 0xFF: the whole segment without a terminator, padded with blanks.
write(SHM, "no-terminator-record", b"\xff" + record_json(["created", "200", "ses-5", "zvr-2"]).encode())
write(SHM, "no-terminator-text", b"\xff" + b"x" * 4096)
write(SHM, "no-terminator-long-member", b"\xff" + ('{"0":"seeked","8":"' + "d" * 4074 + '"}').encode())

# --- zvr_fuzz_event_dispatch: records of fields -----------------------------------------------

DISPATCH = "zvr_fuzz_event_dispatch"
RS = b"\x1e"
FS = b"\x1f"


def rec(fields, control1=0x3F, control2=0x00):
    return bytes([control1, control2]) + FS.join(f.encode() if isinstance(f, str) else f
                                                  for f in fields)


def ctl(name=None, ident=None, ok=False, twice=False):
    names = ["created", "status", "started", "stopped", "seeked", "definition"]
    ids = ["id-1", "id-2", "id-3", "", "unregistered"]
    c = names.index(name) if name is not None else 7
    c |= (ids.index(ident) if ident is not None else 7) << 3
    c |= 0x40 if ok else 0
    c |= 0x80 if twice else 0
    return c


def act(action, subject=0, mode=0):
    return action | (subject << 3) | (mode << 5)


write(DISPATCH, "created", rec(["created", "200", "ses-1", "zvr-7"]))
write(DISPATCH, "created-failed", rec(["created", "500", "ses-1", "zvr-7"]))
write(DISPATCH, "status", rec(["status", "200", "ses-2", "x"]))
write(DISPATCH, "started-starting", rec(
    ["started", "200", "ses-3", "id-2", "", "", "http://127.0.0.1/b", "", "ok"]))
write(DISPATCH, "started-idle-after-preload", rec(
    ["started", "200", "ses-4", "id-1", "", "", "http://127.0.0.1/a"], ctl(), act(3, 0)))
write(DISPATCH, "started-failed", rec(["started", "404", "ses-5", "id-2", "", "", "", "", "gone"]))
write(DISPATCH, "definition-idle", rec(["definition", "200", "", "id-1", "", "", "", "720p"]))
write(DISPATCH, "definition-started", rec(["definition", "", "", "id-3", "", "", "", "1080p"]))
write(DISPATCH, "definitions-plural", rec(["definitions", "200", "", "id-3", "", "", "", "x"]))
write(DISPATCH, "stopped-seeked", rec(["stopped", "200", "", "id-3"]) + RS +
      rec(["stopped", "500", "", "id-3", "", "", "", "", "busy"]) + RS +
      rec(["seeked", "200", "", "id-3"]) + RS + rec(["seeked", "1", "", "id-2"]))
write(DISPATCH, "empty-id", rec(["started", "200", "", "", "", "", "u"], ctl(), act(1, 3, 0)))
write(DISPATCH, "unregistered", rec(["started", "200", "", "id-9", "", "", "u"]))
write(DISPATCH, "empty-record", b"")
write(DISPATCH, "short-records", rec([]) + RS + rec(["started"]) + RS + rec(["created"]))
write(DISPATCH, "take-over-preloaded", rec(
    ["started", "200", "", "id-1", "", "", "http://p"], ctl(), act(3, 0)) + RS +
      rec(["started", "200", "", "id-1", "", "", "http://p"]) + RS +
      rec(["x"], ctl(), act(5, 0)))
write(DISPATCH, "take-over-read", rec(
    ["started", "200", "", "id-1", "", "", "http://read"], ctl(), act(5, 0)))
write(DISPATCH, "listener", rec(
    ["started", "200", "", "id-2", "", "", "http://l"], ctl(twice=True), act(7)))
write(DISPATCH, "recreate-stop-seek", rec(["definition", "", "", "id-3", "", "", "", "d"],
                                           ctl(), act(6, 2)) + RS +
      rec(["stopped", "200", "", "id-2"], ctl(), act(2, 1)) + RS +
      rec(["seeked", "200", "", "id-3", "", "", "", "", "t"], ctl(), act(4, 2)))
write(DISPATCH, "many-fields", rec([str(i) for i in range(20)], ctl("started", "id-2", ok=True)))
write(DISPATCH, "invalid-utf8-format", rec(
    ["started", "200", "%s%n", "id-2", "", "", "\xff\xfe%s%d".encode("latin-1"), "", "%n"]))
write(DISPATCH, "long-fields", rec(["created", "200", "s" * 1000, "o" * 2000]))

# --- zvr_fuzz_command_builders: operations --------------------------------------------------

BUILD = "zvr_fuzz_command_builders"


def text(s):
    b = s.encode("utf-8") if isinstance(s, str) else s
    return struct.pack("<H", len(b)) + b


def f64(v):
    return struct.pack("<d", v)


def f64bits(bits):
    return struct.pack("<Q", bits)


def i32(v):
    return struct.pack("<i", v)


def start(ident, url, mode):
    return bytes([0]) + text(ident) + text(url) + i32(mode)


def stop(ident):
    return bytes([1]) + text(ident)


def seek(ident, pos, t):
    return bytes([2]) + text(ident) + pos + text(t)


def preload(ident, pos, t1, t2, t3):
    return bytes([3]) + text(ident) + pos + text(t1) + text(t2) + text(t3)


INSPECT = bytes([4])


def param(initial, position, t):
    pos = bytes([position]) if position < 0xFF else b"\xff" + struct.pack("<I", position)
    return bytes([5, initial]) + pos + text(t)


write(BUILD, "start", start("zvr-1", "file:///media/a.ts", 1))
write(BUILD, "start-modes", start("zvr-1", "", 0) + start("zvr-1", "u", -1) +
      start("", "u", 2**31 - 1) + start("x", "u", -2**31))
write(BUILD, "stop-then-probe", stop("zvr-1") + INSPECT + stop("") + INSPECT)
write(BUILD, "seek", seek("zvr-1", f64(12.5), "fast"))
write(BUILD, "seek-extreme-values", seek("a", f64(float("nan")), "") + seek("a", f64(float("inf")), "") +
      seek("a", f64(float("-inf")), "") + seek("a", f64(1.7976931348623157e308), "") +
      seek("a", f64(-1.7976931348623157e308), "") + seek("a", f64bits(1), "") +
      seek("a", f64bits(0x8000000000000000), "") + seek("a", f64bits(0xFFF8000000000001), ""))
write(BUILD, "preload", preload("zvr-2", f64(0.0), "http://x/a.ts", "576p", "extra"))
write(BUILD, "preload-long", preload("i" * 300, f64(-3.0), "u" * 1000, "\x00\x01\xff".encode(
    "latin-1"), "\xc3\x28\xed\xa0\x80".encode("latin-1")))
write(BUILD, "set-parameter", param(0, 3, "id") + param(11, 10, "last") + param(15, 14, "beyond") +
      param(4, 11, "out") + param(0, 0xFFFFFFFF, "huge") + param(12, 0xFF, "ff"))
write(BUILD, "empty", b"")
write(BUILD, "short-arguments", bytes([3]) + b"\x10")
