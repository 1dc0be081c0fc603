# SPDX-License-Identifier: BSD-3-Clause
"""quorvel select --where and quorvel assign with three comparisons on a generated survey, end to
end as whole processes on one thread, against reading the same file into a cloud and writing it
with quorvel convert (the yardstick: at most 1.5 times its time; a fragment size makes convert
build the cloud instead of copying the records).

Usage: python3 bench/expression_yardstick.py QUORVEL WORKDIR [N]   (default N: 1000000)
Prints each run's best of three wall times, points/s and the ratio to convert.
"""

import os
import pathlib
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parent))
from tile_yardstick import make_las  # noqa: E402

WHERE = "Classification == 2 && ReturnNumber == 1 && Z > 20"


def best(command, runs=3):
    env = dict(os.environ, OMP_NUM_THREADS="1")
    times = []
    for _ in range(runs):
        start = time.perf_counter()
        subprocess.run(command, check=True, env=env, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
        times.append(time.perf_counter() - start)
    return min(times)


def main():
    quorvel, work = sys.argv[1], pathlib.Path(sys.argv[2])
    n = int(sys.argv[3]) if len(sys.argv) > 3 else 1_000_000
    work.mkdir(parents=True, exist_ok=True)
    source = work / "survey.las"
    make_las(source, n)
    out = str(work / "out.las")
    runs = {
        "convert (yardstick)": [quorvel, "convert", str(source), out, "--threads", "1",
                                "--fragment-points", "100000000"],
        "select --where": [quorvel, "select", str(source), "--where", WHERE, "-o", out,
                           "--threads", "1"],
        "assign --where --set": [quorvel, "assign", str(source), "--where", WHERE, "--set",
                                 "Classification=9", "-o", out, "--threads", "1"],
        "select --where --count": [quorvel, "select", str(source), "--where", WHERE, "--count",
                                   "--threads", "1"],
    }
    base = None
    for name, command in runs.items():
        seconds = best(command)
        base = base or seconds
        print(f"{name:26s} {seconds:7.3f} s  {n / seconds / 1e6:6.2f} M points/s  "
              f"ratio {seconds / base:4.2f}")


if __name__ == "__main__":
    main()
