# SPDX-License-Identifier: BSD-3-Clause
"""LAS files made by the benchmark scripts: the header over point records already packed in a
numpy structured array whose first three fields are the integer X, Y, Z."""
import struct


def write_las(path, records, offset=(0.0, 0.0, 0.0), scale=0.01, point_format=1, returns=(),
              software=b""):
    """Writes records as LAS 1.2 (point formats 0 to 5) or 1.4 (6 and up), with the bounds worked
    out from the records and `returns` as the counts of points by return number (first, second,
    ...; left zero when not given)."""
    n = len(records)
    extended = point_format >= 6
    size = 375 if extended else 227
    header = bytearray(size)
    header[0:4] = b"LASF"
    header[24], header[25] = 1, 4 if extended else 2
    header[58:58 + len(software)] = software
    struct.pack_into("<HI", header, 94, size, size)
    header[104] = point_format
    struct.pack_into("<H", header, 105, records.dtype.itemsize)
    struct.pack_into("<3d", header, 131, scale, scale, scale)
    struct.pack_into("<3d", header, 155, *offset)
    names = records.dtype.names[:3]
    lo = [records[a].min() * scale + o for a, o in zip(names, offset)] if n else [0.0] * 3
    hi = [records[a].max() * scale + o for a, o in zip(names, offset)] if n else [0.0] * 3
    struct.pack_into("<6d", header, 179, hi[0], lo[0], hi[1], lo[1], hi[2], lo[2])
    if extended:
        struct.pack_into("<Q", header, 247, n)
        struct.pack_into("<15Q", header, 255, *(list(returns) + [0] * 15)[:15])
    else:
        struct.pack_into("<I5I", header, 107, n, *(list(returns) + [0] * 5)[:5])
    with open(path, "wb") as out:
        out.write(header)
        records.tofile(out)
    return lo, hi
