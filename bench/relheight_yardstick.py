#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-3-Clause
# The yardstick of the relative height and belows benchmark (terrain_bench): the same two measures
# over a cloud of the same make (1M points, 350 m x 350 m, a quarter of them 1 to 15 m above
# gentle hills) done by numpy and scipy on one thread: a cKDTree over x and y, the square of each
# point as a ball of the maximum norm (query_ball_point with p = inf, half width 1 m rounded to
# single precision), then per point the lowest z and the share of points strictly below it.
# Needs python3-numpy and python3-scipy; not part of the build.
#
#   relheight_yardstick.py [POINTS]
import sys
import time

import numpy as np
from scipy.spatial import cKDTree


def cloud(n):
    random = np.random.default_rng(7)
    x = random.uniform(0, 350, n)
    y = random.uniform(0, 350, n)
    ground = 300 + 8 * np.sin(x / 60) * np.cos(y / 45) + random.normal(0, 0.05, n)
    vegetation = random.uniform(0, 1, n) < 0.25
    z = np.where(vegetation, ground + 1 + 14 * random.uniform(0, 1, n), ground)
    return np.column_stack([5.0e5 + x, 5.4e6 + y]), z


def measures(xy, z, half_width):
    tree = cKDTree(xy)
    squares = tree.query_ball_point(xy, float(np.float32(half_width)), p=np.inf, workers=1)
    heights = np.empty(len(z), dtype=np.float32)
    belows = np.empty(len(z), dtype=np.uint8)
    for i, square in enumerate(squares):
        near = z[square]
        heights[i] = z[i] - near.min()
        belows[i] = int(np.count_nonzero(near < z[i]) / len(near) * 255)
    return heights, belows


def main():
    n = int(sys.argv[1]) if len(sys.argv) > 1 else 1_000_000
    xy, z = cloud(n)
    start = time.perf_counter()
    heights, belows = measures(xy, z, 1.0)
    seconds = time.perf_counter() - start
    print(f"relative height and belows of {n} points: {seconds:.2f} s, "
          f"{n / seconds:.0f} points/s (mean height {heights.mean():.3f}, "
          f"mean below {belows.mean():.1f})")


if __name__ == "__main__":
    main()
