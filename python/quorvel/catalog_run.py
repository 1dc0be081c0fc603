# SPDX-License-Identifier: BSD-3-Clause
"""Catalogues on Dask: the run of a catalogue's chunks (quorvel.catalog.Catalog.run), its
manifest, its progress on a terminal, and `quorvel catalog` (python3 -m quorvel.catalog)."""

import argparse
import json
import logging
import os
import sys
import time

from . import _quorvel
from .catalog import (MANIFEST, PAGE_COLOURINGS, THUMBNAILS, Catalog, Error, Report, Tile, _stem,
                      run_hash)


def _run_chunk(pipeline, files, read, own_file, square, output, threads, thumbnail):
    """One chunk, in a worker: the C++ library reads, runs and writes (the GIL released), and
    with thumbnail a path draws the points written there."""
    from quorvel import _quorvel as q

    return q._catalog_run_chunk(pipeline, files, read, own_file, square, output, threads,
                                thumbnail)


def _stamp(path):
    s = os.stat(path)
    return [s.st_size, s.st_mtime_ns]


class Manifest:
    """The finished chunks of the runs into one output folder: per chunk the run's hash, the
    size and modification time of every file it read, what it wrote, its points and ground
    points (class 2) and its thumbnail (runs with a report page)."""

    def __init__(self, folder):
        self.path = os.path.join(folder, MANIFEST)
        self.done = {}
        try:
            with open(self.path, encoding="utf-8") as f:
                for line in f:
                    try:
                        entry = json.loads(line)
                        self.done[entry["chunk"]] = entry
                    except (ValueError, KeyError, TypeError):
                        continue  # a line cut off by a crash
        except FileNotFoundError:
            pass
        self.file = open(self.path, "a", encoding="utf-8")

    def finished(self, chunk, run, inputs, folder, thumbnails=False):
        """Whether an earlier run left the chunk's results; thumbnails: its thumbnail too (a
        chunk finished by a run without a report page is redone for its picture)."""
        entry = self.done.get(chunk.name)
        if not entry or entry.get("run") != run or entry.get("inputs") != inputs:
            return False
        files = [entry.get("output")] + [name for _, name in entry.get("rasters", [])]
        if thumbnails and entry.get("output") is not None:
            if not entry.get("thumbnail"):
                return False
            files.append(entry["thumbnail"])
        return all(f is None or os.path.exists(os.path.join(folder, f)) for f in files)

    def add(self, chunk, run, inputs, output, counts, rasters, thumbnail):
        entry = {"chunk": chunk.name, "run": run, "inputs": inputs, "output": output,
                 "points": counts["written"], "ground": counts["ground"], "rasters": rasters,
                 "thumbnail": thumbnail}
        self.done[chunk.name] = entry
        self.file.write(json.dumps(entry, separators=(",", ":")) + "\n")
        self.file.flush()
        os.fsync(self.file.fileno())

    def close(self):
        self.file.close()


class Progress:
    """A bar over the chunks on a terminal's standard error: chunks done and failed, points/s
    and the time left; nothing when standard error is not a terminal."""

    def __init__(self, total, show):
        self.total, self.show, self.start = total, show, time.monotonic()
        self.last = 0.0

    def update(self, report, final=False):
        if not self.show:
            return
        now = time.monotonic()
        if not final and now - self.last < 0.2:
            return
        self.last = now
        done = len(report.written) + len(report.skipped) + len(report.empty) + len(report.failed)
        seconds = now - self.start
        rate = report.points_read / seconds if seconds > 0 else 0.0
        ran = done - len(report.skipped)
        left = (self.total - done) * seconds / ran if ran else 0.0
        width = 30
        filled = width * done // self.total if self.total else width
        line = (f"\r[{'#' * filled}{'-' * (width - filled)}] {done}/{self.total} chunks, "
                f"{len(report.failed)} failed, {rate / 1e6:.2f} M points/s, {left:.0f} s left ")
        sys.stderr.write(line + ("\n" if final else ""))
        sys.stderr.flush()


class Run:
    def __init__(self, catalog, pipeline, output, buffer, chunk_size, alignment, workers,
                 scheduler, force, stop_early, progress, page):
        self.catalog = catalog
        self.pipeline = os.path.abspath(str(pipeline))
        self.output = os.path.abspath(str(output))
        self.chunks = catalog.chunks(buffer, chunk_size, alignment)
        self.buffered = float(buffer) > 0
        self.run = run_hash(self.pipeline, buffer, chunk_size, alignment)
        self.workers, self.scheduler = workers, scheduler
        self.force, self.stop_early, self.progress = force, stop_early, progress
        self.page = page
        self.counts = {}  # chunk name: points, ground points and thumbnail, of chunks run now
        if workers is not None and (int(workers) != workers or workers < 1):
            raise Error(f"workers must be a whole number of 1 or more, not {workers}")
        # Checks the pipeline before any worker starts: a mistake is said once, not per chunk.
        _quorvel._catalog_check_pipeline(self.pipeline)

    def _outputName(self, chunk):
        files = chunk.files if chunk.own_file is None else [chunk.files[chunk.own_file]]
        laz = all(f.lower().endswith(".laz") for f in files)
        return chunk.name + (".laz" if laz else ".las")

    def go(self):
        start = time.monotonic()
        if os.path.exists(self.output) and not os.path.isdir(self.output):
            raise Error(f"{self.output}: is not a folder")
        os.makedirs(self.output, exist_ok=True)
        report = Report()
        manifest = Manifest(self.output)
        try:
            todo = self._plan(manifest, report)
            if todo:
                self._schedule(todo, manifest, report, start)
            self._mosaics(manifest, report)
            self._tiles(manifest, report)
        finally:
            manifest.close()
            report.seconds = time.monotonic() - start
        if self.page:
            from .catalog_page import write_page

            report.page = write_page(report, self.output, self.page)
        return report

    def _plan(self, manifest, report):
        # A file that cannot be read fails as its own chunk (named as a file chunk would be).
        for path, message in self.catalog.unreadable.items():
            report.failed[_stem(path)] = message
        todo = []
        for chunk in self.chunks:
            inputs = {f: _stamp(f) for f in chunk.files}
            if not self.force and manifest.finished(chunk, self.run, inputs, self.output,
                                                    self.page):
                report.skipped.append(chunk.name)
            else:
                todo.append((chunk, inputs))
        return todo

    def _client(self):
        from dask.distributed import Client, LocalCluster

        if self.scheduler:
            return Client(self.scheduler), None
        workers = self.workers or os.cpu_count() or 1
        # The scheduler's HTTP server on a free loopback port: the default (8787, on every
        # address) warns on standard error whenever another cluster holds that port.
        cluster = LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                               host="127.0.0.1", dashboard_address="127.0.0.1:0",
                               silence_logs=logging.ERROR)
        return Client(cluster), cluster

    def _schedule(self, todo, manifest, report, start):
        from dask.distributed import as_completed

        client, cluster = self._client()
        if self.page:
            os.makedirs(os.path.join(self.output, THUMBNAILS), exist_ok=True)
        bar = Progress(len(self.chunks), sys.stderr.isatty() and self.progress is None)
        try:
            futures = {}
            for chunk, inputs in todo:
                target = os.path.join(self.output, self._outputName(chunk))
                future = client.submit(_run_chunk, self.pipeline, chunk.files, chunk.read,
                                       chunk.own_file, chunk.square, target, 1,
                                       self._thumbnail(chunk), pure=False,
                                       key=f"chunk-{chunk.name}-{self.run[:12]}")
                futures[future] = (chunk, inputs, target)
            for future in as_completed(list(futures)):
                chunk, inputs, target = futures.pop(future)
                if not self._collect(future, chunk, inputs, target, manifest, report):
                    if self.stop_early:
                        client.cancel(list(futures))
                        break
                bar.update(report)
                if self.progress:
                    self.progress(report)
            bar.update(report, final=True)
        finally:
            self._sweep(todo)
            client.close()
            if cluster is not None:
                cluster.close()

    def _thumbnail(self, chunk):
        """Where the worker draws the chunk's points for the report page ("": no page)."""
        if not self.page:
            return ""
        return os.path.join(self.output, THUMBNAILS, chunk.name + ".png")

    def _sweep(self, todo):
        """Removes what chunks cut off (a worker killed while writing) left beside their
        outputs: the writers' temporary files, named after the output."""
        names = {self._outputName(chunk) for chunk, _ in todo}
        for entry in os.scandir(self.output):
            head, tmp, _ = entry.name.partition(".tmp.")
            if tmp and head in names:
                try:
                    os.remove(entry.path)
                except OSError:
                    pass

    def _collect(self, future, chunk, inputs, target, manifest, report):
        try:
            counts = future.result()
        except Exception as e:  # the chunk's own error, or a worker that died too often
            report.failed[chunk.name] = f"{type(e).__name__}: {e}" if not isinstance(e, Error) else str(e)
            return False
        report.points_read += counts["read"]
        report.points_written += counts["written"]
        name = os.path.basename(target) if counts["written"] else None
        (report.written if name else report.empty).append(chunk.name)
        rasters = [[stem, os.path.basename(path)] for stem, path in counts["rasters"]]
        thumbnail = self._thumbnail(chunk) if name else ""
        thumbnail = os.path.relpath(thumbnail, self.output) if thumbnail else None
        self.counts[chunk.name] = {"points": counts["written"], "ground": counts["ground"],
                                   "thumbnail": thumbnail}
        # Chunks beside an unreadable file may have missed its points: none is recorded, so
        # that a rerun after the file is repaired redoes them.
        if not (self.catalog.unreadable and (self.buffered or chunk.own_file is None)):
            manifest.add(chunk, self.run, inputs, name, counts, rasters, thumbnail)
        return True

    def _tiles(self, manifest, report):
        """Every chunk of the run with its square, outcome and points (those of chunks
        skipped from the manifest), in the order of the plan."""
        outcome = {name: status for status in ("written", "skipped", "empty")
                   for name in getattr(report, status)}
        for chunk in self.chunks:
            status = outcome.get(chunk.name, "failed" if chunk.name in report.failed else None)
            if status is None:
                continue  # not run: the run stopped early
            counts = self.counts.get(chunk.name) or manifest.done.get(chunk.name) or {}
            report.tiles.append(Tile(chunk.name, tuple(chunk.square), status,
                                     counts.get("points"), counts.get("ground"),
                                     counts.get("thumbnail") if self.page else None,
                                     report.failed.get(chunk.name)))

    def _mosaics(self, manifest, report):
        """One GDAL VRT per raster the stages made (OUTDIR/NAME.vrt), over the pieces of
        every chunk of this run, finished now or before."""
        pieces = {}
        for chunk in self.chunks:
            entry = manifest.done.get(chunk.name)
            if entry and entry.get("run") == self.run and chunk.name not in report.failed:
                for stem, name in entry.get("rasters", []):
                    pieces.setdefault(stem, []).append(os.path.join(self.output, name))
        for stem, files in sorted(pieces.items()):
            vrt = os.path.join(self.output, stem + ".vrt")
            _quorvel._catalog_mosaic(vrt, files)
            report.mosaics.append(vrt)


def _pair(text):
    parts = text.split(",")
    if len(parts) != 2:
        raise argparse.ArgumentTypeError(f"takes X,Y, not \"{text}\"")
    return tuple(float(p) for p in parts)


def main(argv=None):
    parser = argparse.ArgumentParser(
        prog="quorvel catalog",
        description="Runs a pipeline over a survey of LAS, LAZ and COPC files, chunk by chunk, "
        "each chunk read with a buffer of its neighbours' points, in parallel on Dask.")
    parser.add_argument("pipeline", metavar="PIPELINE.json",
                        help="the stages (as quorvel pipeline; its file names are ignored)")
    parser.add_argument("inputs", metavar="INPUT", nargs="+",
                        help="LAS or LAZ files, folders or glob patterns")
    parser.add_argument("-o", "--output", required=True, metavar="OUTDIR",
                        help="the folder of the chunks' outputs and the manifest")
    parser.add_argument("--buffer", type=float, default=0.0,
                        help="metres of neighbouring points read around each chunk (default 0)")
    parser.add_argument("--chunk-size", type=float, default=None,
                        help="squares of this side as chunks (default: the files themselves)")
    parser.add_argument("--alignment", type=_pair, default=(0.0, 0.0), metavar="X,Y",
                        help="a corner of the chunks' squares (default 0,0)")
    parser.add_argument("--workers", type=int, default=None,
                        help="worker processes of the local cluster (default: one per core)")
    parser.add_argument("--scheduler", default=None, metavar="ADDRESS",
                        help="an existing Dask scheduler, tcp://HOST:PORT, instead")
    parser.add_argument("--force", action="store_true", help="redo chunks already finished")
    parser.add_argument("--stop-early", action="store_true",
                        help="end the run at the first failing chunk")
    parser.add_argument("--report", action="store_true",
                        help="also write OUTDIR/index.html, an overview page of the chunks with "
                        "their statistics and pictures (OUTDIR/thumbnails/)")
    parser.add_argument("--report-by", choices=PAGE_COLOURINGS, default="status",
                        help="what the page colours the chunks by at first (default status)")
    parser.add_argument("-q", "--quiet", action="store_true", help="no progress, no summary")
    args = parser.parse_args(argv)
    try:
        catalog = Catalog(args.inputs)
        report = catalog.run(args.pipeline, args.output, args.buffer, args.chunk_size,
                             args.alignment, args.workers, args.scheduler, args.force,
                             args.stop_early, (lambda r: None) if args.quiet else None,
                             args.report, args.report_by)
    except Error as e:
        print(f"quorvel: error: {e}", file=sys.stderr)
        return 1
    for name, message in sorted(report.failed.items()):
        print(f"quorvel catalog: chunk {name}: {message}", file=sys.stderr)
    if not args.quiet:
        print(report.summary(), file=sys.stderr)
        if report.page:
            print(f"quorvel catalog: the overview page: {report.page}", file=sys.stderr)
    return 0 if report.ok else 1
