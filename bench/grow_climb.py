# SPDX-License-Identifier: BSD-3-Clause
"""Whether growing ground from seeds climbs into trees: extrapolate and regress on forest data.

For each file (default: bcts_2 and pyfor_test of the shared corpus), keeps a random 10% of the
provider's ground points (class 2) as seeds, sets every other point to class 0, grows ground with
`quorvel extrapolate` and `quorvel regress --candidates 0:1` (their defaults unless options are
given), and reports the points grown and how many of them lie more than 2 m and 5 m above the
provider's terrain (the lowest provider ground point of every 1 m cell, holes filled from their
neighbours; the terrain under a point is that of its cell). The goal: at most 0.5% above 2 m.
Usage: python3 bench/grow_climb.py QUORVEL [FILE ...] [-- extra options for both commands]
"""

import pathlib
import struct
import subprocess
import sys
import tempfile

import numpy as np

FILES = ["/work/shared/data/real/bcts_2.las", "/work/shared/data/real/pyfor_test.las"]


def las_points(data):
    """(records, x, y, z, class byte offset, class mask) of a LAS file's bytes."""
    offset = struct.unpack_from("<I", data, 96)[0]
    fmt = data[104] & 0x3F
    length = struct.unpack_from("<H", data, 105)[0]
    count = struct.unpack_from("<I", data, 107)[0]
    scale = struct.unpack_from("<3d", data, 131)
    origin = struct.unpack_from("<3d", data, 155)
    rec = np.frombuffer(data, dtype=np.uint8, count=count * length, offset=offset)
    rec = rec.reshape(count, length)
    xyz = rec[:, :12].copy().view("<i4").astype(np.float64)
    xyz = xyz * np.array(scale) + np.array(origin)
    return offset, length, fmt, xyz


def classes_of(data):
    offset, length, fmt, xyz = las_points(data)
    rec = np.frombuffer(data, dtype=np.uint8, count=len(xyz) * length, offset=offset)
    rec = rec.reshape(len(xyz), length)
    return rec[:, 16].copy() if fmt >= 6 else rec[:, 15] & 0x1F


def with_classes(data, classes):
    """The file's bytes with new classes."""
    offset, length, fmt, xyz = las_points(data)
    out = bytearray(data)
    rec = np.frombuffer(out, dtype=np.uint8, count=len(xyz) * length, offset=offset)
    rec = rec.reshape(len(xyz), length)
    if fmt >= 6:
        rec[:, 16] = classes
    else:
        rec[:, 15] = (rec[:, 15] & 0xE0) | classes
    return bytes(out)


def terrain(xyz, ground):
    """Lowest ground z per 1 m cell, holes filled by repeated 3 x 3 means; and the cell origin."""
    low = xyz[:, :2].min(axis=0)
    ij = np.floor(xyz[:, :2] - low).astype(np.int64)
    shape = ij.max(axis=0) + 1
    grid = np.full(shape, np.inf)
    np.minimum.at(grid, (ij[ground, 0], ij[ground, 1]), xyz[ground, 2])
    grid[np.isinf(grid)] = np.nan
    while np.isnan(grid).any():
        padded = np.pad(grid, 1, constant_values=np.nan)
        stack = np.stack([padded[1 + di:1 + di + shape[0], 1 + dj:1 + dj + shape[1]]
                          for di in (-1, 0, 1) for dj in (-1, 0, 1)])
        with np.errstate(all="ignore"):
            mean = np.nanmean(stack, axis=0)
        grid = np.where(np.isnan(grid), mean, grid)
    return grid[ij[:, 0], ij[:, 1]]


def main():
    args = sys.argv[1:]
    extra = args[args.index("--") + 1:] if "--" in args else []
    args = args[:args.index("--")] if "--" in args else args
    if not args:
        sys.exit(__doc__)
    quorvel, files = args[0], args[1:] or FILES
    rng = np.random.default_rng(7)
    print(f"{'file':16} {'command':12} {'grown':>8} {'> 2 m':>7} {'% > 2 m':>8} {'> 5 m':>7}")
    with tempfile.TemporaryDirectory() as work:
        for name in files:
            data = pathlib.Path(name).read_bytes()
            provider = classes_of(data)
            _, _, _, xyz = las_points(data)
            height = xyz[:, 2] - terrain(xyz, provider == 2)
            seeds = (provider == 2) & (rng.random(len(provider)) < 0.1)
            seeded = pathlib.Path(work) / "seeded.las"
            seeded.write_bytes(with_classes(data, np.where(seeds, 2, 0).astype(np.uint8)))
            for command in (["extrapolate"], ["regress", "--candidates", "0:1"]):
                out = pathlib.Path(work) / "grown.las"
                subprocess.run([quorvel, "--quiet", *command, str(seeded), "-o", str(out), *extra],
                               check=True)
                grown = (classes_of(out.read_bytes()) == 2) & ~seeds
                n = np.count_nonzero(grown)
                above2 = np.count_nonzero(grown & (height > 2))
                above5 = np.count_nonzero(grown & (height > 5))
                share = 100.0 * above2 / n if n else 0.0
                print(f"{pathlib.Path(name).stem:16} {command[0]:12} {n:8d} {above2:7d} "
                      f"{share:8.2f} {above5:7d}")


if __name__ == "__main__":
    main()
