# SPDX-License-Identifier: BSD-3-Clause
"""quorvel ground against the ground classes of the providers of the shared corpus.

For every LAS and LAZ file whose provider classified ground (class 2), runs
`quorvel ground IN -o OUT --reset` (every class but noise replaced) and compares the result with
the provider's classes, point by point: type I error (ground called non-ground), type II error
(non-ground called ground), total error and Cohen's kappa, per file and their means, with the
time of each run (read, filter, write). Points of the noise classes (7, 18) are left out of the
counts, as the filter leaves them out. A file whose points are those of a file already counted is
left out, so that no cloud counts twice (autzen_trim_7 is autzen_trim in another point format).
Reference: the published means on the ISPRS filter test, 2.97% total error for the simple
morphological filter (Pingel et al. 2013, tuned per sample), 4.58% for cloth simulation.
Usage: python3 bench/ground_accuracy.py QUORVEL [DATA_DIR ...] [-- extra options for ground]
   (default directories: /work/shared/data/real /work/shared/data/laz)
"""

import pathlib
import struct
import subprocess
import sys
import tempfile
import time

import numpy as np

NOISE = (7, 18)
# Files whose points are those of another file of the corpus (counted once, as that file); the
# other LAZ files are checked against the `.decoded.las` file beside them.
DECODED_ELSEWHERE = {"autzen_trim.laz", "bcts_1.laz", "lone-star.laz", "plane.laz",
                     "las_with_several_extra_byte_bloc.laz", "bcts_4.decoded.las",
                     "simple.decoded.las", "1_4_w_evlr.decoded.las", "extra.decoded.las",
                     "simple.copc.decoded.las"}


def las_classes(path):
    """The classes of a LAS file's points, read from the bytes (not through quorvel)."""
    data = pathlib.Path(path).read_bytes()
    offset = struct.unpack_from("<I", data, 96)[0]
    fmt = data[104] & 0x3F
    length = struct.unpack_from("<H", data, 105)[0]
    count = struct.unpack_from("<I", data, 107)[0]
    if count == 0 and data[25] >= 4:
        count = struct.unpack_from("<Q", data, 247)[0]
    records = np.frombuffer(data, dtype=np.uint8, count=count * length, offset=offset)
    records = records.reshape(count, length)
    if fmt >= 6:
        return records[:, 16].copy()
    return records[:, 15] & 0x1F


def reference_classes(path):
    """The provider's classes: those of the LAS file, or of the LAS file a LAZ decodes to."""
    if path.suffix.lower() == ".las":
        return las_classes(path)
    return las_classes(path.with_name(path.stem + ".decoded.las"))


def scores(reference, found):
    """Type I, type II, total error (in %) and Cohen's kappa of found against reference."""
    keep = ~np.isin(reference, NOISE)
    truth, guess = reference[keep] == 2, found[keep] == 2
    a = np.count_nonzero(truth & guess)
    b = np.count_nonzero(truth & ~guess)
    c = np.count_nonzero(~truth & guess)
    d = np.count_nonzero(~truth & ~guess)
    n = a + b + c + d
    observed = (a + d) / n
    chance = ((a + b) * (a + c) + (c + d) * (b + d)) / (n * n)
    kappa = (observed - chance) / (1 - chance) if chance < 1 else 1.0
    type1 = 100.0 * b / (a + b) if a + b else 0.0
    type2 = 100.0 * c / (c + d) if c + d else 0.0
    return type1, type2, 100.0 * (b + c) / n, kappa, n


def main():
    args = sys.argv[1:]
    extra = args[args.index("--") + 1:] if "--" in args else []
    args = args[:args.index("--")] if "--" in args else args
    if not args:
        sys.exit(__doc__)
    quorvel = args[0]
    dirs = args[1:] or ["/work/shared/data/real", "/work/shared/data/laz"]
    files = [f for d in dirs for f in sorted(pathlib.Path(d).iterdir())
             if f.suffix.lower() in (".las", ".laz") and f.name not in DECODED_ELSEWHERE]
    print(f"{'file':34} {'points':>9} {'type I %':>9} {'type II %':>10} {'total %':>8} "
          f"{'kappa':>7} {'time s':>7}")
    rows = []
    with tempfile.TemporaryDirectory() as work:
        for path in files:
            reference = reference_classes(path)
            if not np.any(reference == 2):
                continue
            out = pathlib.Path(work) / (path.stem + ".ground.las")
            start = time.perf_counter()
            subprocess.run([quorvel, "--quiet", "ground", str(path), "-o", str(out), "--reset",
                            *extra], check=True)
            seconds = time.perf_counter() - start
            t1, t2, total, kappa, n = scores(reference, las_classes(out))
            rows.append((t1, t2, total, kappa))
            print(f"{path.name:34} {n:9d} {t1:9.2f} {t2:10.2f} {total:8.2f} {kappa:7.3f} "
                  f"{seconds:7.2f}")
    means = np.mean(rows, axis=0)
    print(f"{'mean of ' + str(len(rows)) + ' files':34} {'':9} {means[0]:9.2f} {means[1]:10.2f} "
          f"{means[2]:8.2f} {means[3]:7.3f}")


if __name__ == "__main__":
    main()
