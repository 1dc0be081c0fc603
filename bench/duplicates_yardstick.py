# SPDX-License-Identifier: BSD-3-Clause
"""Every neighbourhood command on copies of one point, against the same number of spread points.

A cloud of N copies of one position (a scanner standing still, a file merged with itself) must
cost no more than N points spread over ground: the goal is under a second for 10^5 copies in
every command (its own work: the time of `convert`, reading and writing alone, is taken off),
and copies no slower than spread points at 10^6. Each command runs as a whole
process on LAS files made here (point format 1, classes 1 and 2 alternating, so that the ground
commands have seeds and candidates); the time is the best of RUNS runs.
Usage: python3 bench/duplicates_yardstick.py QUORVEL WORKDIR [N ...]   (default N: 100000 1000000)
"""

import os
import pathlib
import subprocess
import sys
import time

import numpy as np

from lasfile import write_las
DENSITY = 10.0  # points per square metre of the spread cloud
RUNS = int(os.environ.get("RUNS", "1"))

# name, arguments after the input (OUT is replaced by the output path), needs shape factors first
COMMANDS = [
    ("convert", ["OUT.las"]),  # reading and writing alone: the floor of every command
    ("shapefactors", ["-o", "OUT.las", "--normals", "--linearity"]),
    ("weights", ["-o", "OUT.las"]),
    ("reduce", ["-o", "OUT.las", "--keep", "0.25"]),
    ("regress", ["-o", "OUT.las", "--candidates", "0:1"]),
    ("extrapolate", ["-o", "OUT.las", "--target", "0:1"]),
    ("relheight", ["-o", "OUT.las", "--half-width", "10"]),
    ("cellsize", ["-o", "OUT.las"]),
    ("ground", ["-o", "OUT.las", "--reset"]),
    ("outliers", ["-o", "OUT.las"]),
    ("outliers-radius", ["-o", "OUT.las", "--method", "radius", "--radius", "1", "--min-points",
                         "4"]),
    ("thin", ["-o", "OUT.las", "--voxel", "2"]),
    ("transfer", ["SELF", "-o", "OUT.las", "--bands", "1"]),
    ("dtm", ["-o", "OUT.h5", "--cell", "1"]),
    ("dsm", ["-o", "OUT.h5", "--cell", "1"]),
    ("density", ["-o", "OUT.h5", "--cell", "5"]),
]


def make_las(path, xyz_cm, seed=1):
    """A LAS 1.2 point format 1 file of the given integer coordinates (scale 0.01)."""
    n = len(xyz_cm)
    rng = np.random.default_rng(seed)
    rec = np.zeros(n, dtype=[("x", "<i4"), ("y", "<i4"), ("z", "<i4"), ("i", "<u2"),
                             ("r", "u1"), ("c", "u1"), ("a", "i1"), ("u", "u1"),
                             ("s", "<u2"), ("t", "<f8")])
    rec["x"], rec["y"], rec["z"] = xyz_cm[:, 0], xyz_cm[:, 1], xyz_cm[:, 2]
    rec["i"] = rng.integers(0, 4000, n)
    rec["r"] = 0x09  # return 1 of 1
    rec["c"] = 1 + np.arange(n) % 2
    rec["t"] = np.arange(n) * 1e-5
    write_las(path, rec, offset=(500000.0, 4000000.0, 0.0), returns=[n])

def clouds(work, n):
    """The two inputs of size n: copies of one point, and points spread at DENSITY."""
    copies = work / f"copies_{n}.las"
    spread = work / f"spread_{n}.las"
    if not copies.exists():
        make_las(copies, np.tile(np.array([[10000, 10000, 1000]], dtype=np.int64), (n, 1)))
    if not spread.exists():
        side = int((n / DENSITY) ** 0.5 * 100)
        rng = np.random.default_rng(7)
        make_las(spread, np.column_stack([rng.integers(0, side, n), rng.integers(0, side, n),
                                          rng.integers(0, 3000, n)]))
    return {"copies": copies, "spread": spread}


def run(quorvel, name, args, source, out):
    command = name.split("-")[0]
    argv = [quorvel, "--quiet", command, str(source)]
    argv += [str(source) if a == "SELF" else a.replace("OUT", str(out)) for a in args]
    best = None
    for _ in range(RUNS):
        start = time.perf_counter()
        done = subprocess.run(argv, capture_output=True, text=True)
        seconds = time.perf_counter() - start
        if done.returncode != 0:
            return None, done.stderr.strip().splitlines()[-1:] or ["failed"]
        best = seconds if best is None else min(best, seconds)
    return best, None


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    quorvel, work = sys.argv[1], pathlib.Path(sys.argv[2])
    sizes = [int(a) for a in sys.argv[3:]] or [100000, 1000000]
    work.mkdir(parents=True, exist_ok=True)
    print(f"{'command':16} {'N':>8} {'copies s':>9} {'spread s':>9} {'copies/spread':>13} "
          f"{'copies pts/s':>13} {'copies - convert s':>18}")
    for n in sizes:
        inputs = clouds(work, n)
        shaped, floor = {}, None
        for kind, path in inputs.items():  # the shape factors that weights reads
            run(quorvel, "shapefactors", COMMANDS[1][1], path, work / f"{kind}_{n}_shapes")
            shaped[kind] = work / f"{kind}_{n}_shapes.las"
        for name, args in COMMANDS:
            times = {}
            for kind, path in inputs.items():
                source = shaped[kind] if name == "weights" else path
                seconds, error = run(quorvel, name, args, source, work / f"out_{kind}")
                times[kind] = seconds if error is None else f"error: {error[0]}"
            c, s = times["copies"], times["spread"]
            if isinstance(c, float) and isinstance(s, float):
                floor = c if name == "convert" else floor
                # The goal of a second is for the command's own work: its reading and writing
                # (the convert row) is taken off.
                own = c - floor if floor is not None else c
                goal = "" if n > 100000 or own < 1.0 else "  (over the goal of 1 s)"
                print(f"{name:16} {n:8d} {c:9.2f} {s:9.2f} {c / s:13.2f} {n / c:13.0f} "
                      f"{own:18.2f}{goal}")
            else:
                print(f"{name:16} {n:8d} {c!s:>9} {s!s:>9}")


if __name__ == "__main__":
    main()
