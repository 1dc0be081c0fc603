#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-3-Clause
# The end-to-end yardstick of `quorvel transfer SOURCE.las TARGET.las -o OUT.las --bands 1`: the
# same job done by numpy and scipy. Both LAS files are read with np.frombuffer over a structured
# dtype built from the header, scipy's cKDTree is built over the source x, y, z, each target point
# takes the class of its nearest source point within 1 m (inclusive, one thread), and the target
# is written back with its header, VLRs and records as they were, only the class replaced.
# Needs python3-numpy and python3-scipy (Debian: apt-get install python3-scipy); not part of the
# build.
#
#   transfer_yardstick.py SOURCE TARGET -o OUT   the job above (--file-order: untuned queries)
#   transfer_yardstick.py --make SOURCE TARGET   two airborne-like clouds of LAS 1.4 format 6
#   transfer_yardstick.py --compare A B          do two LAS files hold the same points and classes?
import argparse
import struct
import sys

import numpy as np

XYZ = [("X", "<i4"), ("Y", "<i4"), ("Z", "<i4")]
LEGACY = [("intensity", "<u2"), ("bits", "u1"), ("classification", "u1"),
          ("scan_angle_rank", "i1"), ("user_data", "u1"), ("point_source_id", "<u2")]
EXTENDED = [("intensity", "<u2"), ("returns", "u1"), ("flags", "u1"), ("classification", "u1"),
            ("user_data", "u1"), ("scan_angle", "<i2"), ("point_source_id", "<u2"),
            ("gps_time", "<f8")]
GPS = [("gps_time", "<f8")]
RGB = [("red", "<u2"), ("green", "<u2"), ("blue", "<u2")]
NIR = [("nir", "<u2")]
WAVE = [("wave_index", "u1"), ("wave_offset", "<u8"), ("wave_size", "<u4"),
        ("wave_location", "<f4"), ("wave_x", "<f4"), ("wave_y", "<f4"), ("wave_z", "<f4")]
FORMATS = {
    0: XYZ + LEGACY, 1: XYZ + LEGACY + GPS, 2: XYZ + LEGACY + RGB,
    3: XYZ + LEGACY + GPS + RGB, 4: XYZ + LEGACY + GPS + WAVE,
    5: XYZ + LEGACY + GPS + RGB + WAVE, 6: XYZ + EXTENDED, 7: XYZ + EXTENDED + RGB,
    8: XYZ + EXTENDED + RGB + NIR, 9: XYZ + EXTENDED + WAVE,
    10: XYZ + EXTENDED + RGB + NIR + WAVE,
}


class Las:
    """A LAS file in memory: its bytes, the header values needed here and a structured view of
    its point records (writing to the view writes to the bytes)."""

    def __init__(self, path):
        self.raw = np.fromfile(path, dtype=np.uint8)
        head = self.raw[:375].tobytes()
        if len(head) < 227 or head[:4] != b"LASF":
            sys.exit(f"{path}: not a LAS file")
        self.minor = head[25]
        self.point_offset, = struct.unpack_from("<I", head, 96)
        self.format = head[104] & 0x3F  # the upper bits flag compression
        self.record_length, count = struct.unpack_from("<HI", head, 105)
        if self.minor >= 4:
            count, = struct.unpack_from("<Q", head, 247)
        self.scale = np.array(struct.unpack_from("<3d", head, 131))
        self.offset = np.array(struct.unpack_from("<3d", head, 155))
        if self.format not in FORMATS:
            sys.exit(f"{path}: point format {self.format} is not handled")
        dtype = np.dtype(FORMATS[self.format])
        extra = self.record_length - dtype.itemsize
        if extra < 0:
            sys.exit(f"{path}: records of {self.record_length} bytes are too short for format "
                     f"{self.format}")
        if extra:
            dtype = np.dtype(FORMATS[self.format] + [("extra", f"V{extra}")])
        end = self.point_offset + count * self.record_length
        if end > self.raw.size:
            sys.exit(f"{path}: the point records run past the end of the file")
        self.points = np.frombuffer(self.raw[self.point_offset:end], dtype=dtype, count=count)
        self.points.flags.writeable = True

    def xyz(self):
        p = self.points
        return np.column_stack([p["X"] * self.scale[0] + self.offset[0],
                                p["Y"] * self.scale[1] + self.offset[1],
                                p["Z"] * self.scale[2] + self.offset[2]])

    # Formats 0 to 5 keep the class in the low five bits, beside three flags.
    def classes(self):
        c = self.points["classification"]
        return c if self.format >= 6 else c & 0x1F

    def set_classes(self, values):
        if self.format >= 6:
            self.points["classification"] = values
        else:
            c = self.points["classification"]
            self.points["classification"] = (c & 0xE0) | (values & 0x1F)

    def write(self, path):
        self.raw.tofile(path)


def transfer(source_path, target_path, out_path, radius=1.0, file_order=False):
    from scipy.spatial import cKDTree

    source, target = Las(source_path), Las(target_path)
    tree = cKDTree(source.xyz())
    queries = target.xyz()
    # Queries in file order of a shuffled or interleaved file jump across the tree and miss the
    # caches: asking them row by row of 4 m cells makes the query about four times faster here,
    # which is what a user who tunes the script would do.
    order = None
    if not file_order:
        cells = np.floor((queries[:, :2] - queries[:, :2].min(axis=0)) / 4.0).astype(np.int64)
        order = np.argsort(cells[:, 1] * (cells[:, 0].max() + 1) + cells[:, 0], kind="stable")
        queries = queries[order]
    # cKDTree's bound is exclusive; the transfer's radius is inclusive.
    _, nearest = tree.query(queries, k=1, workers=1,
                            distance_upper_bound=np.nextafter(radius, np.inf))
    if order is not None:
        nearest[order] = nearest.copy()
    found = nearest < len(source.points)
    classes = target.classes().copy()
    classes[found] = source.classes()[nearest[found]]
    target.set_classes(classes)
    target.write(out_path)


def cloud(seed, n):
    """The airborne-like cloud of bench/ckdtree_transfer.py: 400 m x 400 m, ~0.4 m spacing at
    1M points, a gently sloping ground with 0.3 m of noise."""
    random = np.random.default_rng(seed)
    x = random.uniform(0, 400, n)
    y = random.uniform(0, 400, n)
    z = 200 + 0.02 * x + random.normal(0, 0.3, n)
    return np.column_stack([5e5 + x, 5.4e6 + y, z]), random


def write_format6(path, xyz, classes, random):
    """A LAS 1.4 file of point format 6 with one WKT record, as an airborne survey would have."""
    n = len(xyz)
    scale = np.array([0.001, 0.001, 0.001])
    offset = np.floor(xyz.min(axis=0))
    integer = np.round((xyz - offset) / scale).astype("<i4")
    wkt = b'PROJCS["WGS 84 / UTM zone 33N",AUTHORITY["EPSG","32633"]]\0'
    vlr = struct.pack("<H16sHH32s", 0, b"LASF_Projection", 2112, len(wkt), b"WKT") + wkt
    points = np.zeros(n, dtype=np.dtype(XYZ + EXTENDED))
    points["X"], points["Y"], points["Z"] = integer.T
    points["intensity"] = random.integers(0, 4096, n)
    points["returns"] = 0x11  # return 1 of 1
    points["classification"] = classes
    points["point_source_id"] = 7
    points["gps_time"] = 3.5e8 + np.arange(n) * 1e-5
    actual = integer * scale + offset
    counts_by_return = [n] + [0] * 14
    header = struct.pack(
        "<4sHH16sBB32s32sHHHIIBHI5I3d3d6dQQIQ15Q",
        b"LASF", 0, 0x10, bytes(16), 1, 4, b"Quorvel bench", b"transfer_yardstick.py", 200,
        2026, 375, 375 + len(vlr), 1, 6, 30, 0, 0, 0, 0, 0, 0, *scale, *offset,
        actual[:, 0].max(), actual[:, 0].min(), actual[:, 1].max(), actual[:, 1].min(),
        actual[:, 2].max(), actual[:, 2].min(), 0, 0, 0, n, *counts_by_return)
    assert len(header) == 375
    with open(path, "wb") as out:
        out.write(header)
        out.write(vlr)
        points.tofile(out)


def make(source_path, target_path, n):
    xyz, random = cloud(1, n)
    # Ground, low and high vegetation by height above the slope, and square roofs of buildings.
    above = xyz[:, 2] - (200 + 0.02 * (xyz[:, 0] - 5e5))
    classes = np.where(above < 0.2, 2, np.where(above < 0.5, 3, 5)).astype(np.uint8)
    roofs = ((xyz[:, 0] % 50) < 15) & ((xyz[:, 1] % 60) < 20)
    classes[roofs] = 6
    write_format6(source_path, xyz, classes, random)
    xyz, random = cloud(2, n)
    write_format6(target_path, xyz, np.zeros(n, np.uint8), random)


def compare(a_path, b_path):
    a, b = Las(a_path), Las(b_path)
    if len(a.points) != len(b.points):
        print(f"{len(a.points)} points against {len(b.points)}")
        return 1
    same_place = np.allclose(a.xyz(), b.xyz(), rtol=0, atol=1e-9)
    agree = int(np.count_nonzero(a.classes() == b.classes()))
    n = len(a.points)
    print(f"classes agree on {agree} of {n} points ({100.0 * agree / max(n, 1):.4f} %); "
          f"positions {'identical' if same_place else 'DIFFER'}")
    for k in np.flatnonzero(a.classes() != b.classes())[:5]:
        print(f"  point {k}: class {a.classes()[k]} against {b.classes()[k]}")
    return 0 if agree == n and same_place else 1


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("files", nargs="*")
    parser.add_argument("-o", "--output")
    parser.add_argument("--make", action="store_true", help="write SOURCE and TARGET clouds")
    parser.add_argument("--points", type=int, default=1_000_000, help="points per cloud (--make)")
    parser.add_argument("--compare", action="store_true", help="compare the classes of A and B")
    parser.add_argument("--file-order", action="store_true",
                        help="query the target points in file order (the untuned script)")
    args = parser.parse_args()
    if len(args.files) != 2 or (not args.make and not args.compare and not args.output):
        parser.error("give SOURCE TARGET -o OUT, --make SOURCE TARGET or --compare A B")
    if args.make:
        make(*args.files, args.points)
    elif args.compare:
        return compare(*args.files)
    else:
        transfer(*args.files, args.output, file_order=args.file_order)
    return 0


if __name__ == "__main__":
    sys.exit(main())
