#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-3-Clause
"""Yardstick of the raster mapping benchmark (raster_bench): numpy's plain cell lookup and
subtraction, the height of 1M points above a 2000 x 2000 float32 ground raster of 1 m cells, for
the points in random order and in scan order (strips of 20 m along x, each swept in y), as the
benchmark has them. Best of 10 runs each."""
import numpy as np

from timing import best

rng = np.random.default_rng(42)
n = 1_000_000
x = 5.0e5 + rng.uniform(0, 1000, n)
y = 5.4e6 + rng.uniform(0, 1000, n)
z = 200.0 + 0.02 * (x - 5.0e5) + rng.normal(0, 2, n)
cols = np.arange(2000)
dtm = (200.0 + 0.02 * cols[:, None] + np.sin(cols[:, None] * 3 + cols[None, :])).astype(np.float32)


def heights(px, py, pz):
    ix = np.floor(px - 5.0e5 + 0.5).astype(np.int64)
    iy = np.floor(py - 5.4e6 + 0.5).astype(np.int64)
    return pz - dtm[ix, iy]


for name, order in (("random", np.arange(n)),
                    ("scan", np.lexsort((y, np.floor((x - 5.0e5) / 20))))):
    px, py, pz = x[order].copy(), y[order].copy(), z[order].copy()
    print(f"numpy cell lookup and subtraction, 1M points, {name} order: "
          f"{best(lambda: heights(px, py, pz), 10) * 1e3:.1f} ms")
