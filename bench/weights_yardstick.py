# SPDX-License-Identifier: BSD-3-Clause
"""quorvel weights (K 8, radius 0.5) against a numpy and scipy script of the same neighbour sums,
each a whole process on one thread, on a generated survey of N points (LAS 1.4, format 6).

The weights read the shape factors (planarity and normals), so the survey gets them first with
`quorvel shapefactors --normals`; both sides then read that file. The script is the outliers
yardstick's (outliers_yardstick.py): it reads the LAS with numpy, asks a cKDTree for the 9 nearest
points of every point (one worker), sums the 8 other distances into their mean and writes the
file back. The goal: quorvel at most half the script's time. The two run in turn, best of RUNS
rounds (default 3). Weights keep one of the run's threads back for the host, so quorvel runs
with `--threads 2`: one algorithm thread.
Usage: python3 bench/weights_yardstick.py QUORVEL WORKDIR [N]
"""

import os
import pathlib
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from outliers_yardstick import YARDSTICK  # noqa: E402
from tile_yardstick import make_las  # noqa: E402

RUNS = int(os.environ.get("RUNS", "3"))


def timed(command, env=None):
    """Seconds one run of command takes; ends the script with its message when it fails."""
    start = time.perf_counter()
    done = subprocess.run(command, capture_output=True, text=True, env=env)
    if done.returncode:
        sys.exit(" ".join(map(str, command)) + ": " + done.stderr)
    return time.perf_counter() - start


def arguments(usage):
    """QUORVEL, WORKDIR (made here) and N (default 1,000,000) from the command line; without the
    first two, the script ends with its usage."""
    if len(sys.argv) < 3:
        sys.exit(usage)
    quorvel, work = sys.argv[1], pathlib.Path(sys.argv[2])
    work.mkdir(parents=True, exist_ok=True)
    return quorvel, work, int(float(sys.argv[3])) if len(sys.argv) > 3 else 1_000_000


def main():
    quorvel, work, n = arguments(__doc__)
    survey, shaped = work / "weights_survey.las", work / "weights_shapes.las"
    make_las(survey, n)
    timed([quorvel, "-q", "shapefactors", survey, "-o", shaped, "--normals"])
    script = work / "neighbours_numpy.py"
    script.write_text(YARDSTICK)
    ours, yard = float("inf"), float("inf")
    for _ in range(RUNS):
        ours = min(ours, timed([quorvel, "-q", "--threads", "2", "weights", shaped, "-o",
                                work / "weights_q.las"]))
        yard = min(yard, timed([sys.executable, script, shaped, work / "weights_y.las", "8", "2"]))
    print(f"{n} points; weights (K 8, radius 0.5), one thread: quorvel {ours * 1e3:.0f} ms "
          f"({n / ours / 1e6:.2f} M points/s), numpy + cKDTree 9 nearest {yard * 1e3:.0f} ms; "
          f"ratio {ours / yard:.2f} (at most 0.5)")


if __name__ == "__main__":
    main()
