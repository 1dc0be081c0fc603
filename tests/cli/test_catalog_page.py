# SPDX-License-Identifier: BSD-3-Clause
"""quorvel catalog --report: the overview page opened in headless Chromium (Debian's
`chromium`), its DOM after the page's script ran and its screenshot checked against a survey of
four generated tiles whose points per class are known: one written, one left empty by the
pipeline, two failing in the worker, and the same run again (skipped).
QUORVEL names the host; PYTHONPATH holds the package.
"""

import json
import os
import re
import shutil
import struct
import subprocess
from html.parser import HTMLParser

import numpy as np
import pytest

import quorvel
from test_render import png_pixels

QUORVEL = os.environ.get("QUORVEL", "quorvel")
CHROMIUM = shutil.which("chromium") or shutil.which("chromium-browser")
TILE = 40.0
WINDOW = (900, 800)
STATUS = {"written": (0x2E, 0x7D, 0x32), "skipped": (0x15, 0x65, 0xC0),
          "empty": (0x9E, 0x9E, 0x9E), "failed": (0xC6, 0x28, 0x28)}

pytestmark = pytest.mark.skipif(CHROMIUM is None, reason="chromium is not installed (Debian "
                                "package chromium; scripts/install-deps installs it)")


def survey(folder):
    """Four 40 m tiles as quorvel.tile cuts them. Tile 0_40 holds only water (class 9), which
    the pipeline drops; the others mix ground, vegetation and buildings in their own shares.
    Returns the tiles and the points (x, y, class)."""
    rng = np.random.default_rng(5)
    n = 4000
    x, y = rng.uniform(0.5, 79.5, n), rng.uniform(0.5, 79.5, n)
    ground_share = np.where(x < TILE, 0.7, 0.3)
    kind = np.where(rng.uniform(size=n) < ground_share, 2, rng.choice([5, 6], n))
    kind = np.where((x < TILE) & (y >= TILE), 9, kind).astype(np.uint8)
    z = 100 + rng.uniform(0, 20, n)
    source = str(folder / "source.las")
    quorvel.Cloud(np.column_stack([x, y, z]), Classification=kind).write(source)
    tiles = sorted(quorvel.tile([source], str(folder / "tiles"), TILE))
    return tiles, x, y, kind


def chromium(args, folder, timeout=60):
    profile = folder / "chromium-profile"
    run = subprocess.run([CHROMIUM, "--headless", "--no-sandbox", "--disable-gpu",
                          "--hide-scrollbars", "--force-device-scale-factor=1",
                          f"--user-data-dir={profile}", f"--window-size={WINDOW[0]},{WINDOW[1]}",
                          *args], capture_output=True, text=True, timeout=timeout)
    assert run.returncode == 0, run.stderr
    return run.stdout


class Dom(HTMLParser):
    """The page's footprints (span data-tile in #footprints) and table rows (tr data-tile with
    their cells' texts and attributes)."""

    def __init__(self, text):
        super().__init__()
        self.footprints, self.rows, self.count, self._row, self._cell = {}, {}, None, None, None
        self.feed(text)

    def handle_starttag(self, tag, attrs):
        a = dict(attrs)
        if a.get("id") == "footprints":
            self.count = int(a["data-count"])
        if tag == "span" and "data-tile" in a:
            self.footprints[a["data-tile"]] = (float(a["data-x"]), float(a["data-y"]))
        elif tag == "tr" and "data-tile" in a:
            self._row = self.rows.setdefault(a["data-tile"], {"cells": [], "attrs": {}})
        elif tag == "td" and self._row is not None:
            self._row["attrs"].update(a)
            self._row["cells"].append("")
            self._cell = True

    def handle_endtag(self, tag):
        if tag == "td":
            self._cell = None
        elif tag == "tr":
            self._row = None

    def handle_data(self, data):
        if self._cell and self._row is not None:
            self._row["cells"][-1] += data


def png_rgb(path):
    """The colours of a PNG's pixels (as Chromium writes screenshots), (rows, columns, 3)."""
    return png_pixels(path)[..., :3]


def header_area(path):
    """The area of a LAS file's bounds, read from its header (max x, min x, max y, min y at
    byte 179): a file chunk's square."""
    with open(path, "rb") as f:
        f.seek(179)
        max_x, min_x, max_y, min_y = struct.unpack("<4d", f.read(32))
    return (max_x - min_x) * (max_y - min_y)


def expected(x, y, kind):
    """Per tile name: points the pipeline keeps (classes 1 to 6) and those of class 2."""
    kept = (kind >= 1) & (kind <= 6)
    counts = {}
    for cx in (0, 40):
        for cy in (0, 40):
            own = (x >= cx) & (x < cx + TILE) & (y >= cy) & (y < cy + TILE) & kept
            counts[f"{cx}_{cy}"] = (int(own.sum()), int((own & (kind == 2)).sum()))
    return counts


def check_table(dom, counts, statuses, areas):
    assert set(dom.rows) == set(statuses)
    for name, status in statuses.items():
        row = dom.rows[name]
        assert row["cells"][1] == status, name
        if status == "failed":
            assert row["attrs"]["data-points"] == "" and row["cells"][2] == ""
            continue
        points, ground = counts[name]
        assert int(row["attrs"]["data-points"]) == points, name
        assert int(row["attrs"]["data-ground"]) == ground, name
        if points:
            assert float(row["cells"][3]) == pytest.approx(points / areas[name], rel=1e-3)
            assert float(row["cells"][4].rstrip(" %")) == pytest.approx(100 * ground / points,
                                                                        abs=0.05)


def check_map(dom, screenshot, statuses):
    """One footprint per tile, north up (0_40 above 0_0, 40_0 right of it), each drawn in its
    status colour at its centre (the DOM gives each centre's place on the screen)."""
    assert dom.count == len(statuses) and set(dom.footprints) == set(statuses)
    f = dom.footprints
    assert f["0_40"][1] < f["0_0"][1] and f["40_0"][0] > f["0_0"][0]
    # File chunks are the files' bounds: a column of tiles lines up within a few pixels.
    assert abs(f["0_0"][0] - f["0_40"][0]) < 3 and abs(f["0_0"][1] - f["40_0"][1]) < 3
    pixels = png_rgb(screenshot)
    for name, (px, py) in f.items():
        assert tuple(pixels[int(py), int(px)]) == STATUS[statuses[name]], name


def failing_pipeline(folder):
    """Maps heights from a DTM over x < 30 only (chunks east of 40 fail: the raster does not
    meet their points), then keeps classes 1 to 6."""
    gx, gy = np.meshgrid(np.arange(0.5, 30, 1.0), np.arange(0.5, 80, 1.0))
    ground = str(folder / "ground.las")
    quorvel.Cloud(np.column_stack([gx.ravel(), gy.ravel(), np.full(gx.size, 100.0)]),
                  Classification=np.full(gx.size, 2, np.uint8)).write(ground)
    dtm = str(folder / "dtm.tif")
    subprocess.run([QUORVEL, "dtm", ground, "-o", dtm, "--cell", "2", "-q"], check=True)
    pipeline = folder / "p.json"
    pipeline.write_text(json.dumps([{"command": "map", "raster": dtm, "height": True},
                                    {"command": "select", "range": "1:6"}]))
    return str(pipeline)


def test_report_page_in_headless_chromium(tmp_path):
    tiles, x, y, kind = survey(tmp_path)
    names = [os.path.basename(t)[: -len(".las")] for t in tiles]
    assert names == ["0_0", "0_40", "40_0", "40_40"]
    out = tmp_path / "out"
    command = [QUORVEL, "catalog", failing_pipeline(tmp_path), *tiles, "-o", str(out),
               "--workers", "1", "--report"]
    first = subprocess.run(command, capture_output=True, text=True, timeout=120)
    assert first.returncode == 1 and "1 written, 0 skipped, 1 empty, 2 failed" in first.stderr
    assert f"the overview page: {out / 'index.html'}" in first.stderr
    page = (out / "index.html").read_text()
    # Nothing from a network: no external script, style or picture.
    assert not re.search(r"<link|src=\"?https?:|@import|url\(", page)
    counts = expected(x, y, kind)
    statuses = {"0_0": "written", "0_40": "empty", "40_0": "failed", "40_40": "failed"}
    url = (out / "index.html").as_uri()
    areas = {n: header_area(t) for n, t in zip(names, tiles)}
    dom = Dom(chromium(["--dump-dom", url], tmp_path))
    check_table(dom, counts, statuses, areas)
    shot = tmp_path / "first.png"
    chromium([f"--screenshot={shot}", url], tmp_path)
    check_map(dom, shot, statuses)
    assert [p.name for p in (out / "thumbnails").glob("*.png")] == ["0_0.png"]
    # Run again: the finished chunks are skipped, their statistics come from the manifest.
    second = subprocess.run(command, capture_output=True, text=True, timeout=120)
    assert "0 written, 2 skipped, 0 empty, 2 failed" in second.stderr, second.stderr
    again = statuses | {"0_0": "skipped", "0_40": "skipped"}
    text = chromium(["--dump-dom", url], tmp_path)
    check_table(Dom(text), counts, again, areas)
    assert "40_40: " in text.split('id="failures"')[1].split("</ul>")[0]


def test_report_by_colours_by_a_statistic_and_python_returns_tiles(tmp_path):
    import quorvel.catalog as qc

    tiles, x, y, kind = survey(tmp_path)
    pipeline = tmp_path / "p.json"
    pipeline.write_text(json.dumps([{"command": "select", "range": "1:6"}]))
    plain = qc.Catalog(tiles).run(str(pipeline), tmp_path / "out", workers=1)
    counts = expected(x, y, kind)
    assert {t.name: (t.points, t.ground) for t in plain.tiles} == counts and plain.page is None
    # Chunks finished without pictures are redone for them (an empty one has none).
    report = qc.Catalog(tiles).run(str(pipeline), tmp_path / "out", workers=1, report=True,
                                   report_by="ground")
    assert sorted(report.written) == ["0_0", "40_0", "40_40"] and report.skipped == ["0_40"]
    assert {t.name: (t.points, t.ground) for t in report.tiles} == counts
    assert report.page == str(tmp_path / "out" / "index.html")
    url = (tmp_path / "out" / "index.html").as_uri()
    shot = tmp_path / "ground.png"
    chromium([f"--screenshot={shot}", url], tmp_path)
    dom = Dom(chromium(["--dump-dom", url], tmp_path))
    pixels = png_rgb(shot)
    # The ramp runs dark to light: the share of ground 0.7 (x < 40) lighter than 0.3; the empty
    # tile has no share and is drawn in the light grey of unknown values.
    dark, light = (pixels[int(py), int(px)].astype(float) @ [0.2126, 0.7152, 0.0722]
                   for px, py in (dom.footprints["40_0"], dom.footprints["0_0"]))
    assert light > dark + 50
    px, py = dom.footprints["0_40"]
    assert tuple(pixels[int(py), int(px)]) == (0xE0, 0xE0, 0xE0)
    with pytest.raises(quorvel.Error, match="report_by: \"slope\" is none of status"):
        qc.Catalog(tiles).run(str(pipeline), tmp_path / "x", report=True, report_by="slope")
