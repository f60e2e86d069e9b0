#!/usr/bin/env python3
"""Writes tests/airplay_video/bplists with Python's own plistlib, so the reader is tested against
a real writer; a few are patched, every object kept at its place, where plistlib cannot."""
import datetime
import os
import plistlib
import struct

URL = "http://192.0.2.20:8080/media/movie one.mp4"
OUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "bplists")
dump = lambda value: plistlib.dumps(value, fmt=plistlib.FMT_BINARY, sort_keys=False)


def patch(body, old, new):
    assert len(old) == len(new) and body.count(old) == 1, (old, new)
    return body.replace(old, new)


def nested(levels, value):
    for i in range(levels):
        value = {"level%d" % i: value}
    return value


def bodies():
    loc = {"Content-Location": URL}
    many = {"key%02d" % i: "value%02d" % i for i in range(20)}
    large = {"pad%02d" % i: "%02d" % i + "p" * 400 for i in range(20)}  # beyond one segment
    e_acute = {"Content-Location": "http://192.0.2.20/\u00e9.mp4"}  # written as UTF-16
    yield "simple", dump({**loc, "Start-Position": 0.25})
    # plistlib writes only 8-byte reals: turn the double into a single and 4 unused bytes.
    yield "real4", patch(dump({**loc, "Start-Position": 0.25}), b"\x23" + struct.pack(">d", 0.25),
                         b"\x22" + struct.pack(">f", 0.25) + b"\0" * 4)
    yield "integer_position", dump({"Start-Position": 42, **loc})
    yield "negative_position", dump({**loc, "Start-Position": -3})
    yield "position_only", dump({"Start-Position": 0.3, "rate": 1.0})
    yield "no_location", dump({"rate": 1.0, "uuid": "6C1A5E2B"})
    yield "nested", dump({"rate": 1.0, "media": {"info": loc}, "Start-Position": 0.5})
    yield "in_array", dump({"items": [loc], "Start-Position": 0.5})
    yield "many_pairs", dump({**many, **loc, "Start-Position": 0.75})
    yield "wide_refs", dump({**{"k%03d" % i: i for i in range(300)}, **loc})  # 2-byte refs
    yield "two_locations", dump({"Content-Location": "http://192.0.2.20/first.mp4",
                                 "Content-Location-Alternate": "http://192.0.2.20/second.mp4"})
    yield "short_key", dump({"Content-Locatio": URL, "Start-Positio": 0.5})
    yield "dates", dump({"when": datetime.datetime(2011, 6, 1, 12, 30, 0), **loc,
                         "since": datetime.datetime(2001, 1, 1)})
    yield "utf16_ascii", patch(dump(e_acute), b"\x00\xe9", b"\x00A")
    yield "utf16_other", dump(e_acute)
    yield "with_false", dump({**loc, "flag": False})
    yield "with_true", dump({"flag": True, **loc, "none": b"data"})
    yield "deep_ok", dump(nested(30, loc))
    yield "deep_too_far", dump(nested(40, loc))
    yield "large", dump({**large, **loc, "Start-Position": 0.5})


if __name__ == "__main__":
    os.makedirs(OUT, exist_ok=True)
    for name, body in bodies():
        with open(os.path.join(OUT, name + ".bplist"), "wb") as f:
            f.write(body)
