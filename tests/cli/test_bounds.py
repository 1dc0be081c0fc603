# SPDX-License-Identifier: BSD-3-Clause
"""Memory bounded by what a file really holds, and mapping off the raster.

Files that claim far more than their bytes hold (a LAZ header's point count, a TIFF or VRT of
billions of pixels, a cell size far too small) are made here from small real files or from
nothing, and run under a memory limit: each must be refused, naming the file and the numbers,
before anything is sized from the claim. Mapping a raster that covers a cloud only in part (or one
pixel, or one row) is checked point by point against the cells worked out here.

QUORVEL names the host, QUORVEL_SAMPLE_DATA the samples; QUORVEL_SANITIZED (a sanitizer build,
whose shadow memory a limit on virtual memory would count) skips the runs under a limit.
"""

import math
import os
import pathlib
import re
import shutil
import struct
import subprocess

import numpy as np
import pytest

from test_filters import read_las, write_las

QUORVEL = os.environ.get("QUORVEL", "quorvel")
SAMPLES = pathlib.Path(os.environ.get("QUORVEL_SAMPLE_DATA", "data"))
BUDGET = 1 << 28
LIMIT_KB = 1_000_000  # ulimit -v: about 1 GB of address space

limited = pytest.mark.skipif("QUORVEL_SANITIZED" in os.environ,
                             reason="a sanitizer's shadow memory exceeds any limit")


def run_limited(*args, env=None):
    """The host under ulimit -v; (exit code, standard error)."""
    command = "ulimit -v %d; exec \"$0\" \"$@\"" % LIMIT_KB
    done = subprocess.run(["bash", "-c", command, QUORVEL, "-q", *map(str, args)],
                          capture_output=True, text=True, env=env, timeout=60)
    return done.returncode, done.stderr


def refused(*args, env=None):
    code, err = run_limited(*args, env=env)
    assert code == 1, err
    assert "bad_alloc" not in err
    return err


# ---- LAZ: point counts against the bytes of the chunks --------------------------------------


def laz_layout(data):
    """(offset of the laszip record's data, offset of the points, the chunk table's offset)."""
    header, points, vlrs = struct.unpack_from("<HIL", data, 94)
    at, laszip = header, None
    for _ in range(vlrs):
        user, record, length = struct.unpack_from("<16sHH", data, at + 2)
        if user.rstrip(b"\0") == b"laszip encoded" and record == 22204:
            laszip = at + 54
        at += 54 + length
    (table,) = struct.unpack_from("<q", data, points)
    return laszip, points, table


@limited
def test_laz_claims_beyond_the_bytes_are_refused(tmp_path):
    data = bytearray((SAMPLES / "simple.laz").read_bytes())
    laszip, points, table = laz_layout(data)
    (count,) = struct.unpack_from("<I", data, 107)
    assert count == 1065 and data[104] & 0x80

    # 2e8 points in one chunk of the file's few kilobytes: one chunk of at least that many.
    bomb = bytearray(data)
    struct.pack_into("<I", bomb, 107, 200_000_000)
    struct.pack_into("<I", bomb, laszip + 12, 0xFFFFFFF0)
    (tmp_path / "bomb.laz").write_bytes(bomb)
    chunk_bytes = table - points - 8
    err = refused("convert", tmp_path / "bomb.laz", tmp_path / "out.las")
    assert (f"{tmp_path / 'bomb.laz'}: chunk 0 of 1 holds {chunk_bytes} bytes, too few for the "
            f"200000000 points it is given (at most {1 + 2048 * chunk_bytes}, 2048 a byte)") in err

    # Claims the bound lets through: memory runs out, or the points run out of bytes; either way
    # the file is named, with what was being read.
    for claim, reason in ((2000 * chunk_bytes, "out of memory while reading its points (the file "
                           f"holds {len(bomb)} bytes)"),
                          (100 * chunk_bytes, "chunk 0 of 1: truncated (its points need more "
                           "bytes than it holds)")):
        struct.pack_into("<I", bomb, 107, claim)
        (tmp_path / "bomb.laz").write_bytes(bomb)
        # Read whole, and streamed in batches of chunks (merge, tile).
        for command in (["convert", tmp_path / "out.las"], ["merge", "-o", tmp_path / "m.las"],
                        ["tile", "-o", tmp_path / "tiles", "--size", "100"]):
            err = refused(command[0], tmp_path / "bomb.laz", *command[1:])
            assert f"{tmp_path / 'bomb.laz'}: {reason}" in err, command

    # A count one short: the last point is not dropped without a word.
    short = bytearray(data)
    struct.pack_into("<I", short, 107, count - 1)
    (tmp_path / "short.laz").write_bytes(short)
    err = refused("convert", tmp_path / "short.laz", tmp_path / "out.las")
    assert re.search(re.escape(str(tmp_path / "short.laz")) +
                     r": chunk 0 of 1: \d+ of its %d bytes are left after its 1064 points: it "
                     r"holds more points than the file counts" % chunk_bytes, err), err

    # The same in a layered chunk (point format 6), whose own count tells the truth.
    layered = bytearray((SAMPLES / "1_4_w_evlr.laz").read_bytes())
    assert layered[104] & 0x3F == 6 and struct.unpack_from("<Q", layered, 247)[0] == 1000
    struct.pack_into("<Q", layered, 247, 999)
    (tmp_path / "short6.laz").write_bytes(layered)
    err = refused("convert", tmp_path / "short6.laz", tmp_path / "out.las")
    assert (f"{tmp_path / 'short6.laz'}: chunk 0 of 1: it holds 1000 points, the file counts 999 "
            "in it") in err

    # The file as it is reads whole.
    code, err = run_limited("convert", SAMPLES / "simple.laz", tmp_path / "out.las")
    assert code == 0, err
    assert len(read_las(tmp_path / "out.las")[0]) == count


# ---- rasters: pixels and cells against the budget --------------------------------------------


def sparse_tiff(path, width, height):
    """A GeoTIFF of width x height bytes whose one strip lies beyond its end (as a sparse file's
    would): a few hundred bytes claiming width * height pixels."""
    scale, tie = struct.pack("<3d", 1.0, 1.0, 0.0), struct.pack("<6d", 0, 0, 0, 1000.0, 2000.0, 0)
    entries = [(256, 4, 1, width), (257, 4, 1, height), (258, 3, 1, 8), (259, 3, 1, 1),
               (262, 3, 1, 1), (273, 4, 1, 4096), (277, 3, 1, 1), (278, 4, 1, height),
               (279, 4, 1, width * height), (339, 3, 1, 1)]
    ifd = 8
    data_at = ifd + 2 + 12 * (len(entries) + 2) + 4
    entries += [(33550, 12, 3, data_at), (33922, 12, 6, data_at + len(scale))]
    out = struct.pack("<2sHI", b"II", 42, ifd) + struct.pack("<H", len(entries))
    for tag, kind, n, value in entries:
        field = struct.pack("<H", value) + b"\0\0" if kind == 3 else struct.pack("<I", value)
        out += struct.pack("<HHI", tag, kind, n) + field
    pathlib.Path(path).write_bytes(out + struct.pack("<I", 0) + scale + tie)


def budget_text(path, columns, rows, unit):
    return (f"{path}: {columns} x {rows} {unit} ({columns * rows}) exceed the budget of {BUDGET} "
            f"cells (set QUORVEL_MAX_CELLS to allow more)")


@limited
def test_raster_files_beyond_the_budget_are_refused_before_reading(tmp_path):
    tiff = tmp_path / "long.tif"
    sparse_tiff(tiff, 2_000_000_000, 1)
    err = refused("raster", "import", tiff, "-o", tmp_path / "long.h5")
    assert budget_text(tiff, 2_000_000_000, 1, "pixels") in err

    vrt = tmp_path / "huge.vrt"
    vrt.write_text('<VRTDataset rasterXSize="200000" rasterYSize="100000"><GeoTransform>0, 1, 0, '
                   '0, 0, -1</GeoTransform><VRTRasterBand dataType="Float32" band="1"/>'
                   "</VRTDataset>")
    assert vrt.stat().st_size < 250
    err = refused("map", SAMPLES / "sample_c.las", vrt, "-o", tmp_path / "never.las", "--height")
    assert budget_text(vrt, 200000, 100000, "pixels") in err

    # Within a budget set higher, the same file is read (and found to lie beside the cloud).
    env = dict(os.environ, QUORVEL_MAX_CELLS=str(200000 * 100000))
    vrt.write_text(vrt.read_text().replace('"200000"', '"20"').replace('"100000"', '"10"'))
    code, err = run_limited("raster", "import", vrt, "-o", tmp_path / "small.h5", env=env)
    assert code == 0, err


def header_extent(path):
    data = pathlib.Path(path).read_bytes()
    max_x, min_x, max_y, min_y = struct.unpack_from("<4d", data, 179)
    return min_x, max_x, min_y, max_y


@limited
def test_grids_beyond_the_budget_are_refused_with_their_numbers(tmp_path):
    sample = SAMPLES / "sample_c.las"
    min_x, max_x, min_y, max_y = header_extent(sample)
    # dtm --cell 0.003: cells at multiples of it from the lowest point's to one past the highest.
    cell = 0.003
    err = refused("dtm", sample, "-o", tmp_path / "dtm.h5", "--cell", cell)
    found = re.search(re.escape(f"{sample}: ground raster: ") +
                      r"(\d+) x (\d+) cells \((\d+)\) exceed the budget of %d cells" % BUDGET, err)
    assert found, err
    columns, rows, total = map(int, found.groups())
    assert abs(columns - ((max_x - min_x) / cell + 2)) <= 2
    assert abs(rows - ((max_y - min_y) / cell + 2)) <= 2
    assert total == columns * rows > BUDGET

    # The surfaces and the picture share the budget, set here by the environment.
    env = dict(os.environ, QUORVEL_MAX_CELLS="100")
    columns = math.floor(max_x) - math.floor(min_x) + 2
    rows = math.floor(max_y) - math.floor(min_y) + 2
    for command, what in (("dsm", "surface"), ("density", "density")):
        err = refused(command, sample, "-o", tmp_path / f"{command}.h5", "--cell", 1, env=env)
        assert (f"{sample}: {what}: {columns} x {rows} cells ({columns * rows}) exceed the budget "
                f"of 100 cells (set QUORVEL_MAX_CELLS to allow more)") in err
    err = refused("render", sample, "-o", tmp_path / "top.png", "--pixel", 1, env=env)
    assert re.search(r"render: \d+ x \d+ pixels \(\d+\) exceed the budget of 100 cells", err), err

    bad = dict(os.environ, QUORVEL_MAX_CELLS="lots")
    err = refused("dsm", sample, "-o", tmp_path / "dsm.h5", "--cell", 1, env=bad)
    assert 'QUORVEL_MAX_CELLS="lots" is not a whole number of cells above 0' in err


# ---- map: rasters off, partly off, of one pixel and of one row -------------------------------


def ascii_grid(path, columns, rows, x0, y0, cell, heights):
    """An ESRI ASCII grid: lower-left corner (x0, y0), heights row by row from the north."""
    lines = [f"ncols {columns}", f"nrows {rows}", f"xllcorner {x0}", f"yllcorner {y0}",
             f"cellsize {cell}", "NODATA_value -9999"]
    lines += [" ".join(str(h) for h in heights[r]) for r in range(rows)]
    pathlib.Path(path).write_text("\n".join(lines) + "\n")


def canopy_heights(path):
    """CanopyHeight of every point: the one float32 extra-bytes field at the records' end."""
    data = pathlib.Path(path).read_bytes()
    _, points, _ = struct.unpack_from("<HIL", data, 94)
    length, n = struct.unpack_from("<HL", data, 105)
    if data[25] >= 4:
        n = struct.unpack_from("<Q", data, 247)[0] or n
    view = np.dtype({"names": ["h"], "formats": ["<f4"], "offsets": [length - 4],
                     "itemsize": length})
    return np.frombuffer(data, view, n, points)["h"].copy()


@pytest.fixture
def field(tmp_path):
    """Points every 2 m over 0 to 40 x 0 to 40 on flat ground at z 0, heights 1.5 to 9.5 m, in
    fragments of 100 points (so that fragments lie wholly off a raster over part of them)."""
    grid = np.arange(1.0, 40.0, 2.0)
    x, y = np.meshgrid(grid, grid)
    z = 1.5 + (x + y) % 9
    xyz = np.column_stack([x.ravel(), y.ravel(), z.ravel()])
    path = tmp_path / "field.las"
    return path, write_las(path, xyz, classes=np.full(len(xyz), 1), version=2)


def mapped(tmp_path, cloud, raster, *options):
    out = tmp_path / "mapped.las"
    done = subprocess.run([QUORVEL, "-q", "--fragment-points", "100", "map", cloud, raster,
                           "-o", out, *options], capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr
    return out


@pytest.mark.parametrize("case", ["one pixel", "one row", "west half"])
def test_points_off_the_raster_keep_their_classes_and_get_no_height(field, tmp_path, case):
    cloud, xyz = field
    # Ground at 0 everywhere the raster has cells; which points lie over a cell. A raster of one
    # pixel or one row has no 3 x 3 block to fit a plane to: its points get -1000, the height of
    # a point over a cell without a plane, where points off the raster get NaN.
    planeless = case != "west half"
    if case == "one pixel":  # one cell of 100 m holding every point
        ascii_grid(tmp_path / "g.asc", 1, 1, -30, -30, 100, [[0]])
        over = np.ones(len(xyz), bool)
    elif case == "one row":  # one row of 10 m cells over y 0 to 10
        ascii_grid(tmp_path / "g.asc", 5, 1, 0, 0, 10, [[0] * 5])
        over = (xyz[:, 1] >= 0) & (xyz[:, 1] < 10)
    else:  # cells of 4 m over x 0 to 20 only
        ascii_grid(tmp_path / "g.asc", 5, 10, 0, 0, 4, [[0] * 5] * 10)
        over = xyz[:, 0] < 20
    heights = canopy_heights(mapped(tmp_path, cloud, tmp_path / "g.asc", "--height"))
    got, classes = read_las(tmp_path / "mapped.las")[:2]
    assert np.array_equal(got, xyz)
    assert np.all(np.isnan(heights[~over]))
    np.testing.assert_allclose(heights[over], -1000 if planeless else xyz[over, 2], atol=1e-4)
    assert np.all(classes == 1)

    bands = mapped(tmp_path, cloud, tmp_path / "g.asc", "--bands", "0.5:5=3;5:100=5")
    classes = read_las(bands)[1]
    want = np.where(over, np.where(xyz[:, 2] < 5, 3, 5), 1)
    assert np.array_equal(classes, want)
