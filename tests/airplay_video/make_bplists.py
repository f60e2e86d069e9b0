#!/usr/bin/env python3
"""Writes the binary property lists that the POST /play tests send and parse.

Every body is written by Python's own plistlib, so the reader is tested against a real
writer and not against our idea of the format. A few are patched afterwards where plistlib
cannot produce the form (it always writes reals as 8 bytes and ASCII text as 1-byte
strings); each patch keeps every object at its place, so the offset table stays valid.

Run from anywhere: python3 tests/airplay_video/make_bplists.py
"""
import datetime
import os
import plistlib
import struct

URL = "http://192.0.2.20:8080/media/movie one.mp4"
OUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "bplists")


def dump(value):
    return plistlib.dumps(value, fmt=plistlib.FMT_BINARY, sort_keys=False)


def patch(body, old, new):
    assert len(old) == len(new) and body.count(old) == 1, (old, new)
    return body.replace(old, new)


def nested(levels, leaf):
    value = leaf
    for i in range(levels):
        value = {"level%d" % i: value}
    return value


def bodies():
    yield "simple", dump({"Content-Location": URL, "Start-Position": 0.25})
    # plistlib writes only 8-byte reals: turn the double into a single and 4 unused bytes.
    yield "real4", patch(dump({"Content-Location": URL, "Start-Position": 0.25}),
                         b"\x23" + struct.pack(">d", 0.25),
                         b"\x22" + struct.pack(">f", 0.25) + b"\0" * 4)
    yield "integer_position", dump({"Start-Position": 42, "Content-Location": URL})
    yield "negative_position", dump({"Content-Location": URL, "Start-Position": -3})
    yield "position_only", dump({"Start-Position": 0.3, "rate": 1.0})
    yield "no_location", dump({"rate": 1.0, "uuid": "6C1A5E2B"})
    yield "nested", dump({"rate": 1.0, "media": {"info": {"Content-Location": URL}},
                          "Start-Position": 0.5})
    yield "in_array", dump({"items": [{"Content-Location": URL}], "Start-Position": 0.5})
    many = {"key%02d" % i: "value%02d" % i for i in range(20)}
    many["Content-Location"] = URL
    many["Start-Position"] = 0.75
    yield "many_pairs", dump(many)
    # More than 255 objects: references and offsets of two bytes.
    wide = {"k%03d" % i: i for i in range(300)}
    wide["Content-Location"] = URL
    yield "wide_refs", dump(wide)
    # Two keys that both begin with "Content-Location": the one read last wins.
    yield "two_locations", dump({"Content-Location": "http://192.0.2.20/first.mp4",
                                 "Content-Location-Alternate": "http://192.0.2.20/second.mp4"})
    yield "nested_then_top", dump({"a": {"Content-Location": "http://192.0.2.20/inner.mp4"},
                                   "Content-Location": "http://192.0.2.20/outer.mp4"})
    yield "short_key", dump({"Content-Locatio": URL, "Start-Positio": 0.5})
    yield "long_key", dump({"x" * 300: "y" * 300, "Content-Location": URL})
    yield "dates", dump({"when": datetime.datetime(2011, 6, 1, 12, 30, 0),
                         "Content-Location": URL, "since": datetime.datetime(2001, 1, 1)})
    # A location in UTF-16: plistlib writes it so only for non-ASCII text, so write one
    # non-ASCII unit and patch it to "A" afterwards.
    yield "utf16_ascii", patch(dump({"Content-Location": "http://192.0.2.20/\u00e9.mp4"}),
                               b"\x00\xe9", b"\x00A")
    yield "utf16_other", dump({"Content-Location": "http://192.0.2.20/\u00e9.mp4"})
    # Senders send boolean options beside the location; false reads as 0.
    yield "with_false", dump({"Content-Location": URL, "flag": False})
    yield "with_true", dump({"flag": True, "Content-Location": URL, "none": b"data"})
    yield "deep_ok", dump(nested(30, {"Content-Location": URL}))
    yield "deep_too_far", dump(nested(40, {"Content-Location": URL}))
    # A body that cannot arrive in one segment with its header block.
    large = {"pad%02d" % i: "%02d" % i + "p" * 400 for i in range(20)}
    large["Content-Location"] = URL
    large["Start-Position"] = 0.5
    yield "large", dump(large)


def main():
    os.makedirs(OUT, exist_ok=True)
    for name, body in bodies():
        with open(os.path.join(OUT, name + ".bplist"), "wb") as f:
            f.write(body)


if __name__ == "__main__":
    main()
