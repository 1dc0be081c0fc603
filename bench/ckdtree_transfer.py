#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-3-Clause
# The yardstick of bench/classification_bench: scipy's cKDTree builds a tree over 1M source
# points and answers, on one thread, the nearest source point within 1 m of each of 1M target
# points of the same synthetic airborne-like cloud (~0.4 m spacing). Needs numpy and scipy
# (Debian: python3-scipy); not part of the build.
import time

import numpy as np
from scipy.spatial import cKDTree


def cloud(seed):
    random = np.random.default_rng(seed)
    x = random.uniform(0, 400, 1_000_000)
    y = random.uniform(0, 400, 1_000_000)
    z = 200 + 0.02 * x + random.normal(0, 0.3, 1_000_000)
    return np.column_stack([5e5 + x, 5.4e6 + y, z])


source, target = cloud(1), cloud(2)
best = float("inf")
for _ in range(3):
    start = time.perf_counter()
    tree = cKDTree(source)
    tree.query(target, k=1, distance_upper_bound=1.0, workers=1)
    best = min(best, time.perf_counter() - start)
print(f"cKDTree: build and 1M nearest within 1 m on one thread: {best * 1e3:.0f} ms")
