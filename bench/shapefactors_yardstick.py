# SPDX-License-Identifier: BSD-3-Clause
"""quorvel shapefactors against Open3D's covariances of the same neighbourhoods, each a whole
process on one thread, on a generated airborne scene of N points (LAS 1.4, format 6).

The scene: N points over a square at 10 per square metre, three quarters on rolling ground with
3 cm of noise, a quarter in tree crowns 8 to 15 m up, so that a ball of 1 m holds about 30 points
on the ground and fewer in the crowns. The yardstick (OPEN3D below) reads the LAS with numpy,
has Open3D estimate every point's covariance over its neighbours within 1 m (one OpenMP thread),
takes the eigenvalues and eigenvectors with numpy, and writes the file back with planarity,
linearity, sphericity and the normal as extra bytes. quorvel runs `--threads 1` with all outputs
(`--normals --linearity --sphericity`): its four scales (the default, widest 1 m) and one scale
of 1 m (`--maxstep 1 --step 1`). The goals: four scales at most half of Open3D's one, one scale
at most 0.35 of it. The runs go in turn, best of RUNS rounds (default 3).
Usage: python3 bench/shapefactors_yardstick.py QUORVEL WORKDIR [N]
"""

import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from lasfile import write_las  # noqa: E402
from weights_yardstick import arguments, timed  # noqa: E402

import numpy as np  # noqa: E402

RUNS = int(os.environ.get("RUNS", "3"))
DENSITY = float(os.environ.get("DENSITY", "10"))  # points per square metre

OPEN3D = r"""
import struct, sys
import numpy as np, open3d as o3d
src, out, radius = sys.argv[1], sys.argv[2], float(sys.argv[3])
b = open(src, "rb").read()
offset, = struct.unpack_from("<I", b, 96); length, = struct.unpack_from("<H", b, 105)
n, = struct.unpack_from("<Q", b, 247) if b[25] >= 4 else struct.unpack_from("<I", b, 107)
scale = struct.unpack_from("<3d", b, 131); off = struct.unpack_from("<3d", b, 155)
rec = np.frombuffer(b, np.uint8, n * length, offset).reshape(n, length)
xyz = rec[:, :12].copy().view("<i4") * np.array(scale) + np.array(off)
cloud = o3d.geometry.PointCloud(o3d.utility.Vector3dVector(xyz))
cloud.estimate_covariances(o3d.geometry.KDTreeSearchParamRadius(radius))
values, vectors = np.linalg.eigh(np.asarray(cloud.covariances))
total = values.sum(axis=1)
total[total < 1e-6] = np.inf
extra = np.empty((n, 6), "<f4")
extra[:, 0] = 2 * (values[:, 1] - values[:, 0]) / total
extra[:, 1] = (values[:, 2] - values[:, 1]) / total
extra[:, 2] = 3 * values[:, 0] / total
normal = vectors[:, :, 0] * np.where(vectors[:, 2:3, 0] < 0, -1.0, 1.0)
extra[:, 3:] = normal
names = [b"Planarity", b"Linearity", b"Sphericity", b"NormalX", b"NormalY", b"NormalZ"]
vlr = bytearray(54 + 192 * len(names))
vlr[2:2 + 9] = b"LASF_Spec"
struct.pack_into("<HH", vlr, 18, 4, 192 * len(names))
for k, name in enumerate(names):
    d = 54 + 192 * k
    vlr[d + 2] = 9  # float
    vlr[d + 4:d + 4 + len(name)] = name
head = bytearray(b[:offset])
struct.pack_into("<I", head, 96, offset + len(vlr))
struct.pack_into("<I", head, 100, struct.unpack_from("<I", head, 100)[0] + 1)
struct.pack_into("<H", head, 105, length + 24)
records = np.concatenate([rec, extra.view(np.uint8)], axis=1)
with open(out, "wb") as f:
    f.write(head); f.write(vlr); records.tofile(f)
"""


def make_scene(path, n, seed=3):
    """A LAS 1.4 format 6 file of n points: rolling ground and tree crowns (see the docstring)."""
    side = (n / DENSITY) ** 0.5
    rng = np.random.default_rng(seed)
    x = rng.random(n) * side
    y = rng.random(n) * side
    z = 0.02 * x + 2 * np.sin(x / 30) * np.cos(y / 40) + rng.normal(0, 0.03, n)
    crowns = rng.random(n) < 0.25
    trees = rng.random((max(1, int(side * side / 100)), 2)) * side
    k = rng.integers(0, len(trees), crowns.sum())
    direction = rng.normal(size=(len(k), 3))
    direction /= np.linalg.norm(direction, axis=1)[:, None]
    spread = direction * (3 * rng.random(len(k)) ** (1 / 3))[:, None]
    x[crowns] = np.clip(trees[k, 0] + spread[:, 0], 0, side)
    y[crowns] = np.clip(trees[k, 1] + spread[:, 1], 0, side)
    z[crowns] += 11.5 + 1.2 * spread[:, 2]
    rec = np.zeros(n, dtype=[("x", "<i4"), ("y", "<i4"), ("z", "<i4"), ("i", "<u2"),
                             ("r", "u1"), ("f", "u1"), ("c", "u1"), ("u", "u1"),
                             ("a", "<i2"), ("s", "<u2"), ("t", "<f8")])
    rec["x"] = np.round(x * 100)
    rec["y"] = np.round(y * 100)
    rec["z"] = np.round((z + 10) * 100)
    rec["i"] = rng.integers(0, 4000, n)
    rec["r"] = 0x11
    rec["c"] = np.where(crowns, 5, 2)
    rec["t"] = np.sort(rng.random(n)) * 1000
    write_las(path, rec, offset=(500000.0, 4000000.0, 0.0), point_format=6, returns=[n])


def main():
    quorvel, work, n = arguments(__doc__)
    scene = work / f"scene_{n}_{DENSITY:g}.las"
    if not scene.exists():
        make_scene(scene, n)
    script = work / "shapefactors_open3d.py"
    script.write_text(OPEN3D)
    one = dict(os.environ, OMP_NUM_THREADS="1", OPENBLAS_NUM_THREADS="1")
    outputs = ["--normals", "--linearity", "--sphericity", "--threads", "1", "-q"]
    runs = {
        "open3d": lambda: timed([sys.executable, script, scene, work / "o3d.las", "1.0"], one),
        "four": lambda: timed([quorvel, "shapefactors", scene, "-o", work / "q4.las"] + outputs),
        "one": lambda: timed([quorvel, "shapefactors", scene, "-o", work / "q1.las", "--maxstep",
                              "1", "--step", "1"] + outputs),
    }
    best = {name: float("inf") for name in runs}
    for _ in range(RUNS):
        for name, run in runs.items():
            best[name] = min(best[name], run())
    yard = best["open3d"]
    print(f"{n} points, one thread, best of {RUNS}: Open3D one scale of 1 m {yard:.3f} s; "
          f"quorvel four scales {best['four']:.3f} s ({n / best['four'] / 1e6:.2f} M points/s), "
          f"ratio {best['four'] / yard:.2f} (at most 0.5); one scale {best['one']:.3f} s "
          f"({n / best['one'] / 1e6:.2f} M points/s), ratio {best['one'] / yard:.2f} (at most 0.35)")


if __name__ == "__main__":
    main()
