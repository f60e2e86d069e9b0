#!/usr/bin/env python3
"""tests/alac/make_vectors.py [OUTPUT_DIR]: tests/data/alac/ (NAME.frames behind 4-byte big-endian
lengths, NAME.pcm, vectors.txt) from fixed PCM. ffmpeg only encodes, in 4096-sample frames, so each
352-sample chunk is encoded alone and all but the short last one lose their stated sample count."""

import math
import os
import struct
import subprocess
import sys
import tempfile

FRAME = 352
RATE = 44100

ORDERS = "-min_prediction_order %d -max_prediction_order %d"
# name, bits, channels, full frames, samples of the short last frame, encoder options
VECTORS = [
    ("s16_stereo", 16, 2, 40, 123, ""), ("s16_stereo_order30", 16, 2, 16, 200, ORDERS % (30, 30)),
    ("s16_stereo_order1_30", 16, 2, 16, 7, ORDERS % (1, 30)),
    ("s16_stereo_verbatim", 16, 2, 6, 50, "-compression_level 0"), ("s16_mono", 16, 1, 24, 99, ""),
    ("s24_stereo", 24, 2, 20, 160, ORDERS % (1, 12)), ("s24_mono", 24, 1, 12, 31, "")]
# Passages in turn: tones and chirps (prediction), silence and hiss (low Rice history, zero
# runs), full-scale squares, steps, clicks and noise (escapes, wrapping sums).
PASSAGES = ["tone", "silence", "twotone", "noise", "hiss", "square", "chirp", "steps",
            "loudnoise", "clicks", "tone"]


class Lcg:  # a fixed 32-bit generator, so the PCM never depends on the Python version
    def __init__(self, seed):
        self.state = seed

    def next(self):
        self.state = (self.state * 1664525 + 1013904223) & 0xFFFFFFFF
        return self.state

    def uniform(self, amplitude):  # an integer in -amplitude..amplitude
        return (self.next() >> 8) % (2 * amplitude + 1) - amplitude


def segment(kind, n, bits, channel, rng, start):  # n samples of one channel (mono: None)
    full = (1 << (bits - 1)) - 1
    sine = lambda freq, t: math.sin(2 * math.pi * freq * t / RATE)
    wave = {
        "tone": lambda i, t: 0.5 * full * sine(440.0 if channel == 0 else 660.0, t),
        "twotone": lambda i, t: 0.3 * full * (sine(1000, t) + sine(3100, t)),
        "chirp": lambda i, t: 0.7 * full * math.sin(
            2 * math.pi * (100.0 + 8000.0 * i / n) * i / RATE + (channel or 0)),
        "noise": lambda i, t: rng.uniform(full >> 4),
        "loudnoise": lambda i, t: rng.uniform(full if bits == 16 or channel is None else full >> 5),
        "silence": lambda i, t: 0,
        "hiss": lambda i, t: rng.uniform(1) if rng.next() % 7 == 0 else 0,
        "square": lambda i, t: full if (t // 50) % 2 == 0 else -full - 1,
        "steps": lambda i, t: ((t // 37) * 7919 % 2001 - 1000) * full / 1000,
        "clicks": lambda i, t: (full if channel == 0 else -full - 1) if t % 97 == 0 else 0,
    }[kind]
    return [max(-full - 1, min(full, int(wave(i, start + i)))) for i in range(n)]


def make_pcm(total, bits, channels, seed):  # passage lengths do not align with frames
    rng = Lcg(seed)
    chans = [[] for _ in range(channels)]
    pos = index = 0
    while pos < total:
        n = min(total - pos, 211 + (rng.next() >> 16) % 900)
        for c in range(channels):
            chans[c] += segment(PASSAGES[index % len(PASSAGES)], n, bits,
                                c if channels == 2 else None, rng, pos)
        pos, index = pos + n, index + 1
    samples = [chans[c][i] for i in range(total) for c in range(channels)]
    return b"".join(struct.pack("<i", s)[:bits // 8] for s in samples)


def caf_frame(data):  # the one packet of a CAF file and its ALAC configuration
    chunks, pos = {}, 8
    while pos + 12 <= len(data):
        (size,) = struct.unpack(">q", data[pos + 4:pos + 12])
        end = len(data) if size < 0 else pos + 12 + size
        chunks[data[pos:pos + 4]], pos = data[pos + 12:end], end
    assert struct.unpack(">q", chunks[b"pakt"][:8])[0] == 1, "one frame per chunk"
    kuki = chunks[b"kuki"]
    at = kuki.find(b"alac\0\0\0\0")  # the atom after 'frma'
    return chunks[b"data"][4:], kuki[at + 8:at + 32] if at >= 0 else kuki[:24]


def strip_size(frame):  # clears the has-size bit (19) and drops the count after the header
    bits = "".join(format(b, "08b") for b in frame)
    assert bits[19] == "1", "the frame states its size"
    bits = bits[:19] + "0" + bits[20:23] + bits[55:]
    return bytes(int(bits[i:i + 8], 2) for i in range(0, len(bits), 8))


def encode_chunk(pcm, bits, channels, options, workdir):
    chunk_pcm, chunk_caf = os.path.join(workdir, "chunk.pcm"), os.path.join(workdir, "chunk.caf")
    open(chunk_pcm, "wb").write(pcm)
    subprocess.run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-y", "-f",
                    "s16le" if bits == 16 else "s24le", "-ar", str(RATE), "-ac", str(channels),
                    "-i", chunk_pcm, "-c:a", "alac"] + options.split() + [chunk_caf], check=True)
    return caf_frame(open(chunk_caf, "rb").read())


def make_vector(out_dir, name, bits, channels, full_frames, last, options, seed):  # a manifest line
    total = full_frames * FRAME + last
    pcm = make_pcm(total, bits, channels, seed)
    step = FRAME * channels * bits // 8
    stream, fmtp = bytearray(), None
    with tempfile.TemporaryDirectory() as workdir:
        for start in range(0, len(pcm), step):
            frame, config = encode_chunk(pcm[start:start + step], bits, channels, options, workdir)
            if start + step <= len(pcm):
                frame = strip_size(frame)
            assert len(frame) <= 2048, "%s: a %d-byte frame fits no packet" % (name, len(frame))
            stream += struct.pack(">I", len(frame)) + frame
            if fmtp is None:  # version, depth, pb, mb, kb, channels, max bytes, avg rate, rate
                fmtp = list(struct.unpack(">4xBBBBBB2xIII", config))
                assert fmtp[1:2] + fmtp[5:6] == [bits, channels], fmtp
                fmtp = [96, FRAME] + fmtp[:6] + [255] + fmtp[6:]
    open(os.path.join(out_dir, name + ".frames"), "wb").write(stream)
    open(os.path.join(out_dir, name + ".pcm"), "wb").write(pcm)
    return " ".join(map(str, [name, bits, channels, full_frames + (last > 0), total] + fmtp))


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    out_dir = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "..", "data", "alac")
    os.makedirs(out_dir, exist_ok=True)
    version = subprocess.run(["ffmpeg", "-version"], capture_output=True, text=True,
                             check=True).stdout.splitlines()[0]
    manifest = ["# Made by tests/alac/make_vectors.py with " + version,
                "# name bits channels frames samples fmtp0..fmtp11"]
    manifest += [make_vector(out_dir, *vector, seed) for seed, vector in enumerate(VECTORS, 1)]
    open(os.path.join(out_dir, "vectors.txt"), "w").write("\n".join(manifest) + "\n")


if __name__ == "__main__":
    main()
