#!/usr/bin/python3
# SPDX-License-Identifier: BSD-3-Clause
"""Writes small synthetic LAS files with wave packets (point formats 4, 5, 9, 10): the records
that the LAZ tests compare against after LASzip compressed them. Every way the LAZ coder can
place a waveform offset occurs (the same as the last, right after the last packet, a 32-bit step,
a step beyond 32 bits), and formats 9 and 10 switch among all four scanner channels and back.

    scripts/make_wave_samples.py OUTDIR
"""
import random
import struct
import sys
from pathlib import Path

HEADER = {3: 235, 4: 375}
LAYOUT = {  # format: (record length, wave packet at, has rgb, has nir, extended)
    4: (57, 28, False, False, False),
    5: (63, 34, True, False, False),
    9: (59, 30, False, False, True),
    10: (67, 38, True, True, True),
}


def vlr(user, record, data, description=b""):
    return (struct.pack("<H16sHH32s", 0, user, record, len(data), description) + data)


def descriptors():
    out = b""
    for k in range(1, 4):  # bits, compression, samples, spacing (ps), gain, offset
        out += vlr(b"LASF_Spec", 99 + k, struct.pack("<BBIIdd", 8, 0, 60 * k, 1000, 0.5, 0.0))
    return out


def extra_bytes_vlr():
    # One uint16 dimension: reserved, data type 3, options, name, unused, then the no-data, min,
    # max, scale and offset triples and a description.
    record = struct.pack("<2sBB32s4s", b"\0\0", 3, 0, b"Extra", b"") + b"\0" * 24 * 5
    record += struct.pack("<32s", b"a synthetic extra dimension")
    return vlr(b"LASF_Spec", 4, record)


def wave_packet(rnd, last):
    offset, size = last
    kind = rnd.random()
    if kind < 0.2:
        pass  # the waveform of the last point again
    elif kind < 0.7:
        offset += size  # right after the last packet
    elif kind < 0.95:
        offset += rnd.randint(-40000, 40000)  # a 32-bit step
    else:
        offset += rnd.randint(1 << 33, 1 << 40)  # beyond 32 bits
    if rnd.random() < 0.1:
        size = rnd.choice([120, 240, 480, rnd.randint(1, 5000)])
    index = 0 if rnd.random() < 0.1 else rnd.randint(1, 3)
    floats = (rnd.uniform(0, 5000), rnd.uniform(-1e-4, 1e-4), rnd.uniform(-1e-4, 1e-4),
              rnd.uniform(-1.5e-4, -1e-4))
    return struct.pack("<BQI4f", index, offset, size, *floats), (offset, size)


def records(fmt, count, extra, rnd):
    length, wave_at, rgb, nir, extended = LAYOUT[fmt]
    out = bytearray()
    x, y, z, t = 500000, 4000000, 10000, 3.0e8
    last = (1 << 20, 240)
    channel = 0
    bounds = [[1 << 31, -(1 << 31)] for _ in range(3)]
    for i in range(count):
        x += rnd.randint(-30, 60)
        y += rnd.randint(-20, 20)
        z += rnd.randint(-300, 300)
        for a, v in enumerate((x, y, z)):
            bounds[a] = [min(bounds[a][0], v), max(bounds[a][1], v)]
        if rnd.random() < 0.9:
            t += rnd.choice([1e-5, 2e-5, 1e-5, 0.0])
        n = rnd.randint(1, 5)
        r = rnd.randint(1, n)
        cls = 2 if rnd.random() < 0.6 else rnd.randint(0, 18)
        rec = struct.pack("<iiiH", x, y, z, rnd.randint(0, 600))
        if extended:
            if i % 150 == 0:
                channel = rnd.choice([c for c in range(4) if c != channel])
            flags = (rnd.random() < 0.05) | (channel << 4) | (rnd.randint(0, 1) << 6)
            rec += struct.pack("<BBBBhHd", r | n << 4, flags, cls, rnd.randint(0, 3),
                               rnd.randint(-3000, 3000), 7 + i // 1000, t)
        else:
            rec += struct.pack("<BBbBHd", r | n << 3 | rnd.randint(0, 1) << 6, cls,
                               rnd.randint(-30, 30), rnd.randint(0, 3), 7 + i // 1000, t)
        if rgb:
            base = (i // 40) * 97 % 60000
            rec += struct.pack("<HHH", base, base + rnd.randint(0, 256), base // 2)
        if nir:
            rec += struct.pack("<H", (i // 25) * 31 % 65000)
        assert len(rec) == wave_at
        packet, last = wave_packet(rnd, last)
        rec += packet
        assert len(rec) == length
        if extra:
            rec += struct.pack("<H", (i // 10) % 500)
        out += rec
    return bytes(out), bounds


def las(fmt, count, extra, seed):
    rnd = random.Random(seed)
    minor = 3 if fmt < 6 else 4
    vlrs = descriptors() + (extra_bytes_vlr() if extra else b"")
    data, bounds = records(fmt, count, extra, rnd)
    length = LAYOUT[fmt][0] + (2 if extra else 0)
    size = HEADER[minor]
    scale, offset = 0.01, 0.0
    h = struct.pack("<4sHH16sBB32s32sHHHIIBHI", b"LASF", 0, 4, b"\0" * 16, 1, minor,
                    b"synthetic", b"make-wave-samples", 330, 2026, size, size + len(vlrs),
                    3 + int(extra), fmt, length,
                    count if minor == 3 else 0)
    h += struct.pack("<5I", *([count, 0, 0, 0, 0] if minor == 3 else [0] * 5))
    h += struct.pack("<3d3d", scale, scale, scale, offset, offset, offset)
    for a in range(3):
        h += struct.pack("<dd", bounds[a][1] * scale, bounds[a][0] * scale)
    h += struct.pack("<Q", 0)  # the start of waveform data: none in the file
    if minor == 4:
        h += struct.pack("<QIQ15Q", 0, 0, count, count, *([0] * 14))
    assert len(h) == size
    return h + vlrs + data


def main():
    out = Path(sys.argv[1])
    out.mkdir(parents=True, exist_ok=True)
    for fmt, extra in ((4, False), (5, True), (9, False), (10, True)):
        (out / f"wave{fmt}.las").write_bytes(las(fmt, 1500, extra, fmt))


if __name__ == "__main__":
    main()
