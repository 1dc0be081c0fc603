# SPDX-License-Identifier: BSD-3-Clause
"""Timing shared by the Python benchmark scripts."""
import time


def best(f, runs=5):
    """The shortest of several runs of f, in seconds."""
    times = []
    for _ in range(runs):
        start = time.perf_counter()
        f()
        times.append(time.perf_counter() - start)
    return min(times)
