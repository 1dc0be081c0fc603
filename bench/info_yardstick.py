#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-3-Clause
"""The yardstick of `quorvel info`: what a user scripts with numpy to learn the same about a LAS
file (header facts by struct, then one pass over the records for the points' bounds, returns and
classes). Usage: info_yardstick.py FILE.las"""
import struct
import sys

import numpy as np


def main(path):
    with open(path, "rb") as f:
        data = f.read()
    minor = data[25]
    offset, _, fmt, length, legacy = struct.unpack_from("<IIBHI", data, 96)
    fmt &= 0x3F
    count = struct.unpack_from("<Q", data, 247)[0] if minor >= 4 else legacy
    scale = np.array(struct.unpack_from("<3d", data, 131))
    origin = np.array(struct.unpack_from("<3d", data, 155))
    records = np.frombuffer(data, np.uint8, count * length, offset).reshape(count, length)
    xyz = records[:, :12].copy().view("<i4").astype(float) * scale + origin
    if fmt >= 6:
        returns = records[:, 14] & 0x0F
        classes = records[:, 16]
    else:
        returns = records[:, 14] & 0x07
        classes = records[:, 15] & 0x1F
    print("points:", count)
    print("bounds:", xyz.min(axis=0), xyz.max(axis=0))
    print("returns:", np.bincount(returns, minlength=16)[1:])
    print("classes:", {c: n for c, n in enumerate(np.bincount(classes)) if n})


if __name__ == "__main__":
    main(sys.argv[1])
