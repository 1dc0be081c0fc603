#!/usr/bin/python3
# SPDX-License-Identifier: BSD-3-Clause
"""Writes OUT.las: the points of IN.las with GPS times that take every way the LAZ coders code a
time: steps like the last, a quarter of it, multiples up to and beyond 500, backwards, repeated
times, and jumps too large for 32 bits (also as the first step of a chunk of 100 points).

    scripts/make_time_sample.py IN.las OUT.las
"""
import random
import struct
import sys

def steps(count, rnd):
    """The differences of the times' 64-bit patterns."""
    unit = 1000
    for i in range(count):
        kind = rnd.random()
        if i % 300 == 1:
            yield rnd.choice([1, -1]) * (1 << 36)
        elif kind < 0.45:
            yield unit + (rnd.randint(-3, 3) if kind < 0.1 else 0)
        elif kind < 0.5:
            yield unit * rnd.randint(2, 9)
        elif kind < 0.55:
            yield unit * rnd.randint(10, 49)
        elif kind < 0.6:
            yield unit * rnd.randint(50, 508)
        elif kind < 0.7:
            yield unit * rnd.randint(509, 2000)
        elif kind < 0.75:
            yield -unit * rnd.randint(1, 20)
        elif kind < 0.85:
            yield unit // rnd.randint(3, 50)
        elif kind < 0.95:
            yield 0
        else:
            yield rnd.choice([1, -1]) * rnd.randint(1 << 32, 1 << 38)


def main():
    data = bytearray(open(sys.argv[1], "rb").read())
    offset, = struct.unpack_from("<I", data, 96)
    fmt, length, count = data[104] & 0x3F, *struct.unpack_from("<HI", data, 105)
    assert fmt in (1, 3, 4, 5) or fmt >= 6, "the point format has no GPS time"
    at = 20 if fmt < 6 else 22
    pattern, = struct.unpack("<q", struct.pack("<d", 3.0e8))
    for i, step in enumerate(steps(count, random.Random(7))):
        pattern += step if i else 0
        struct.pack_into("<q", data, offset + i * length + at, pattern)
    open(sys.argv[2], "wb").write(data)


if __name__ == "__main__":
    main()
