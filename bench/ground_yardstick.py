# SPDX-License-Identifier: BSD-3-Clause
"""quorvel ground against its yardstick: 1M airborne points in at most 1 s on one thread, end to
end (read, filter, write), as a whole process.

Times `quorvel ground` (OMP_NUM_THREADS=1, --threads 1) on a generated airborne scene of N points
(10 per square metre: a waved, sloped terrain with buildings and trees) and on real tiles of the
shared corpus when they are there, best of three runs, and prints the wall and processor times,
points/s and the ratio of the processor time per million points to the yardstick's 1 s.
Usage: python3 bench/ground_yardstick.py QUORVEL WORKDIR [N]   (default N: 1000000)
"""

import os
import pathlib
import resource
import struct
import subprocess
import sys
import time

import numpy as np

from lasfile import write_las
REAL = ["/work/shared/data/real/bcts_2.las", "/work/shared/data/real/bcts_3.las",
        "/work/shared/data/real/lidarhd_pf8_extrabytes.las"]


def make_scene(path, n, seed=1):
    """A LAS 1.2 format 1 file of n airborne-like points at 10 per square metre."""
    rng = np.random.default_rng(seed)
    side = (n / 10.0) ** 0.5
    x, y = rng.uniform(0, side, n), rng.uniform(0, side, n)
    z = 200 + 0.05 * x + 2 * np.sin(x / 40) + np.cos(y / 30)
    above = rng.random(n) < 0.4  # trees and roofs
    z[above] += rng.uniform(2, 25, np.count_nonzero(above))
    rec = np.zeros(n, dtype=[("x", "<i4"), ("y", "<i4"), ("z", "<i4"), ("i", "<u2"),
                             ("r", "u1"), ("c", "u1"), ("a", "i1"), ("u", "u1"),
                             ("s", "<u2"), ("t", "<f8")])
    rec["x"], rec["y"], rec["z"] = (np.round(v * 100).astype(np.int32) for v in (x, y, z))
    rec["r"] = 0x09
    write_las(path, rec, returns=[n])

def best_time(command, runs=3):
    """The best wall time and the best processor time (user + system) of the runs: on a shared
    machine the processor time is what one idle core would take."""
    env = dict(os.environ, OMP_NUM_THREADS="1")
    best, cpu = float("inf"), float("inf")
    for _ in range(runs):
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        start = time.perf_counter()
        subprocess.run(command, check=True, env=env)
        best = min(best, time.perf_counter() - start)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        cpu = min(cpu, after.ru_utime - before.ru_utime + after.ru_stime - before.ru_stime)
    return best, cpu


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    quorvel, work = sys.argv[1], pathlib.Path(sys.argv[2])
    n = int(sys.argv[3]) if len(sys.argv) > 3 else 1000000
    work.mkdir(parents=True, exist_ok=True)
    scene = work / "scene.las"
    make_scene(scene, n)
    files = [scene] + [pathlib.Path(f) for f in REAL if pathlib.Path(f).exists()]
    print(f"{'file':28} {'points':>9} {'wall s':>7} {'cpu s':>6} {'points/s':>10} "
          f"{'cpu s per 1M':>12} {'vs 1 s':>7}")
    for path in files:
        points = struct.unpack_from("<I", path.read_bytes()[:375], 107)[0]
        if points == 0:
            points = struct.unpack_from("<Q", path.read_bytes()[:375], 247)[0]
        seconds, cpu = best_time([quorvel, "--quiet", "--threads", "1", "ground", str(path), "-o",
                             str(work / "out.las")])
        per_million = cpu * 1e6 / points
        print(f"{path.name:28} {points:9d} {seconds:7.3f} {cpu:6.3f} {points / cpu:10.0f} "
              f"{per_million:12.3f} {per_million / 1.0:7.2f}")


if __name__ == "__main__":
    main()
