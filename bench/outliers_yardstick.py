# SPDX-License-Identifier: BSD-3-Clause
"""quorvel outliers --method statistical (K 8) against the same rule as a numpy and scipy script,
each a whole process on one thread, on a generated survey of N points (LAS 1.4, format 6).

The script (YARDSTICK below) reads the LAS with numpy, asks a cKDTree for the 9 nearest points of
every point (itself included, one worker), takes the mean of the 8 other distances, flags the
means above mean + M * standard deviation (over n) and writes the file with class 7 on them. Both
outputs must flag the same points; the goal is quorvel at most the script's time.
Prints the best of three runs of each.
Usage: python3 bench/outliers_yardstick.py QUORVEL WORKDIR [N]
"""

import os
import pathlib
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from tile_yardstick import make_las  # noqa: E402

import numpy as np  # noqa: E402

YARDSTICK = r"""
import numpy as np, struct, sys
from scipy.spatial import cKDTree
src, out, k, m = sys.argv[1], sys.argv[2], int(sys.argv[3]), float(sys.argv[4])
b = bytearray(open(src, "rb").read())
offset, = struct.unpack_from("<I", b, 96); length, = struct.unpack_from("<H", b, 105)
n, = struct.unpack_from("<Q", b, 247)
scale = struct.unpack_from("<3d", b, 131); off = struct.unpack_from("<3d", b, 155)
rec = np.frombuffer(b, np.uint8, n * length, offset).reshape(n, length)
ints = rec[:, :12].copy().view("<i4")
xyz = ints * np.array(scale) + np.array(off)
distances, _ = cKDTree(xyz).query(xyz, k=k + 1, workers=1)
means = distances[:, 1:].mean(axis=1)
flagged = means > means.mean() + m * means.std()
view = np.ndarray((n, length), np.uint8, b, offset)
view[flagged, 16] = 7
open(out, "wb").write(b)
"""


def best_of(command, runs=3):
    best = float("inf")
    for _ in range(runs):
        start = time.perf_counter()
        done = subprocess.run(command, capture_output=True, text=True)
        if done.returncode:
            sys.exit(" ".join(map(str, command)) + ": " + done.stderr)
        best = min(best, time.perf_counter() - start)
    return best


def classes(path):
    b = open(path, "rb").read()
    offset, length, n = (int.from_bytes(b[96:100], "little"), int.from_bytes(b[105:107], "little"),
                         int.from_bytes(b[247:255], "little"))
    return np.frombuffer(b, np.uint8, n * length, offset).reshape(n, length)[:, 16]


def main():
    quorvel, work = sys.argv[1], pathlib.Path(sys.argv[2])
    n = int(sys.argv[3]) if len(sys.argv) > 3 else 1_000_000
    work.mkdir(parents=True, exist_ok=True)
    src = work / "survey.las"
    make_las(src, n)
    script = work / "outliers_numpy.py"
    script.write_text(YARDSTICK)
    ours = best_of([quorvel, "outliers", src, "-o", work / "q.las", "--neighbours", "8",
                    "--multiplier", "2", "--threads", "1", "-q"])
    yard = best_of([sys.executable, script, src, work / "y.las", "8", "2"])
    same = np.array_equal(classes(work / "q.las") == 7, classes(work / "y.las") == 7)
    print(f"{n} points; outliers (K 8, M 2), one thread: quorvel {ours * 1e3:.0f} ms "
          f"({n / ours / 1e6:.2f} M points/s), numpy + cKDTree {yard * 1e3:.0f} ms; "
          f"ratio {ours / yard:.2f} (at most 1); same points flagged: {same}")


if __name__ == "__main__":
    main()
