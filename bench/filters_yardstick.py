"""quorvel crop, thin, outliers and reproject on a generated survey of N points (LAS 1.4, format 6,
10 points per square metre), each as a whole process on one thread, against the yardsticks:
  - crop by box, crop by a 1,000-vertex polygon, thin by voxel: at most 1.5 x reading and
    writing the same file (quorvel convert IN OUT.las);
  - statistical outliers (K 8): at most a scipy cKDTree 9-NN script (build and query, one worker),
    where scipy is installed; without it the time of the 9-NN step is reported alone;
  - reprojection: at least 5M points/s for the transform itself (timed in Python on a loaded
    cloud, one thread and all threads), besides the end-to-end run.
Prints the best of three runs of each.
Usage: PYTHONPATH=build/release/python python3 bench/filters_yardstick.py QUORVEL WORKDIR [N]
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


def cpu_of(command):
    return CPU_TIMES[tuple(map(str, command))]


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


def reprojection_rate(path, threads):
    import quorvel
    best = math.inf
    for _ in range(3):
        cloud = quorvel.read(str(path))
        box = quorvel.ReprojectionParameterBox(source="EPSG:32633", target="EPSG:32632",
                                               threads=threads)
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
    convert = [quorvel, "convert", src, work / "copy.las", *one]
    base = best_of(convert)
    print(f"{n} points; read and write (convert): {base * 1e3:.0f} ms, processor "
          f"{cpu_of(convert) * 1e3:.0f} ms")
    runs = {
        "crop --box": ["crop", src, "-o", work / "c.las", "--box", box],
        "crop --polygon (1,000 vertices)": ["crop", src, "-o", work / "p.las", "--polygon",
                                            work / "star.geojson"],
        "thin --voxel 1": ["thin", src, "-o", work / "t.las", "--voxel", "1"],
    }
    for name, args in runs.items():
        t = best_of([quorvel, *args, *one])
        cpu = cpu_of([quorvel, *args, *one]) / cpu_of(convert)
        print(f"{name}: {t * 1e3:.0f} ms, {n / t / 1e6:.2f} M points/s, {t / base:.2f} x read+write"
              f" (at most 1.5); processor time {cpu:.2f} x")
    t = best_of([quorvel, "outliers", src, "-o", work / "o.las", *one])
    print(f"outliers (K 8): {t * 1e3:.0f} ms end to end; the 9-NN step about "
          f"{(t - base) * 1e3:.0f} ms")
    yard = ckdtree_seconds(src)
    if yard is None:
        print("scipy is not installed: no cKDTree yardstick on this machine")
    else:
        print(f"cKDTree 9-NN (one worker): {yard * 1e3:.0f} ms; outliers / cKDTree: "
              f"{t / yard:.2f} (at most 1)")
    t = best_of([quorvel, "reproject", src, "-o", work / "r.las", "--from", "EPSG:32633", "--to",
                 "EPSG:32632", *one])
    print(f"reproject end to end: {t * 1e3:.0f} ms")
    for threads in (1, 0):
        rate = reprojection_rate(src, threads)
        print(f"reproject, transform only, threads {threads or 'all but one'}: "
              f"{rate / 1e6:.2f} M points/s (at least 5)")


if __name__ == "__main__":
    main()
