# SPDX-License-Identifier: BSD-3-Clause
"""Every algorithm command on one and on two (or more) threads, whole processes, one fragment.

A file is one fragment by default, so a command's speed-up on more threads comes from the loops
inside the fragment alone. Each command of duplicates_yardstick.py runs on N points spread at 10
per square metre (default 1,000,000), written as one LAS file, with `--threads 1` and then with
each of the thread counts T (default 2; several comma-separated, such as 2,4,8,15), all in turn
for RUNS rounds (default 3); the table gives the best time of each, points per second on one
thread and the ratio of one thread's time to each T's (the goals: 1.8 on two threads, 10 on 15). The convert row is reading and writing alone, the floor under every command.
Threads are the algorithm's: most algorithms keep one of the run's threads back for the host, so
they run with `--threads T+1` (reading and writing then use T + 1); transfer and outliers, whose
parameter boxes hold a thread count, and thin and convert, which have no algorithm threads, run
with `--threads T`.
Usage: python3 bench/threads_yardstick.py QUORVEL WORKDIR [N [T[,T...]]]
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
    counts = [int(t) for t in (sys.argv[4] if len(sys.argv) > 4 else "2").split(",")]
    work.mkdir(parents=True, exist_ok=True)
    spread = clouds(work, n)["spread"]
    shaped = work / f"spread_{n}_shapes.las"  # what weights reads
    if not shaped.exists():
        timed(argv_of(quorvel, "shapefactors", COMMANDS[1][1], spread,
                      work / f"spread_{n}_shapes", 2))
    print(f"{'command':16} {'pts/s (1)':>11} {'1 thread s':>10}"
          + "".join(f" {f'{t} thr s':>9} {f'x{t}':>6}" for t in counts))
    for name, args in COMMANDS:
        if ONLY and name not in ONLY:
            continue
        source = shaped if name == "weights" else spread
        best = dict.fromkeys([1] + counts)
        try:
            for _ in range(RUNS):
                for t in best:
                    run = t if name in EXACT or t == 1 else t + 1
                    s = timed(argv_of(quorvel, name, args, source, work / "out", run))
                    best[t] = s if best[t] is None else min(best[t], s)
        except RuntimeError as error:
            print(f"{name:16} error: {error}")
            continue
        one = best[1]
        print(f"{name:16} {n / one:11.0f} {one:10.3f}"
              + "".join(f" {best[t]:9.3f} {one / best[t]:6.2f}" for t in counts), flush=True)

if __name__ == "__main__":
    main()
