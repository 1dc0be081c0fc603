#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-3-Clause
"""Python overhead: 1M points with 16 more fields from numpy arrays into a cloud and back,
against a plain numpy copy of the same arrays; and shape factors of 1M points run from Python
against the same run from C++ on the same file (bench/shapefactors_timing).
Run with PYTHONPATH=build/release/python. Best of 5 runs each."""

import os
import subprocess
import tempfile

import numpy as np

from timing import best

import quorvel


n = 1_000_000
rng = np.random.default_rng(11)
xyz = np.column_stack([rng.uniform(0, 350, (n, 2)) + [5e5, 5.4e6], 300 + rng.normal(0, 0.05, n)])
fields = {f"U{k}": np.ones(n, np.uint8) for k in range(9)}
fields.update({f"S{k}": np.ones(n, np.uint16) for k in range(2)})
fields.update({"GpsTime": np.ones(n), "A": np.ones(n, np.float32), "B": np.ones(n, np.float32),
               "C": np.ones(n, np.float32), "NormalVector": np.zeros((n, 3))})

copy_s = best(lambda: [xyz.copy()] + [a.copy() for a in fields.values()])
ours_s = best(lambda: (lambda c: [c.xyz] + [c[name] for name in fields])(quorvel.Cloud(xyz, **fields)))
print(f"numpy copy of 17 arrays: {copy_s * 1e3:.1f} ms; into a cloud and back: {ours_s * 1e3:.1f} ms;"
      f" ratio {ours_s / copy_s:.2f}")

with tempfile.TemporaryDirectory() as scratch:
    path = os.path.join(scratch, "cloud.h5")
    quorvel.Cloud(xyz).write(path)
    box = quorvel.ShapeFactorComputationParameterBox(normalvector=True, linearity=True,
                                                     sphericity=True)
    timing = os.path.join(os.path.dirname(quorvel.__file__), "../../bench/shapefactors_timing")
    # Rounds of one run each way, in turn, each on a cloud just read (the C++ side reads its own):
    # on a shared machine the load changes within a minute, and runs far apart would compare the
    # load rather than the hosts.
    shape_s = cpp_s = float("inf")
    for _ in range(4):
        cloud = quorvel.read(path)
        shape_s = min(shape_s, best(lambda c=cloud: quorvel.shapeFactorComputation(c, box), runs=1))
        cpp_s = min(cpp_s, float(subprocess.run([timing, path, "1"], capture_output=True,
                                                text=True, check=True).stdout.split()[-1]))
print(f"\nshape factors of 1M points: from Python {shape_s:.3f} s, from C++ {cpp_s:.3f} s;"
      f" ratio {shape_s / cpp_s:.3f}")
