#!/usr/bin/env python3
"""Makes the ALAC test streams in tests/data/alac/ from deterministic PCM.

ffmpeg serves only as the encoder and CAF muxer; nothing is ever decoded by it, and ALAC is
lossless, so each stream's oracle is the PCM it was made from. ffmpeg 5.1 writes 4096-sample
frames whatever -frame_size says, so the PCM is cut into 352-sample chunks (an AirTunes frame)
encoded one by one (see encode_chunk). Each chunk's frame states its sample count; for a full
chunk the has-size bit is cleared and the count removed, giving the frame a 352-sample encoder
writes; a short last chunk keeps both, as a real stream's last frame does.

Output per vector NAME: NAME.frames (each frame behind its 4-byte big-endian length), NAME.pcm
(the source, little-endian, interleaved) and a line in vectors.txt:
    NAME BITS CHANNELS FRAMES SAMPLES FMTP0 ... FMTP11   (the SDP "a=fmtp:" numbers)

Usage: tests/alac/make_vectors.py [OUTPUT_DIR]   (default: tests/data/alac next to this script)
"""

import math
import os
import struct
import subprocess
import sys
import tempfile

FRAME = 352
RATE = 44100

# name, bits, channels, full frames, samples of the short last frame, encoder options
VECTORS = [
    ("s16_stereo", 16, 2, 40, 123, []),
    ("s16_stereo_order30", 16, 2, 16, 200,
     ["-min_prediction_order", "30", "-max_prediction_order", "30"]),
    ("s16_stereo_order1_30", 16, 2, 16, 7,
     ["-min_prediction_order", "1", "-max_prediction_order", "30"]),
    ("s16_stereo_verbatim", 16, 2, 6, 50, ["-compression_level", "0"]),
    ("s16_mono", 16, 1, 24, 99, []),
    ("s24_stereo", 24, 2, 20, 160, ["-min_prediction_order", "1", "-max_prediction_order", "12"]),
    ("s24_mono", 24, 1, 12, 31, []),
]


class Lcg:
    """A fixed 32-bit generator, so the PCM never depends on the Python version."""
    def __init__(self, seed):
        self.state = seed & 0xFFFFFFFF

    def next(self):
        self.state = (self.state * 1664525 + 1013904223) & 0xFFFFFFFF
        return self.state

    def uniform(self, amplitude):  # an integer in -amplitude..amplitude
        return (self.next() >> 8) % (2 * amplitude + 1) - amplitude


def clamp(value, bits):
    top = (1 << (bits - 1)) - 1
    return max(-top - 1, min(top, int(value)))


def segment(kind, n, bits, channel, rng, start):
    """n samples of one channel of a passage; start is the passage's first sample index."""
    full = (1 << (bits - 1)) - 1
    out = []
    for i in range(n):
        t = start + i
        if kind == "tone":
            freq = 440.0 if channel == 0 else 660.0
            v = 0.5 * full * math.sin(2 * math.pi * freq * t / RATE)
        elif kind == "twotone":  # the same on both channels: decorrelation pays off
            v = 0.3 * full * (math.sin(2 * math.pi * 1000 * t / RATE) +
                              math.sin(2 * math.pi * 3100 * t / RATE))
        elif kind == "chirp":
            freq = 100.0 + 8000.0 * i / n
            v = 0.7 * full * math.sin(2 * math.pi * freq * i / RATE + (channel or 0))
        elif kind == "noise":
            v = rng.uniform(full >> 4)
        elif kind == "loudnoise":
            v = rng.uniform(full if bits == 16 or channel is None else full >> 5)
        elif kind == "silence":
            v = 0
        elif kind == "hiss":  # near silence: Rice history drops low, zero runs appear
            v = rng.uniform(1) if rng.next() % 7 == 0 else 0
        elif kind == "square":  # full scale, flipping between the extremes
            v = full if (t // 50) % 2 == 0 else -full - 1
        elif kind == "steps":  # abrupt jumps between unrelated levels
            v = ((t // 37) * 7919 % 2001 - 1000) * full / 1000
        elif kind == "clicks":
            v = (full if channel == 0 else -full - 1) if t % 97 == 0 else 0
        else:
            raise ValueError(kind)
        out.append(clamp(v, bits))
    return out


PASSAGES = ["tone", "silence", "twotone", "noise", "hiss", "square", "chirp", "steps",
            "loudnoise", "clicks", "tone"]


def make_pcm(total, bits, channels, seed):
    """Interleaved samples: the passages in turn, lengths chosen not to align with frames."""
    rng = Lcg(seed)
    chans = [[] for _ in range(channels)]
    pos = index = 0
    while pos < total:
        kind = PASSAGES[index % len(PASSAGES)]
        n = min(total - pos, 211 + (rng.next() >> 16) % 900)
        for c in range(channels):
            # Mono passes channel None: loud noise is then full scale in 24 bits too.
            chans[c] += segment(kind, n, bits, c if channels == 2 else None, rng, pos)
        pos += n
        index += 1
    return [chans[c][i] for i in range(total) for c in range(channels)]


def pack_pcm(samples, bits):
    if bits == 16:
        return struct.pack("<%dh" % len(samples), *samples)
    return b"".join(struct.pack("<i", s)[:3] for s in samples)


def caf_chunks(data):
    """(type, payload) of every chunk of a CAF file."""
    if data[:4] != b"caff":
        raise ValueError("not a CAF file")
    pos = 8
    while pos + 12 <= len(data):
        kind = data[pos:pos + 4]
        (size,) = struct.unpack(">q", data[pos + 4:pos + 12])
        payload = data[pos + 12:] if size < 0 else data[pos + 12:pos + 12 + size]
        yield kind, payload
        pos += 12 + len(payload)


def read_varint(data, pos):
    value = 0
    while True:
        value, pos = (value << 7) | (data[pos] & 0x7F), pos + 1
        if data[pos - 1] < 0x80:
            return value, pos


def caf_frames(data):
    """The raw packets of a CAF file, and its ALAC configuration (24 bytes)."""
    chunks = dict(caf_chunks(data))
    pakt = chunks[b"pakt"]
    (packets,) = struct.unpack(">q", pakt[:8])
    sizes = []
    pos = 24  # packet count, valid frames, priming and remainder frames
    for _ in range(packets):
        size, pos = read_varint(pakt, pos)
        sizes.append(size)
    audio = chunks[b"data"][4:]  # after the edit count
    frames = []
    for size in sizes:
        frames.append(audio[:size])
        audio = audio[size:]
    kuki = chunks[b"kuki"]
    at = kuki.find(b"alac")
    while at >= 0 and kuki[at + 4:at + 8] != b"\0\0\0\0":  # the atom after 'frma'
        at = kuki.find(b"alac", at + 1)
    config = kuki[at + 8:at + 32] if at >= 0 else kuki[:24]
    return frames, config


def strip_size(frame):
    """Clears the has-size bit (bit 19) and removes the 32-bit count after the header."""
    bits = "".join(format(b, "08b") for b in frame)
    if bits[19] != "1":
        raise ValueError("frame does not state its size")
    bits = bits[:19] + "0" + bits[20:23] + bits[55:]
    return bytes(int(bits[i:i + 8], 2) for i in range(0, len(bits), 8))


def encode_chunk(pcm, bits, channels, options, workdir):
    chunk_pcm = os.path.join(workdir, "chunk.pcm")
    chunk_caf = os.path.join(workdir, "chunk.caf")
    open(chunk_pcm, "wb").write(pcm)
    fmt = "s16le" if bits == 16 else "s24le"
    subprocess.run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-y", "-f", fmt,
                    "-ar", str(RATE), "-ac", str(channels), "-i", chunk_pcm, "-c:a", "alac"] +
                   options + [chunk_caf], check=True)
    with open(chunk_caf, "rb") as f:
        frames, config = caf_frames(f.read())
    if len(frames) != 1:
        raise ValueError("expected one frame per chunk, got %d" % len(frames))
    return frames[0], config


def fmtp_line(config, bits, channels):
    """The SDP fmtp numbers of the stream, from the encoder's configuration."""
    (_, version, depth, pb, mb, kb, chans, _, max_bytes, avg_rate, rate) = struct.unpack(
        ">IBBBBBBHIII", config)
    assert depth == bits and chans == channels, (depth, chans)
    return [96, FRAME, version, depth, pb, mb, kb, chans, 255, max_bytes, avg_rate, rate]


def make_vector(out_dir, name, bits, channels, full_frames, last, options, seed, manifest):
    total = full_frames * FRAME + last
    samples = make_pcm(total, bits, channels, seed)
    pcm = pack_pcm(samples, bits)
    step = FRAME * channels * bits // 8
    stream = bytearray()
    fmtp = None
    with tempfile.TemporaryDirectory() as workdir:
        for start in range(0, len(pcm), step):
            frame, config = encode_chunk(pcm[start:start + step], bits, channels, options,
                                         workdir)
            if start + step <= len(pcm):
                frame = strip_size(frame)
            if len(frame) > 2048:
                raise ValueError("%s: a %d-byte frame does not fit a packet" % (name, len(frame)))
            stream += struct.pack(">I", len(frame)) + frame
            fmtp = fmtp or fmtp_line(config, bits, channels)
    open(os.path.join(out_dir, name + ".frames"), "wb").write(stream)
    open(os.path.join(out_dir, name + ".pcm"), "wb").write(pcm)
    frames = full_frames + (1 if last else 0)
    manifest.append("%s %d %d %d %d %s" % (name, bits, channels, frames, total,
                                           " ".join(str(v) for v in fmtp)))
    print("%-22s %3d frames, %6d bytes of frames" % (name, frames, len(stream)))


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    out_dir = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "..", "data", "alac")
    os.makedirs(out_dir, exist_ok=True)
    version = subprocess.run(["ffmpeg", "-version"], capture_output=True, text=True,
                             check=True).stdout.splitlines()[0]
    manifest = ["# Made by tests/alac/make_vectors.py with " + version,
                "# name bits channels frames samples fmtp0..fmtp11"]
    for seed, (name, bits, channels, full_frames, last, options) in enumerate(VECTORS, 1):
        make_vector(out_dir, name, bits, channels, full_frames, last, options, seed, manifest)
    with open(os.path.join(out_dir, "vectors.txt"), "w") as f:
        f.write("\n".join(manifest) + "\n")


if __name__ == "__main__":
    main()
