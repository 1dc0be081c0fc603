#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-3-Clause
"""Surfaces on 1M airborne-like points against their yardstick, reading the LAS file.

Writes a LAS 1.2 point-format-1 file of N points (default 1,000,000) at 10 points per square
metre (ground, vegetation and buildings, returns 1 to 3), then times in one process, best of 5:
  - the yardstick: quorvel.read of the file (the LAS reader into the cloud's arrays);
  - quorvel.surfaceRaster (DSM), densityRaster, canopyRaster and groundRaster (lowest, tin, idw)
    at 1 m cells on the cloud read;
  - numpy's own DSM of the same points (np.fmax.at over the cells) as a second reference.
Prints points/s of each and its ratio to the read (under 1: faster than reading the file).
Usage: PYTHONPATH=build/release/python python3 bench/surfaces_yardstick.py WORKDIR [N]
"""

import pathlib
import sys

import numpy as np

from lasfile import write_las
import quorvel
import time

from timing import best


def best_cpu(f, runs=3):
    """The shortest process CPU time of several runs of f, in seconds: on a loaded machine wall
    times measure the neighbours too."""
    times = []
    for _ in range(runs):
        start = time.process_time()
        f()
        times.append(time.process_time() - start)
    return min(times)


def make_las(path, n, seed=30):
    rng = np.random.default_rng(seed)
    side = (n / 10.0) ** 0.5
    rec = np.zeros(n, [("X", "<i4"), ("Y", "<i4"), ("Z", "<i4"), ("i", "<u2"), ("bits", "u1"),
                       ("cls", "u1"), ("a", "i1"), ("u", "u1"), ("s", "<u2"), ("t", "<f8")])
    x, y = rng.uniform(0, side, n), rng.uniform(0, side, n)
    cls = rng.choice([2, 5, 6], n, p=[0.5, 0.4, 0.1]).astype(np.uint8)
    z = 100 + 0.02 * x + np.where(cls == 2, 0, rng.uniform(0, 25, n))
    rec["X"], rec["Y"], rec["Z"] = (x * 100).astype("<i4"), (y * 100).astype("<i4"), z * 100
    rec["bits"] = rng.integers(1, 4, n) | (3 << 3)
    rec["cls"] = cls
    numbers = np.bincount(rec["bits"] & 7, minlength=6)[1:6]
    real = [v / 100 + o for v, o in ((rec["X"], 5.0e5), (rec["Y"], 5.4e6), (rec["Z"], 0))]
    write_las(path, rec, offset=(5.0e5, 5.4e6, 0.0), returns=numbers,
              software=b"surfaces_yardstick")
    return np.column_stack(real)


def main():
    work = pathlib.Path(sys.argv[1])
    n = int(sys.argv[2]) if len(sys.argv) > 2 else 1_000_000
    work.mkdir(parents=True, exist_ok=True)
    path = work / "surfaces.las"
    xyz = make_las(path, n)
    read = best(lambda: quorvel.read(str(path)), 5)
    cloud = quorvel.read(str(path))
    box = quorvel.SurfaceParameterBox(cell_size=1.0)
    dtm = quorvel.groundRaster(cloud, 1.0)
    runs = {
        "read (yardstick)": read,
        "dsm": best(lambda: quorvel.surfaceRaster(cloud, box), 5),
        "density": best(lambda: quorvel.densityRaster(cloud, box), 5),
        "chm": best(lambda: quorvel.canopyRaster(cloud, dtm, box), 5),
        "dtm lowest": best(lambda: quorvel.groundRaster(cloud, 1.0), 5),
        "dtm idw": best(lambda: quorvel.groundRaster(cloud, 1.0, method="idw"), 3),
        "dtm tin": best(lambda: quorvel.groundRaster(cloud, 1.0, method="tin"), 1),
    }

    def numpy_dsm():
        low = np.floor(xyz[:, :2].min(axis=0))
        ij = (np.floor(xyz[:, :2]) - low).astype(np.int64)
        out = np.full(tuple(ij.max(axis=0) + 2), -np.inf)
        np.fmax.at(out, (ij[:, 0], ij[:, 1]), xyz[:, 2])
        return out

    runs["numpy dsm (np.fmax.at)"] = best(numpy_dsm, 3)
    cpu = {"read (yardstick)": best_cpu(lambda: quorvel.read(str(path))),
           "dsm": best_cpu(lambda: quorvel.surfaceRaster(cloud, box)),
           "density": best_cpu(lambda: quorvel.densityRaster(cloud, box)),
           "chm": best_cpu(lambda: quorvel.canopyRaster(cloud, dtm, box))}
    print(f"{n} points, cells of 1 m; wall time (best), then process CPU time (best)")
    for name, seconds in runs.items():
        line = (f"{name:24s} {seconds * 1e3:9.1f} ms {n / seconds / 1e6:8.1f} M points/s "
                f"ratio to read {seconds / read:6.2f}")
        if name in cpu:
            line += f"   cpu {cpu[name] * 1e3:8.1f} ms ratio {cpu[name] / cpu['read (yardstick)']:5.2f}"
        print(line)


if __name__ == "__main__":
    main()
