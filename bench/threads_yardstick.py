# SPDX-License-Identifier: BSD-3-Clause
"""Every algorithm command on one and on two (or more) threads, whole processes, one fragment.

A file is one fragment by default, so a command's speed-up on more threads comes from the loops
inside the fragment alone. Each command of duplicates_yardstick.py runs on N points spread at 10
per square metre (default 1,000,000), written as one LAS file, with `--threads 1` and then with
T threads (default 2), the two in turn for RUNS rounds (default 3); the table gives the best time
of each, points per second and the ratio of one thread's time to T threads' (the goal: 1.8 on two
threads). The convert row is reading and writing alone, the floor under every command.
Threads are the algorithm's: most algorithms keep one of the run's threads back for the host, so
they run with `--threads T+1` (reading and writing then use T + 1); transfer and outliers, whose
parameter boxes hold a thread count, and thin and convert, which have no algorithm threads, run
with `--threads T`.
Usage: python3 bench/threads_yardstick.py QUORVEL WORKDIR [N [T]]
RUNS and ONLY (names of commands, comma-separated) in the environment.
"""

import os
import pathlib
import subprocess
import sys
import time

from duplicates_yardstick import COMMANDS, clouds

RUNS = int(os.environ.get("RUNS", "3"))
ONLY = [name for name in os.environ.get("ONLY", "").split(",") if name]
# Commands whose threads are the run's exactly; the others keep one back.
EXACT = {"convert", "thin", "transfer", "outliers", "outliers-radius"}


def argv_of(quorvel, name, args, source, out, threads):
    command = name.split("-")[0]
    argv = [quorvel, "--quiet", "--threads", str(threads), command, str(source)]
    return argv + [str(source) if a == "SELF" else a.replace("OUT", str(out)) for a in args]


def timed(argv):
    start = time.perf_counter()
    done = subprocess.run(argv, capture_output=True, text=True)
    seconds = time.perf_counter() - start
    if done.returncode != 0:
        raise RuntimeError((done.stderr.strip().splitlines() or ["failed"])[-1])
    return seconds


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    quorvel, work = sys.argv[1], pathlib.Path(sys.argv[2])
    n = int(float(sys.argv[3])) if len(sys.argv) > 3 else 1000000
    threads = int(sys.argv[4]) if len(sys.argv) > 4 else 2
    work.mkdir(parents=True, exist_ok=True)
    spread = clouds(work, n)["spread"]
    shaped = work / f"spread_{n}_shapes.las"  # what weights reads
    if not shaped.exists():
        timed(argv_of(quorvel, "shapefactors", COMMANDS[1][1], spread,
                      work / f"spread_{n}_shapes", 2))
    print(f"{'command':16} {'1 thread s':>10} {f'{threads} threads s':>11} {'pts/s (1)':>11} "
          f"{f'pts/s ({threads})':>11} {'ratio':>6}")
    for name, args in COMMANDS:
        if ONLY and name not in ONLY:
            continue
        source = shaped if name == "weights" else spread
        best = {1: None, threads: None}
        try:
            for _ in range(RUNS):
                for t in best:
                    run = t if name in EXACT or t == 1 else t + 1
                    s = timed(argv_of(quorvel, name, args, source, work / "out", run))
                    best[t] = s if best[t] is None else min(best[t], s)
        except RuntimeError as error:
            print(f"{name:16} error: {error}")
            continue
        one, many = best[1], best[threads]
        print(f"{name:16} {one:10.3f} {many:11.3f} {n / one:11.0f} {n / many:11.0f} "
              f"{one / many:6.2f}", flush=True)


if __name__ == "__main__":
    main()
