#!/usr/bin/env python3
"""Writes the seed corpus of each fuzz target into fuzz/corpus/NAME/seed-*: the messages the
tests exchange, plistlib bodies, and frames of tests/data/alac behind an RTP header. Run it
from anywhere; files of other names (reproducers of findings) are left alone."""
import base64
import os
import plistlib
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
B64 = lambda b: base64.b64encode(b).decode()

def rtsp(method, headers="", body=b"", cseq=1):
    length = "Content-Length: %d\r\n" % len(body) if body else ""
    head = "%s rtsp://192.0.2.10/1 RTSP/1.0\r\nCSeq: %d\r\nX-Apple-Device-ID: 0x5a4f52000002\r\n%s%s\r\n" % (
        method, cseq, headers, length)
    return head.encode() + body

SDP = ("v=0\r\no=iTunes 1 0 IN IP4 192.0.2.20\r\nm=audio 0 RTP/AVP 96\r\n"
       "a=rtpmap:96 AppleLossless\r\na=fmtp:96 352 0 16 40 10 14 2 255 0 0 44100\r\n"
       "a=rsaaeskey:%s\r\na=aesiv:%s\r\n" % (B64(bytes(range(256))), B64(bytes(range(16))))).encode()
CHALLENGE = B64(bytes(range(16)))
TRANSPORT = "Transport: RTP/AVP/UDP;unicast;mode=record;control_port=6001;timing_port=6002\r\n"

def dmap(items):
    inner = b"".join(t.encode() + struct.pack(">I", len(v)) + v for t, v in items)
    return b"mlit" + struct.pack(">I", len(inner)) + inner

DMAP = dmap([("asal", b"Album"), ("asar", b"Artist"), ("minm", b"Title"), ("asgn", b"Genre"),
             ("astn", b"\x00\x01")])

def http(line, headers="", body=b""):
    length = "Content-Length: %d\r\n" % len(body) if body else ""
    return ("%s\r\n%s%s\r\n" % (line, headers, length)).encode() + body

PLAY = plistlib.dumps({"Content-Location": "http://192.0.2.20:8080/video.mp4",
                       "Start-Position": 0.25}, fmt=plistlib.FMT_BINARY)

def player(status, ret=0):
    body = ("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<response>\n<returnValue>%d</returnValue>\n"
            "<currentStatus>%s</currentStatus>\n<totalTime>600</totalTime>\n<currentTime>42"
            "</currentTime>\n<seekEnable>true</seekEnable>\n</response>\n" % (ret, status)).encode()
    return b"HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nContent-Length: %d\r\n\r\n" % len(body) + body

def alac_frames(name, count):
    data = open(os.path.join(ROOT, "tests/data/alac", name + ".frames"), "rb").read()
    frames, pos = [], 0
    while pos + 4 <= len(data) and len(frames) < count:
        (n,) = struct.unpack(">I", data[pos:pos + 4])
        frames.append(data[pos + 4:pos + 4 + n])
        pos += 4 + n
    return frames

def rtp(bits, frame, seq, resend=False, length=1024):
    fmt = bytes([bits, length >> 8, length & 0xff, 40, 10, 14])  # sample size, length, Rice
    header = struct.pack(">BBHII", 0x80, 0xE0, seq, seq * 4096, 0x12345678)
    prefix = struct.pack(">BBH", 0x80, 0xD6, 1) if resend else b""
    return fmt + prefix + header + frame

SEEDS = {
    "request": [
        rtsp("OPTIONS", "Apple-Challenge: %s\r\n" % CHALLENGE),
        rtsp("ANNOUNCE", "Content-Type: application/sdp\r\n", SDP),
        rtsp("SETUP", TRANSPORT) + rtsp("RECORD", "Range: npt=0-\r\n", cseq=2),
        rtsp("SET_PARAMETER", "Content-Type: text/parameters\r\n", b"volume: -11.123456\r\n"),
        rtsp("SET_PARAMETER", "Content-Type: application/x-dmap-tagged\r\n", DMAP),
        http("GET /server-info HTTP/1.1", "X-Apple-Session-ID: 1\r\n") +
        http("GET /playback-info HTTP/1.1"),
        http("POST /play HTTP/1.1", "Content-Type: application/x-apple-binary-plist\r\n", PLAY),
        http("HTTP/1.1 200 OK", "Content-Length: 0\r\n"),
    ],
    "bplist": [PLAY] + [open(os.path.join(ROOT, "tests/airplay_video/bplists", f), "rb").read()
                        for f in sorted(os.listdir(os.path.join(ROOT, "tests/airplay_video/bplists")))
                        if f.endswith(".bplist")],
    "announce": [SDP, SDP.replace(b"\r\n", b"\n"), b"a=fmtp:96 4096 0 24 40 10 14 2 255 0 0 48000"],
    "challenge": [CHALLENGE.encode() + b"\x00192.0.2.10\x0002:5a:4f:52:00:01",
                  CHALLENGE[:22].encode() + b"\x0010.0.0.1\x00aa:bb:cc:dd:ee:ff"],
    "setup": [rtsp("SETUP", TRANSPORT), rtsp("SETUP", "Transport: control_port=65535;timing_port=0\r\n")],
    "parameters": [DMAP, b"volume: -144.000000\r\n", b"volume: -15.5\r\n", b"volume: 1e308\r\n"],
    "rtp": [rtp(16, f, i, length=352) for i, f in enumerate(alac_frames("s16_stereo", 3))] +
           [rtp(16, alac_frames("s16_stereo_verbatim", 1)[0], 1, resend=True),
            rtp(16, alac_frames("s16_mono", 1)[0], 2, length=352),
            rtp(24, alac_frames("s24_stereo", 1)[0], 3),
            rtp(24, alac_frames("s24_mono", 1)[0], 4, length=0xff00),  # 65536
            rtp(16, alac_frames("s16_stereo_order30", 1)[0], 5)],
    "proxy": [
        http("GET /proxy?url=http://192.0.2.20:8080/video.mp4?sig=abc HTTP/1.1",
             "Host: 127.0.0.1:4000\r\nAccept: */*\r\nUser-Agent: zor-player\r\n"),
        http("HEAD /video.mp4 HTTP/1.1", "Host: 127.0.0.1:4000\r\nUser-Agent: zor-player/1.0\r\n"),
        http("GET /video.mp4 HTTP/1.1", "Host: 127.0.0.1:4000\r\nRange: bytes=1000-\r\n") +
        http("POST /x HTTP/1.1", "", b"X-Extra: 1"),
    ],
    "player_reply": [player("play"), player("pause"), player("buffering"), player("stop", -1),
                     player("unknown")],
}

for name, seeds in SEEDS.items():
    folder = os.path.join(HERE, "corpus", name)
    os.makedirs(folder, exist_ok=True)
    for i, data in enumerate(seeds):
        with open(os.path.join(folder, "seed-%02d" % i), "wb") as f:
            f.write(data)
