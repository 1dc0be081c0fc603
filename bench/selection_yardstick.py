#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-3-Clause
"""Yardsticks of the selection benchmarks (selection_bench): numpy's range mask plus nonzero over
1M random floats with the range 2:3,5:7, and numpy's gather of 17 per-point fields (positions and
16 more, the same kinds as the benchmark's) for every other point of 1M. Best of 20 runs each."""

import numpy as np

from timing import best


rng = np.random.default_rng(3)
values = rng.uniform(0, 10, 1_000_000).astype(np.float32)
mask_s = best(lambda: np.nonzero(((values >= 2) & (values <= 3)) | ((values >= 5) & (values <= 7)))[0], 20)

n = 1_000_000
fields = [np.zeros((n, 3))] + [np.ones(n, np.uint8) for _ in range(9)] + \
    [np.ones(n, np.uint16) for _ in range(2)] + [np.ones(n)] + \
    [np.ones(n, np.float32) for _ in range(3)] + [np.zeros((n, 3))]
classes = fields[1]
classes[::2] = 2
gather_s = best(lambda: [f[np.nonzero(classes == 2)[0]] for f in fields], 20)
print(f"mask+nonzero of 1M floats: {mask_s * 1e3:.2f} ms")
print(f"gather of 17 fields for half of 1M points (with its nonzero): {gather_s * 1e3:.2f} ms")
