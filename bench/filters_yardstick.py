# SPDX-License-Identifier: BSD-3-Clause
"""quorvel crop, thin, outliers and reproject on a generated survey of N points (LAS 1.4, format 6,
10 points per square metre), each as a whole process on one thread, against the yardsticks:
  - crop by box, crop by a 1,000-vertex polygon, thin by voxel: at most 1.5 x reading the same
    file into a cloud and writing it (quorvel convert IN OUT.las --fragment-points 1e8: the
    fragment size makes convert build the cloud, as the filters do, instead of copying records;
    the record copy is timed too);
  - statistical outliers (K 8): at most a scipy cKDTree 9-NN script (build and query, one worker),
    where scipy is installed; without it the time of the 9-NN step is reported alone;
  - reprojection: at least 5M points/s for the transform itself (timed in Python on a loaded
    cloud, one thread and all threads, interpolated and --exact), besides the end-to-end run.
The commands compared with convert run interleaved, ROUNDS rounds (7) each taking every command
in turn, so that the load of a shared machine falls on all alike; the minimum and median of
their wall and processor (user and system) times are printed, and the ratios to convert's.
Usage: PYTHONPATH=build/release/python python3 bench/filters_yardstick.py QUORVEL WORKDIR [N]
(ROUNDS=n for other than 7 rounds; OUTLIERS=0 leaves out the outliers runs.)
"""

import json
import math
import os
import pathlib
import resource
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from tile_yardstick import make_las  # noqa: E402

import numpy as np  # noqa: E402


def best_of(command, runs=3):
    """The shortest wall time of several runs; the shortest processor time (user and system)
    goes to CPU_TIMES, the steadier figure on a machine whose cores are shared."""
    best = cpu = math.inf
    for _ in range(runs):
        start, used = time.perf_counter(), resource.getrusage(resource.RUSAGE_CHILDREN)
        done = subprocess.run(command, capture_output=True, text=True)
        if done.returncode:
            sys.exit(" ".join(map(str, command)) + ": " + done.stderr)
        best = min(best, time.perf_counter() - start)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        cpu = min(cpu, after.ru_utime + after.ru_stime - used.ru_utime - used.ru_stime)
    CPU_TIMES[tuple(map(str, command))] = cpu
    return best


CPU_TIMES = {}


def star(mins, maxs, vertices=1000):
    """A star-shaped polygon of `vertices` vertices over the middle of the survey."""
    cx, cy = (mins[0] + maxs[0]) / 2, (mins[1] + maxs[1]) / 2
    r = min(maxs[0] - mins[0], maxs[1] - mins[1]) / 2
    ring = [[cx + r * (0.6 + 0.4 * (k % 2)) * math.cos(2 * math.pi * k / vertices),
             cy + r * (0.6 + 0.4 * (k % 2)) * math.sin(2 * math.pi * k / vertices)]
            for k in range(vertices)]
    return {"type": "FeatureCollection", "features": [{"type": "Feature", "properties": {},
            "geometry": {"type": "Polygon", "coordinates": [ring + ring[:1]]}}]}


def ckdtree_seconds(path):
    try:
        from scipy.spatial import cKDTree
    except ImportError:
        return None
    import quorvel
    xyz = np.asarray(quorvel.read(str(path)).xyz)
    best = math.inf
    for _ in range(3):
        start = time.perf_counter()
        cKDTree(xyz).query(xyz, k=9, workers=1)
        best = min(best, time.perf_counter() - start)
    return best


def interleaved(commands, rounds):
    """Wall and processor seconds of each command over the rounds, the commands run in turn."""
    times = {name: ([], []) for name in commands}
    for _ in range(rounds):
        for name, command in commands.items():
            start, used = time.perf_counter(), resource.getrusage(resource.RUSAGE_CHILDREN)
            done = subprocess.run(command, capture_output=True, text=True)
            if done.returncode:
                sys.exit(" ".join(map(str, command)) + ": " + done.stderr)
            after = resource.getrusage(resource.RUSAGE_CHILDREN)
            times[name][0].append(time.perf_counter() - start)
            times[name][1].append(after.ru_utime + after.ru_stime - used.ru_utime - used.ru_stime)
    return times


def reprojection_rate(path, threads, exact=False):
    import quorvel
    best = math.inf
    for _ in range(3):
        cloud = quorvel.read(str(path))
        box = quorvel.ReprojectionParameterBox(source="EPSG:32633", target="EPSG:32632",
                                               threads=threads, exact=exact)
        start = time.perf_counter()
        quorvel.reproject(cloud, box)
        best = min(best, time.perf_counter() - start)
    return len(cloud) / best


def main():
    quorvel, work = sys.argv[1], pathlib.Path(sys.argv[2])
    n = int(sys.argv[3]) if len(sys.argv) > 3 else 1_000_000
    work.mkdir(parents=True, exist_ok=True)
    src = work / "survey.las"
    mins, maxs = make_las(src, n)
    (work / "star.geojson").write_text(json.dumps(star(mins, maxs)))
    one = ["--threads", "1", "-q"]
    box = "%f,%f,%f,%f" % (mins[0] + (maxs[0] - mins[0]) / 4, mins[1] + (maxs[1] - mins[1]) / 4,
                           maxs[0] - (maxs[0] - mins[0]) / 4, maxs[1] - (maxs[1] - mins[1]) / 4)
    reproject = ["reproject", src, "-o", work / "r.las", "--from", "EPSG:32633", "--to",
                 "EPSG:32632"]
    runs = {
        "convert": ["convert", src, work / "copy.las", "--fragment-points", "100000000"],
        "convert, records copied": ["convert", src, work / "copy.las"],
        "crop --box": ["crop", src, "-o", work / "c.las", "--box", box],
        "crop --polygon (1,000 vertices)": ["crop", src, "-o", work / "p.las", "--polygon",
                                            work / "star.geojson"],
        "thin --voxel 1": ["thin", src, "-o", work / "t.las", "--voxel", "1"],
        "reproject": reproject,
        "reproject --exact": [*reproject, "--exact"],
    }
    rounds = int(os.environ.get("ROUNDS", "7"))
    times = interleaved({k: [quorvel, *v, *one] for k, v in runs.items()}, rounds)
    wall0, cpu0 = (np.array(t) for t in times["convert"])
    print(f"{n} points, {rounds} rounds interleaved; read into a cloud and write (convert): wall "
          f"{wall0.min() * 1e3:.0f} / {np.median(wall0) * 1e3:.0f} ms (min / median), processor "
          f"{cpu0.min() * 1e3:.0f} / {np.median(cpu0) * 1e3:.0f} ms")
    for name in list(runs)[1:]:
        wall, cpu = (np.array(t) for t in times[name])
        print(f"{name}: wall {wall.min() * 1e3:.0f} / {np.median(wall) * 1e3:.0f} ms, "
              f"{wall.min() / wall0.min():.2f} / {np.median(wall / wall0):.2f} x convert; processor "
              f"{cpu.min() * 1e3:.0f} / {np.median(cpu) * 1e3:.0f} ms, "
              f"{cpu.min() / cpu0.min():.2f} / {np.median(cpu / cpu0):.2f} x convert"
              + (f"; {n / cpu.min() / 1e6:.2f} M points/s end to end (processor)"
                 if name.startswith("reproject") else ""))
    for threads, exact in ((1, False), (0, False), (1, True)):
        rate = reprojection_rate(src, threads, exact)
        print(f"reproject{' --exact' if exact else ''}, transform only, threads "
              f"{threads or 'all but one'}: {rate / 1e6:.2f} M points/s (at least 5)")
    base = wall0.min()
    if os.environ.get("OUTLIERS", "1") == "0":
        return
    t = best_of([quorvel, "outliers", src, "-o", work / "o.las", *one])
    print(f"outliers (K 8): {t * 1e3:.0f} ms end to end; the 9-NN step about "
          f"{(t - base) * 1e3:.0f} ms")
    yard = ckdtree_seconds(src)
    if yard is None:
        print("scipy is not installed: no cKDTree yardstick on this machine")
    else:
        print(f"cKDTree 9-NN (one worker): {yard * 1e3:.0f} ms; outliers / cKDTree: "
              f"{t / yard:.2f} (at most 1)")


if __name__ == "__main__":
    main()
