#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-3-Clause
"""The catalogue engine's costs on this machine:

1. overhead: 16 tiles of 250k points, a 10 m buffer, one worker, against the same pipeline run
   by `quorvel pipeline` on each tile alone plus the reads of the buffers (box reads of the
   neighbouring files), with the split;
2. two workers against one on the same catalogue;
3. the driver alone on 10,000 tiny tiles: the index (headers), the plan (chunks, buffers) and
   the manifest's check, its time and the process's peak resident memory;
4. the report page's cost (--report: a thumbnail per chunk, ground counts, index.html): the
   catalogue with one worker with and without it, under this pipeline and under a light one
   (a selection of every point), where the pictures weigh most.

    PYTHONPATH=build/release/python python3 bench/catalog_bench.py [--quorvel build/release/cli/quorvel] [--report-only]
"""

import argparse
import json
import os
import resource
import subprocess
import tempfile
import time

import numpy as np

import quorvel
import quorvel.catalog as qc
from quorvel.catalog_run import Manifest, run_hash

PIPELINE = [{"command": "relheight", "half-width": 5},
            {"command": "shapefactors", "step": 1, "maxstep": 1, "linearity": True}]


def survey(folder, tiles_per_side=4, points=250_000, side=100.0):
    rng = np.random.default_rng(1)
    n = tiles_per_side * tiles_per_side * points
    xy = rng.uniform(0, tiles_per_side * side, (n, 2))
    z = 100 + 0.02 * xy[:, 0] + rng.gamma(1.0, 3.0, n)
    source = os.path.join(folder, "source.las")
    quorvel.Cloud(np.column_stack([xy, z]), GpsTime=np.arange(n, dtype=float)).write(source)
    tiles = sorted(quorvel.tile([source], os.path.join(folder, "tiles"), side))
    os.remove(source)
    return tiles


def timed(step):
    start = time.perf_counter()
    result = step()
    return time.perf_counter() - start, result


def pipeline_seconds(host, inputs, stages, folder, name):
    """quorvel pipeline run on each input, one process each, as a script over tiles would; one
    thread, as each worker of a catalogue runs."""
    seconds = 0.0
    for k, path in enumerate(inputs):
        run = os.path.join(folder, f"{name}{k}.json")
        json.dump([path] + stages + [os.path.join(folder, f"{name}{k}.las")], open(run, "w"))
        seconds += timed(lambda: subprocess.run([host, "pipeline", run, "-q", "--threads", "1"], check=True))[0]
    return seconds


def alone(host, tiles, pipeline_path, folder, buffer):
    """The pipeline on each tile alone; the box reads of the buffers; and the pipeline on each
    tile with its buffer merged in beforehand (not timed): the work a catalogue does."""
    stages = json.load(open(pipeline_path))
    each = pipeline_seconds(host, tiles, stages, folder, "alone")
    reads, buffered = 0.0, []
    for chunk in qc.Catalog(tiles).chunks(buffer):
        for k, f in enumerate(chunk.files):
            if k != chunk.own_file:
                reads += timed(lambda: quorvel.read(f, box=chunk.read))[0]
        buffered.append(os.path.join(folder, f"buffered-{chunk.name}.las"))
        quorvel.merge(chunk.files, buffered[-1], box=chunk.read)
    return each, reads, pipeline_seconds(host, buffered, stages, folder, "buffered")


def tiny_tiles(folder, count):
    template = os.path.join(os.path.dirname(folder), "template.las")
    quorvel.Cloud(np.array([[0.5, 0.5, 1.0], [9.5, 9.5, 2.0]])).write(template)
    data = bytearray(open(template, "rb").read())
    files = []
    side = int(np.ceil(np.sqrt(count)))
    offsets0 = np.frombuffer(bytes(data[155:179]), "<f8").copy()
    for k in range(count):
        i, j = divmod(k, side)
        path = os.path.join(folder, f"t{i:03d}_{j:03d}.las")
        # The same two points moved by the header's offsets (bytes 155 to 178), its bounds
        # (179 to 226: max x, min x, max y, min y, max z, min z) with them.
        offsets = offsets0.copy()
        offsets[:2] += (i * 10.0, j * 10.0)
        data[155:179] = offsets.tobytes()
        bounds = np.frombuffer(bytes(data[179:227]), "<f8").copy()
        bounds[[0, 1]] = (i * 10 + 9.5, i * 10 + 0.5)
        bounds[[2, 3]] = (j * 10 + 9.5, j * 10 + 0.5)
        data[179:227] = bounds.tobytes()
        open(path, "wb").write(data)
        files.append(path)
    return files


def report_cost(tiles, folder):
    """Seconds of the catalogue (one worker, 10 m buffer) without and with the report page, the
    runs alternating (on a shared machine a load that comes and goes hits both), each the best
    of its runs into a fresh folder, under a light pipeline (3 runs each) and PIPELINE (1)."""
    light = os.path.join(folder, "light.json")
    json.dump([{"command": "select", "range": "0:255"}], open(light, "w"))
    heavy = os.path.join(folder, "p.json")
    json.dump(PIPELINE, open(heavy, "w"))
    points = qc.Catalog(tiles).points
    for name, pipeline, runs in (("light (select)", light, 3), ("PIPELINE", heavy, 1)):
        seconds = {False: float("inf"), True: float("inf")}
        for k in range(runs):
            for report in (False, True):
                out = os.path.join(folder, f"{name[0]}{k}-{report:d}")
                spent = timed(lambda: qc.Catalog(tiles).run(pipeline, out, buffer=10, workers=1,
                                                             report=report))[0]
                seconds[report] = min(seconds[report], spent)
        print(f"  report page, {name}: without {seconds[False]:.2f} s, with {seconds[True]:.2f} s"
              f" (+{100 * (seconds[True] / seconds[False] - 1):.1f} %, "
              f"{points / seconds[True]:.0f} points/s)", flush=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--quorvel", default="build/release/cli/quorvel")
    parser.add_argument("--tiny", type=int, default=10_000)
    parser.add_argument("--report-only", action="store_true",
                        help="only the report page's cost (4.)")
    args = parser.parse_args()
    host = os.path.abspath(args.quorvel)
    if args.report_only:
        with tempfile.TemporaryDirectory() as folder:
            tiles = survey(folder)
            print(f"16 tiles, {qc.Catalog(tiles).points} points, buffer 10 m, 1 worker")
            report_cost(tiles, folder)
        return
    # The driver alone first, so that the peak resident size is its own.
    with tempfile.TemporaryDirectory() as root:
        folder = os.path.join(root, "tiny")
        os.mkdir(folder)
        files = tiny_tiles(folder, args.tiny)
        start = time.perf_counter()
        catalog = qc.Catalog(folder)
        indexed = time.perf_counter() - start
        chunks = catalog.chunks(buffer=2.0)
        planned = time.perf_counter() - start
        open(os.path.join(root, "p.json"), "w").write("[]")
        run = run_hash(os.path.join(root, "p.json"), 2.0, None, (0, 0))
        manifest = Manifest(folder)
        stale = sum(not manifest.finished(c, run, {f: [0, 0] for f in c.files}, folder)
                    for c in chunks)
        manifest.close()
        checked = time.perf_counter() - start
        rss = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
        print(f"{len(files)} tiny tiles: index {indexed:.2f} s, plan {planned - indexed:.2f} s "
              f"({len(chunks)} chunks, {sum(len(c.files) for c in chunks)} file reads), "
              f"manifest check {checked - planned:.2f} s ({stale} to run); peak resident "
              f"{rss / 1024:.0f} MB")
    with tempfile.TemporaryDirectory() as folder:
        tiles = survey(folder)
        pipeline = os.path.join(folder, "p.json")
        json.dump(PIPELINE, open(pipeline, "w"))
        points = qc.Catalog(tiles).points
        each, reads, buffered = alone(host, tiles, pipeline, folder, 10)
        one, _ = timed(lambda: qc.Catalog(tiles).run(pipeline, os.path.join(folder, "w1"),
                                                     buffer=10, workers=1))
        two, _ = timed(lambda: qc.Catalog(tiles).run(pipeline, os.path.join(folder, "w2"),
                                                     buffer=10, workers=2))
        print(f"16 tiles, {points} points, buffer 10 m; pipeline {json.dumps(PIPELINE)}")
        print(f"  each tile alone (quorvel pipeline): {each:.2f} s; buffers' box reads {reads:.2f} s;"
              f" each tile with its buffer: {buffered:.2f} s")
        print(f"  catalogue, 1 worker: {one:.2f} s ({points / one:.0f} points/s); ratio to alone"
              f" + buffer reads {one / (each + reads):.2f} (goal <= 1.25), to the buffered tiles"
              f" {one / buffered:.2f}")
        print(f"  catalogue, 2 workers: {two:.2f} s, speed-up over 1 worker {one / two:.2f} "
              f"(goal >= 1.8)")
        report_cost(tiles, folder)


if __name__ == "__main__":
    main()
