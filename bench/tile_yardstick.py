# SPDX-License-Identifier: BSD-3-Clause
"""quorvel tile, merge and box reads on generated surveys, against numpy doing the same by hand.

Generates LAS 1.4 point-format-6 files of N points at one density (10 points per square metre,
so more points cover more ground), then times as whole processes, each run's peak resident
memory from the kernel's accounting:
  - quorvel tile (LAS in and out, LAZ in and out) and quorvel merge of the tiles;
  - numpy: the whole file read with np.fromfile, the tile of every point computed, each tile's
    records written (what users do by hand today): the yardstick;
  - reading a box of 1% of the points from COPC and from plain LAZ, against reading all of it.
Usage: python3 bench/tile_yardstick.py QUORVEL WORKDIR [N ...]   (default N: 2000000 16000000)
"""

import os
import pathlib
import resource
import subprocess
import sys
import time

import numpy as np

from lasfile import write_las
DENSITY = 10.0  # points per square metre
TILE = 250.0


def make_las(path, n, seed=1):
    """A LAS 1.4 format 6 file of n points spread over a square at DENSITY."""
    side = (n / DENSITY) ** 0.5
    rng = np.random.default_rng(seed)
    rec = np.zeros(n, dtype=[("x", "<i4"), ("y", "<i4"), ("z", "<i4"), ("i", "<u2"),
                             ("r", "u1"), ("f", "u1"), ("c", "u1"), ("u", "u1"),
                             ("a", "<i2"), ("s", "<u2"), ("t", "<f8")])
    rec["x"] = rng.integers(0, int(side * 100), n)
    rec["y"] = rng.integers(0, int(side * 100), n)
    rec["z"] = rng.integers(0, 5000, n)
    rec["i"] = rng.integers(0, 4000, n)
    rec["r"] = 0x11
    rec["c"] = rng.integers(1, 7, n)
    rec["t"] = np.sort(rng.random(n)) * 1000
    return write_las(path, rec, offset=(500000.0, 4000000.0, 0.0), point_format=6, returns=[n])


NUMPY_TILE = r"""
import numpy as np, struct, sys, os
src, out, size = sys.argv[1], sys.argv[2], float(sys.argv[3])
b = open(src, "rb").read()
offset, = struct.unpack_from("<I", b, 96); length, = struct.unpack_from("<H", b, 105)
n, = struct.unpack_from("<Q", b, 247)
scale = struct.unpack_from("<3d", b, 131); off = struct.unpack_from("<3d", b, 155)
rec = np.frombuffer(b, dtype=np.dtype((np.void, length)), count=n, offset=offset)
x = np.ndarray((n,), dtype="<i4", buffer=b, offset=offset, strides=(length,))
y = np.ndarray((n,), dtype="<i4", buffer=b, offset=offset + 4, strides=(length,))
tx = np.floor((x * scale[0] + off[0]) / size).astype(np.int64)
ty = np.floor((y * scale[1] + off[1]) / size).astype(np.int64)
key = tx * 1000003 + ty
order = np.argsort(key, kind="stable")
keys, starts = np.unique(key[order], return_index=True)
os.makedirs(out, exist_ok=True)
head = bytearray(b[:offset])
for k, (s, e) in enumerate(zip(starts, list(starts[1:]) + [n])):
    part = rec[order[s:e]]
    struct.pack_into("<Q", head, 247, e - s)
    with open(os.path.join(out, "%d.las" % k), "wb") as f:
        f.write(head); f.write(part.tobytes())
"""


def timed(cmd):
    """Wall seconds and peak resident MB of one run of cmd as a fresh process."""
    start = time.perf_counter()
    before = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
    wrapped = ["/usr/bin/time", "-f", "%M"] + cmd
    done = subprocess.run(wrapped, capture_output=True, text=True)
    wall = time.perf_counter() - start
    if done.returncode != 0:
        sys.exit("failed: %s\n%s" % (" ".join(cmd), done.stderr))
    rss_kb = int(done.stderr.strip().splitlines()[-1])
    del before
    return wall, rss_kb / 1024


def report(what, n, wall, rss, yard=None):
    line = "%-34s %6.2f s %7.1f M points/s %7.0f MB peak" % (what, wall, n / wall / 1e6, rss)
    if yard:
        line += "   ratio to numpy %.2f" % (wall / yard)
    print(line, flush=True)


def main():
    quorvel, work = sys.argv[1], pathlib.Path(sys.argv[2])
    sizes = [int(a) for a in sys.argv[3:]] or [2000000, 16000000]
    work.mkdir(parents=True, exist_ok=True)
    for n in sizes:
        las = work / ("cloud%d.las" % n)
        mins, maxs = make_las(las, n)
        print("-- %d points, %.0f MB" % (n, las.stat().st_size / 1e6), flush=True)
        subprocess.run(["rm", "-rf", str(work / "t"), str(work / "np"), str(work / "tz")])
        yard, yrss = timed([sys.executable, "-c", NUMPY_TILE, str(las), str(work / "np"),
                            str(TILE)])
        report("numpy tile LAS (yardstick)", n, yard, yrss)
        wall, rss = timed([quorvel, "-q", "tile", str(las), "-o", str(work / "t"), "--size",
                           str(TILE)])
        report("quorvel tile LAS", n, wall, rss, yard)
        tiles = sorted(str(p) for p in (work / "t").glob("*.las"))
        wall, rss = timed([quorvel, "-q", "merge", *tiles, "-o", str(work / "m.las")])
        report("quorvel merge LAS", n, wall, rss)
        laz = work / ("cloud%d.laz" % n)
        subprocess.run([quorvel, "-q", "convert", str(las), str(laz)], check=True)
        wall, rss = timed([quorvel, "-q", "tile", str(laz), "-o", str(work / "tz"), "--size",
                           str(TILE)])
        report("quorvel tile LAZ", n, wall, rss)
        tiles = sorted(str(p) for p in (work / "tz").glob("*.laz"))
        wall, rss = timed([quorvel, "-q", "merge", *tiles, "-o", str(work / "m.laz")])
        report("quorvel merge LAZ", n, wall, rss)
        # A box of 1% of the area.
        cx = mins[0] + 0.3 * (maxs[0] - mins[0])
        cy = mins[1] + 0.6 * (maxs[1] - mins[1])
        h = (maxs[0] - mins[0]) * 0.05
        box = "%f,%f,%f,%f" % (cx - h, cy - h, cx + h, cy + h)
        copc = work / ("cloud%d.copc.laz" % n)
        wall, rss = timed([quorvel, "-q", "convert", str(las), str(copc)])
        report("quorvel write COPC", n, wall, rss)
        wall, rss = timed([quorvel, "-q", "convert", str(laz), str(work / "plain.laz")])
        report("quorvel write LAZ", n, wall, rss)
        for name, src in (("COPC", copc), ("LAZ", laz)):
            whole, _ = timed([quorvel, "-q", "convert", str(src), str(work / "all.las")])
            part, rss = timed([quorvel, "-q", "convert", str(src), str(work / "box.las"),
                               "--box", box])
            print("box of 1%% from %-5s %6.3f s, all %6.3f s: %.1f%% of the time, %.0f MB peak"
                  % (name, part, whole, 100 * part / whole, rss), flush=True)


if __name__ == "__main__":
    main()
