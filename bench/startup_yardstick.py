# SPDX-License-Identifier: BSD-3-Clause
"""Start-up and a plain LAS copy of the quorvel host, against what a user has without it.

Times, as whole processes (the best of REPEAT runs, and the median):
  - `quorvel --help` against a bare interpreter (`python3 -S -c pass`): the floor of starting a
    program here;
  - `quorvel convert` of a LAS 1.4 file of N points to LAS, and to LAZ and back, against numpy
    reading the records with np.frombuffer and writing them with tofile (the yardstick);
and lists the shared objects the host loads for --help and for the LAS copy (LD_DEBUG=files),
which should hold neither GDAL, PROJ nor HDF5.
Usage: python3 bench/startup_yardstick.py QUORVEL WORKDIR [N] [REPEAT]   (default 1000000, 20)
"""

import os
import pathlib
import statistics
import subprocess
import sys
import time

from tile_yardstick import make_las

NUMPY_COPY = r"""
import numpy as np, struct, sys
b = open(sys.argv[1], "rb").read()
offset, = struct.unpack_from("<I", b, 96); length, = struct.unpack_from("<H", b, 105)
n, = struct.unpack_from("<Q", b, 247)
rec = np.frombuffer(b, dtype=np.dtype((np.void, length)), count=n, offset=offset)
with open(sys.argv[2], "wb") as f:
    f.write(b[:offset])
    rec.tofile(f)
"""


def timed(cmd, repeat):
    """The best and the median wall seconds of repeat runs of cmd."""
    walls = []
    for _ in range(repeat):
        start = time.perf_counter()
        subprocess.run(cmd, check=True, stdout=subprocess.DEVNULL)
        walls.append(time.perf_counter() - start)
    return min(walls), statistics.median(walls)


def report(what, result, yard=None):
    best, median = result
    line = "%-36s best %8.2f ms  median %8.2f ms" % (what, best * 1e3, median * 1e3)
    if yard:
        line += "   ratio to yardstick %.2f" % (median / yard[1])
    print(line, flush=True)


def loaded(cmd):
    """The shared objects the dynamic loader opens for cmd."""
    env = dict(os.environ, LD_DEBUG="files")
    done = subprocess.run(cmd, env=env, capture_output=True, text=True, check=True)
    names = set()
    for line in done.stderr.splitlines():
        if "calling init:" in line:
            names.add(line.split()[-1].rsplit("/", 1)[-1])
    return sorted(names)


def main():
    quorvel, work = sys.argv[1], pathlib.Path(sys.argv[2])
    n = int(sys.argv[3]) if len(sys.argv) > 3 else 1000000
    repeat = int(sys.argv[4]) if len(sys.argv) > 4 else 20
    work.mkdir(parents=True, exist_ok=True)
    las = work / ("cloud%d.las" % n)
    make_las(las, n)
    bare = timed(["/usr/bin/python3", "-S", "-c", "pass"], repeat)
    report("python3 -S -c pass (yardstick)", bare)
    report("quorvel --help", timed([quorvel, "--help"], repeat), bare)
    yard = timed([sys.executable, "-c", NUMPY_COPY, str(las), str(work / "np.las")], repeat)
    report("numpy LAS copy %d (yardstick)" % n, yard)
    copy = [quorvel, "-q", "convert", str(las), str(work / "copy.las")]
    report("quorvel convert LAS to LAS", timed(copy, repeat), yard)
    laz = work / "cloud.laz"
    report("quorvel convert LAS to LAZ",
           timed([quorvel, "-q", "convert", str(las), str(laz)], repeat))
    report("quorvel convert LAZ to LAS",
           timed([quorvel, "-q", "convert", str(laz), str(work / "back.las")], repeat))
    for what, cmd in (("--help", [quorvel, "--help"]), ("convert", copy)):
        objects = loaded(cmd)
        print("%s loads %d shared objects: %s" % (what, len(objects), " ".join(objects)))


if __name__ == "__main__":
    main()
