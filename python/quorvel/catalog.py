# SPDX-License-Identifier: BSD-3-Clause
"""Catalogues: a survey of LAS, LAZ and COPC files processed chunk by chunk, each chunk with a
buffer of its neighbours' points, in parallel on Dask (a local cluster, or an existing one).

The driver only plans: it indexes the files from their headers, cuts the survey into chunks,
keeps the manifest and submits one task per chunk. Workers read their chunk and its buffer
straight from the files, run the pipeline's stages in the C++ library and write the chunk's own
points; no point travels through the driver or the scheduler.

    import quorvel.catalog as qc
    cat = qc.Catalog(["tiles/"])
    report = cat.run("pipeline.json", "out/", buffer=10)

From the shell: quorvel catalog PIPELINE.json INPUT... -o OUTDIR [options] (see --help).
"""

import glob
import hashlib
import json
import math
import os
import sys
import time
from dataclasses import dataclass, field

from . import _quorvel

Error = _quorvel.Error

# The manifest of finished chunks, one JSON object a line, appended as chunks finish: a run cut
# off at any moment leaves every line before the last complete.
MANIFEST = "catalog-manifest.jsonl"
# The folder of the chunks' pictures beside the report page (index.html), one PNG a chunk.
THUMBNAILS = "thumbnails"
# What the report page colours the chunks by at first (the page switches between them).
PAGE_COLOURINGS = ("status", "points", "density", "ground", "pictures")
_EXTENSIONS = (".las", ".laz")


def _stem(path):
    name = os.path.basename(path)
    for ending in (".copc.laz", ".las", ".laz"):
        if name.lower().endswith(ending):
            return name[: -len(ending)]
    return name


def _expand(inputs):
    """Files of a list of paths, folders (their LAS and LAZ files) and glob patterns, each once,
    in sorted order within a folder or pattern and in the order given otherwise."""
    if isinstance(inputs, (str, os.PathLike)):
        inputs = [inputs]
    files, seen = [], set()
    for item in map(str, inputs):
        if os.path.isdir(item):
            found = sorted(
                os.path.join(item, n)
                for n in os.listdir(item)
                if n.lower().endswith(_EXTENSIONS) and os.path.isfile(os.path.join(item, n))
            )
        elif any(c in item for c in "*?["):
            found = sorted(p for p in glob.glob(item) if p.lower().endswith(_EXTENSIONS))
            if not found:
                raise Error(f"{item}: no LAS or LAZ file matches")
        elif os.path.isfile(item):
            found = [item]
        else:
            raise Error(f"{item}: no such file or folder")
        for path in map(os.path.abspath, found):
            if path not in seen:
                seen.add(path)
                files.append(path)
    if not files:
        raise Error("a catalogue needs at least one LAS or LAZ file")
    return files


def _corner(v):
    """A chunk corner as a file name gives it: the decimals it needs, no more (12.5, 100)."""
    text = f"{v:.9f}".rstrip("0").rstrip(".")
    return "0" if text in ("-0", "") else text


@dataclass
class Chunk:
    """One task of a run: its name, its square, the files it reads and its own file (file
    chunks) or None (grid chunks, whose own points are those of the half-open square)."""

    name: str
    square: tuple
    read: tuple
    files: list
    own_file: object = None


@dataclass
class Tile:
    """A chunk of a run as its report shows it: its square (x0, y0, x1, y1), its outcome
    (written, skipped, empty, failed), its points and ground points (class 2) written (None
    when unknown: failed chunks), its thumbnail (relative to the output folder; None without a
    report page) and its failure's message."""

    name: str
    square: tuple
    status: str
    points: object = None
    ground: object = None
    thumbnail: object = None
    message: object = None

    @property
    def density(self):
        """Points written per square unit of the chunk's square (None: unknown, or no area)."""
        area = (self.square[2] - self.square[0]) * (self.square[3] - self.square[1])
        return self.points / area if self.points is not None and area > 0 else None

    @property
    def ground_share(self):
        """Ground points (class 2) per point written (None: unknown, or no point)."""
        return self.ground / self.points if self.points and self.ground is not None else None


@dataclass
class Report:
    """What a run did: chunk names by outcome, failures with their messages, the VRT mosaics
    of the rasters that stages made, points read and written, the seconds it took, every
    chunk as a Tile, and the report page written (None: not asked for)."""

    written: list = field(default_factory=list)
    skipped: list = field(default_factory=list)
    empty: list = field(default_factory=list)
    failed: dict = field(default_factory=dict)
    mosaics: list = field(default_factory=list)
    points_read: int = 0
    points_written: int = 0
    seconds: float = 0.0
    tiles: list = field(default_factory=list)
    page: object = None

    @property
    def ok(self):
        return not self.failed

    def summary(self):
        chunks = len(self.written) + len(self.skipped) + len(self.empty) + len(self.failed)
        rate = self.points_read / self.seconds if self.seconds > 0 else 0.0
        return (
            f"quorvel catalog: {self.points_read} points, {chunks} chunks "
            f"({len(self.written)} written, {len(self.skipped)} skipped, "
            f"{len(self.empty)} empty, {len(self.failed)} failed), "
            f"{self.seconds:.3f} s, {rate:.0f} points/s"
        )


class Catalog:
    """The files of a survey, indexed from their headers: bounds, point counts and one
    coordinate system (files of another are refused by name). Files that cannot be read are
    kept in `unreadable` (path: message): a run reports each as a failed chunk."""

    def __init__(self, inputs):
        files = _expand(inputs)
        headers = _quorvel._catalog_headers(files)
        # Files whose header cannot be read fail their own chunk; the others still run.
        self.unreadable = {h["path"]: h["error"] for h in headers if "error" in h}
        self.headers = [h for h in headers if "error" not in h]
        self.files = [h["path"] for h in self.headers]
        if not self.headers:
            raise Error(f"{files[0]}: {self.unreadable[files[0]]}")
        first = self.headers[0]
        for h in self.headers[1:]:
            if h["crs"] != first["crs"]:
                raise Error(
                    f"{h['path']}: {h['crs']}, {first['path']}: {first['crs']}; "
                    "the files of a catalogue must share one coordinate system"
                )

    def __len__(self):
        return len(self.files)

    @property
    def points(self):
        return sum(h["points"] for h in self.headers)

    def chunks(self, buffer=0.0, chunk_size=None, alignment=(0.0, 0.0)):
        """The chunks of a run: the files themselves (chunk_size None), or the squares of side
        chunk_size whose corners lie at alignment + multiples of it, each grown by buffer for
        reading. Squares that meet no file are left out."""
        buffer = float(buffer)
        if not (math.isfinite(buffer) and buffer >= 0):
            raise Error(f"the buffer must be 0 or more, not {buffer}")
        boxes = [(h["min"][0], h["min"][1], h["max"][0], h["max"][1]) for h in self.headers]
        index = _BoxIndex(boxes)
        if chunk_size is None:
            return [self._fileChunk(k, box, buffer, index) for k, box in enumerate(boxes)]
        size = float(chunk_size)
        if not (math.isfinite(size) and size > 0):
            raise Error(f"the chunk size must be a positive number, not {chunk_size}")
        ax, ay = map(float, alignment)
        x0 = min(b[0] for b in boxes)
        y0 = min(b[1] for b in boxes)
        x1 = max(b[2] for b in boxes)
        y1 = max(b[3] for b in boxes)
        chunks = []
        for j in range(math.floor((y0 - ay) / size), math.floor((y1 - ay) / size) + 1):
            for i in range(math.floor((x0 - ax) / size), math.floor((x1 - ax) / size) + 1):
                cx, cy = ax + i * size, ay + j * size
                square = (cx, cy, cx + size, cy + size)
                if not index.meeting(square, closed=False):
                    continue
                read = (cx - buffer, cy - buffer, cx + size + buffer, cy + size + buffer)
                files = [self.files[k] for k in index.meeting(read)]
                chunks.append(Chunk(f"{_corner(cx)}_{_corner(cy)}", square, read, files))
        return chunks

    def _fileChunk(self, k, box, buffer, index):
        read = (box[0] - buffer, box[1] - buffer, box[2] + buffer, box[3] + buffer)
        meeting = index.meeting(read)
        files = [self.files[m] for m in meeting]
        return Chunk(_stem(self.files[k]), box, read, files, meeting.index(k))

    def run(self, pipeline, output, buffer=0.0, chunk_size=None, alignment=(0.0, 0.0),
            workers=None, scheduler=None, force=False, stop_early=False, progress=None,
            report=False, report_by="status"):
        """Runs pipeline (a pipeline file: stage objects, its input and output file names
        optional and ignored) on every chunk and writes each chunk's own points to output/ as
        {name}.las (file chunks: the file's stem and type) or {x}_{y}.las (grid chunks: the
        corner; LAZ when the files are). Chunks finished by an earlier run with the same
        pipeline, settings and input files (size and modification time) are skipped unless
        force. A failing chunk is reported and the others go on (stop_early: the run ends).
        workers: processes of the local cluster (default: one per core); scheduler: the
        address of an existing Dask cluster instead ("tcp://HOST:PORT"), whose workers see the
        same paths. progress: called with the report after each chunk. report: the workers
        also draw each chunk's points (output/thumbnails/NAME.png) and the run ends by writing
        output/index.html, an overview page of the chunks for a browser, coloured at first by
        report_by (status, points, density, ground or pictures). Returns a Report."""
        from .catalog_run import Run  # the Dask side, imported when a run starts

        if report_by not in PAGE_COLOURINGS:
            raise Error(f"report_by: \"{report_by}\" is none of {', '.join(PAGE_COLOURINGS)}")
        page = report_by if report else None
        return Run(self, pipeline, output, buffer, chunk_size, alignment, workers, scheduler,
                   force, stop_early, progress, page).go()


class _BoxIndex:
    """Boxes by the cells of a coarse grid, so that finding the boxes meeting a square costs
    the boxes near it, not all of them (10,000 tiles plan in well under a second)."""

    def __init__(self, boxes):
        self.boxes = boxes
        spans = sorted(max(b[2] - b[0], b[3] - b[1]) for b in boxes)
        self.cell = max(spans[len(spans) // 2], 1e-9)
        self.cells = {}
        for k, b in enumerate(boxes):
            for key in self._keys(b):
                self.cells.setdefault(key, []).append(k)

    def _keys(self, b):
        c = self.cell
        for i in range(math.floor(b[0] / c), math.floor(b[2] / c) + 1):
            for j in range(math.floor(b[1] / c), math.floor(b[3] / c) + 1):
                yield (i, j)

    def meeting(self, square, closed=True):
        """Boxes meeting square, ascending; closed=False leaves out boxes that only touch its
        upper edges (the half-open square of a grid chunk)."""
        found = set()
        for key in self._keys(square):
            found.update(self.cells.get(key, ()))
        x0, y0, x1, y1 = square
        out = []
        for k in sorted(found):
            b = self.boxes[k]
            if closed:
                hit = b[0] <= x1 and b[2] >= x0 and b[1] <= y1 and b[3] >= y0
            else:
                hit = b[0] < x1 and b[2] >= x0 and b[1] < y1 and b[3] >= y0
            if hit:
                out.append(k)
        return out


def run_hash(pipeline, buffer, chunk_size, alignment):
    """What decides a chunk's result besides its files: the pipeline's stages and the run's
    settings."""
    try:
        with open(pipeline, encoding="utf-8") as f:
            elements = json.load(f)
    except OSError as e:
        raise Error(f"{pipeline}: {e.strerror}") from None
    except ValueError as e:
        raise Error(f"{pipeline}: not a JSON text: {e}") from None
    stages = [e for e in elements if not isinstance(e, str)] if isinstance(elements, list) else elements
    settings = {
        "stages": stages,
        "buffer": float(buffer),
        "chunk_size": None if chunk_size is None else float(chunk_size),
        "alignment": [float(a) for a in alignment],
    }
    text = json.dumps(settings, sort_keys=True, separators=(",", ":"))
    return hashlib.sha256(text.encode()).hexdigest()


def main(argv=None):
    from .catalog_run import main as run_main

    return run_main(argv)


if __name__ == "__main__":
    sys.exit(main())
