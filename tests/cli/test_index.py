# SPDX-License-Identifier: BSD-3-Clause
"""quorvel index against the files' headers read here with struct, and the GeoPackage read back
with sqlite3 alone (its geometry blobs parsed here), so that neither side shares code with GDAL's
reading of it.

QUORVEL names the host and QUORVEL_SAMPLE_DATA the sample folder.
"""

import json
import os
import pathlib
import sqlite3
import struct
import subprocess

import pytest

QUORVEL = os.environ.get("QUORVEL", "quorvel")
SAMPLES = pathlib.Path(os.environ.get("QUORVEL_SAMPLE_DATA", "data"))


def header(path):
    """Points, format and the x, y, z bounds of a LAS or LAZ header."""
    b = pathlib.Path(path).read_bytes()[:375]
    points = struct.unpack_from("<I", b, 107)[0]
    if b[25] >= 4 and not points:
        points = struct.unpack_from("<Q", b, 247)[0]
    mx, nx, my, ny, mz, nz = struct.unpack_from("<6d", b, 179)
    return {"points": points, "point_format": b[104] & 0x3F,
            "min": (nx, ny, nz), "max": (mx, my, mz)}


def polygon(blob):
    """The rings of a GeoPackage geometry blob holding a WKB polygon."""
    assert blob[:2] == b"GP"
    flags = blob[3]
    envelope = {0: 0, 1: 32, 2: 48, 3: 48, 4: 64}[(flags >> 1) & 7]
    wkb = blob[8 + envelope:]
    order = "<" if wkb[0] == 1 else ">"
    kind, rings = struct.unpack_from(order + "II", wkb, 1)
    assert kind == 3
    at, out = 9, []
    for _ in range(rings):
        (n,) = struct.unpack_from(order + "I", wkb, at)
        out.append([struct.unpack_from(order + "2d", wkb, at + 4 + 16 * k) for k in range(n)])
        at += 4 + 16 * n
    return out


def run(*args, ok=True):
    done = subprocess.run([QUORVEL, *map(str, args)], capture_output=True, text=True)
    assert (done.returncode == 0) == ok, done.stderr
    return done


def rectangle(h):
    (x0, y0, _), (x1, y1, _) = h["min"], h["max"]
    return [(x0, y0), (x1, y0), (x1, y1), (x0, y1), (x0, y0)]


@pytest.fixture(scope="module")
def tiles(tmp_path_factory):
    folder = tmp_path_factory.mktemp("index") / "tiles"
    run("-q", "tile", SAMPLES / "sample_c.las", "-o", folder, "--size", 30, "--format", "laz")
    return sorted(folder.glob("*.laz"))


def test_geopackage_holds_one_rectangle_per_file_with_its_header_facts(tiles, tmp_path):
    run("index", tiles[0].parent, "-o", tmp_path / "index.gpkg")
    db = sqlite3.connect(tmp_path / "index.gpkg")
    rows = db.execute("select file, type, points, point_format, min_z, max_z, geom "
                      "from footprints order by file").fetchall()
    assert [r[0] for r in rows] == [str(t) for t in tiles]
    for (file, kind, points, fmt, min_z, max_z, geom), tile in zip(rows, tiles):
        h = header(tile)
        assert (kind, points, fmt) == ("laz", h["points"], h["point_format"])
        assert (min_z, max_z) == (h["min"][2], h["max"][2])
        assert polygon(geom) == [rectangle(h)]


def test_the_layer_carries_the_files_coordinate_system(tmp_path):
    run("index", SAMPLES / "nebraska_wkt_geotiff.las", "-o", tmp_path / "crs.gpkg")
    db = sqlite3.connect(tmp_path / "crs.gpkg")
    (srs,) = db.execute("select srs_id from gpkg_geometry_columns "
                        "where table_name = 'footprints'").fetchone()
    (organization, code) = db.execute("select organization, organization_coordsys_id from "
                                      "gpkg_spatial_ref_sys where srs_id = ?", (srs,)).fetchone()
    assert (organization.upper(), code) == ("EPSG", 6880)


def test_json_gives_the_same_footprints(tiles):
    document = json.loads(run("index", *tiles, "--json").stdout)
    assert document["type"] == "FeatureCollection"
    for feature, tile in zip(document["features"], tiles):
        h = header(tile)
        assert feature["properties"]["file"] == str(tile)
        assert feature["properties"]["points"] == h["points"]
        assert [tuple(p) for p in feature["geometry"]["coordinates"][0]] == rectangle(h)


def test_files_of_two_coordinate_systems_are_refused_and_nothing_is_written(tmp_path):
    done = run("index", SAMPLES / "nebraska_wkt_geotiff.las", SAMPLES / "sample_c.las",
               "-o", tmp_path / "mixed.gpkg", ok=False)
    assert "sample_c.las" in done.stderr and "nebraska_wkt_geotiff.las" in done.stderr
    assert "one coordinate system" in done.stderr
    assert list(tmp_path.iterdir()) == []
