# SPDX-License-Identifier: BSD-3-Clause
"""quorvel dsm, chm, density and dtm (--method lowest|tin|idw) against numpy, cell for cell, on
LAS files written here; the rasters read back with h5py from the bundle's datasets and the GeoTIFF
keys parsed here with struct, so that no reading shares code with the host.

QUORVEL names the host.
"""

import os
import pathlib
import struct
import subprocess

import h5py
import numpy as np
import pytest

QUORVEL = os.environ.get("QUORVEL", "quorvel")
OFFSET = (512000.0, 5403000.0, 0.0)
SCALE = (0.001, 0.001, 0.001)
RECORD = np.dtype([("X", "<i4"), ("Y", "<i4"), ("Z", "<i4"), ("intensity", "<u2"),
                   ("bits", "u1"), ("cls", "u1"), ("angle", "i1"), ("user", "u1"),
                   ("source", "<u2"), ("time", "<f8")])


def vlr(user, record, payload):
    return struct.pack("<H16sHH32s", 0, user.encode(), record, len(payload), b"") + payload


def write_las(path, xyz, cls, returns, records=(), global_encoding=0):
    """A LAS 1.2 file of point format 1; records: (user, record id, payload)."""
    points = np.zeros(len(xyz), RECORD)
    for k, axis in enumerate("XYZ"):
        points[axis] = np.round((xyz[:, k] - OFFSET[k]) / SCALE[k]).astype("<i4")
    points["bits"] = returns | (3 << 3)
    points["cls"] = cls
    real = np.column_stack([points[a] * SCALE[k] + OFFSET[k] for k, a in enumerate("XYZ")])
    lo, hi = real.min(axis=0), real.max(axis=0)
    vlrs = b"".join(vlr(*r) for r in records)
    numbers = np.bincount(returns, minlength=6)[1:6]
    head = struct.pack("<4sHH16sBB32s32sHHHIIBHI5I3d3d6d", b"LASF", 0, global_encoding, bytes(16),
                       1, 2, b"", b"test_surfaces", 1, 2024, 227, 227 + len(vlrs), len(records),
                       1, RECORD.itemsize, len(points), *numbers, *SCALE, *OFFSET,
                       hi[0], lo[0], hi[1], lo[1], hi[2], lo[2])
    with open(path, "wb") as f:
        f.write(head + vlrs)
        points.tofile(f)
    return real


def quorvel(*args, ok=True):
    done = subprocess.run([QUORVEL, "-q", *map(str, args)], capture_output=True, text=True)
    assert (done.returncode == 0) == ok, done.stderr
    return done


def raster(path, field):
    """(cell types, values, origin, cell size, fragment shapes) of the first grid of a raster
    bundle, its fragments placed by their names."""
    with h5py.File(path, "r") as f:
        grid = next(iter(next(iter(f["Slices"].values())).values()))
        attrs = {k: v[()] for k, v in grid["Attributes"].items()}
        per = attrs["UniformCellsPerFragment"].astype(int)
        skeleton = next(iter(grid["Skeletons"].values()))
        fields = next(iter(skeleton["Representations"].values()))["Fields"]
        out, shapes = [], []
        for name in ("CellType", field):
            group = fields[name]
            names = group.attrs["FragmentNames"]
            names = (names.decode() if isinstance(names, bytes) else names).split("\n")[:-1]
            pieces = {}
            for k, fragment in enumerate(names):
                a, b, _ = map(int, fragment.split("_")[1:])
                pieces[(a, b)] = group["Data"][f"Fragment{k}"][()][0]
            columns = max(a * per[0] + p.shape[1] for (a, b), p in pieces.items())
            rows = max(b * per[1] + p.shape[0] for (a, b), p in pieces.items())
            whole = np.zeros((rows, columns), next(iter(pieces.values())).dtype)
            for (a, b), p in pieces.items():
                whole[b * per[1]:b * per[1] + p.shape[0], a * per[0]:a * per[0] + p.shape[1]] = p
            out.append(whole)
            shapes = [p.shape for p in pieces.values()]
        return out[0], out[1], attrs["UniformOrigin"][:2], attrs["UniformCellSize"][:2], shapes


def layout(xyz, cell):
    """The cells that cover the points with one column and row past the highest: first cell and
    (rows, columns)."""
    low = np.floor(xyz[:, :2].min(axis=0) / cell)
    high = np.floor(xyz[:, :2].max(axis=0) / cell) + 1
    return low, (int(high[1] - low[1]) + 1, int(high[0] - low[0]) + 1)


def per_cell(xyz, cell, values, reduce, empty):
    low, shape = layout(xyz, cell)
    i = (np.floor(xyz[:, 0] / cell) - low[0]).astype(int)
    j = (np.floor(xyz[:, 1] / cell) - low[1]).astype(int)
    out = np.full(shape, empty, float)
    reduce.at(out, (j, i), values)
    return out


@pytest.fixture(scope="module")
def forest(tmp_path_factory):
    """Ground (class 2) on a slope, vegetation (5) above it, some buildings (6), returns 1 to 3,
    with a hole in the south-west where no point lies."""
    rng = np.random.default_rng(30)
    n = 6000
    xy = rng.uniform((0, 0), (61.3, 47.9), (n, 2))
    xy = xy[~((xy[:, 0] < 12) & (xy[:, 1] < 9))]
    cls = rng.choice([2, 5, 6], len(xy), p=[0.5, 0.4, 0.1]).astype(np.uint8)
    ground = 100 + 0.2 * xy[:, 0] - 0.1 * xy[:, 1]
    z = ground + np.where(cls == 2, 0, rng.uniform(-1.5, 25, len(xy)))
    returns = rng.integers(1, 4, len(xy)).astype(np.uint8)
    xyz = np.column_stack([xy + OFFSET[:2], z])
    path = tmp_path_factory.mktemp("surfaces") / "forest.las"
    xyz = write_las(path, xyz, cls, returns)
    return path, xyz, cls, returns


def test_dsm_density_and_lowest_dtm_cell_for_cell(forest, tmp_path):
    path, xyz, cls, returns = forest
    check_surfaces(path, xyz, cls, returns, 2.0, tmp_path)


def test_surfaces_of_many_points_are_the_same_on_any_thread_count(tmp_path):
    # Enough points for the cells to be folded in several blocks, then merged.
    rng = np.random.default_rng(31)
    n = 400000
    xy = rng.uniform((0, 0), (300, 200), (n, 2))
    cls = rng.choice([2, 5], n).astype(np.uint8)
    returns = rng.integers(1, 3, n).astype(np.uint8)
    z = np.round(rng.uniform(0, 30, n), 1)  # many equal heights in a cell
    path = tmp_path / "crowd.las"
    xyz = write_las(path, np.column_stack([xy + OFFSET[:2], z]), cls, returns)
    one = check_surfaces(path, xyz, cls, returns, 5.0, tmp_path, ["--threads", "1"])
    three = check_surfaces(path, xyz, cls, returns, 5.0, tmp_path, ["--threads", "3"])
    # The inverse-distance ground from points gathered and cells summed on the threads.
    for threads, values in (("1", one), ("3", three)):
        out = tmp_path / f"idw{threads}.h5"
        quorvel("--threads", threads, "dtm", path, "-o", out, "--cell", 5, "--method", "idw")
        values.append(raster(out, "Height")[1])
    assert np.isfinite(one[-1]).sum() > 0.9 * one[-1].size
    for a, b in zip(one, three):
        assert a.tobytes() == b.tobytes()


def check_surfaces(path, xyz, cls, returns, cell, tmp_path, host=()):
    """Runs dsm, density and the lowest dtm with host's options and checks every cell against
    numpy; returns the rasters' values."""
    low, shape = layout(xyz, cell)
    results = []
    cases = [
        ("dsm", [], np.ones(len(xyz), bool)),
        ("dsm", ["--classes", "5:6", "--first-returns"], (cls >= 5) & (returns == 1)),
        ("density", [], np.ones(len(xyz), bool)),
        ("density", ["--first-returns"], returns == 1),
        ("dtm", ["--fill-rings", "0"], cls == 2),
    ]
    for command, options, taken in cases:
        out = tmp_path / f"{command}.h5"
        quorvel(*host, command, path, "-o", out, "--cell", cell, "--fragment-cells", 7, *options)
        field = "Density" if command == "density" else "Height"
        types, values, origin, size, _ = raster(out, field)
        results.append(values)
        assert types.shape == shape, (command, options)
        np.testing.assert_allclose(origin, (low + 0.5) * cell)
        np.testing.assert_allclose(size, (cell, cell))
        pts = xyz[taken]
        if command == "density":
            counts = per_cell(pts, cell, np.ones(len(pts)), np.add, 0)
            # The layout is that of every point, whichever points are counted.
            counts = np.pad(counts, [(0, shape[0] - counts.shape[0]),
                                     (0, shape[1] - counts.shape[1])])
            assert (types == 0).all()
            np.testing.assert_allclose(values, counts / cell ** 2, rtol=1e-6)
            continue
        reduce, empty = (np.fmax, -np.inf) if command == "dsm" else (np.fmin, np.inf)
        expected = np.full(shape, empty)
        i = (np.floor(pts[:, 0] / cell) - low[0]).astype(int)
        j = (np.floor(pts[:, 1] / cell) - low[1]).astype(int)
        reduce.at(expected, (j, i), pts[:, 2])
        measured = np.isfinite(expected)
        assert ((types == 0) == measured).all(), (command, options)
        assert (types[~measured] == 1).all()
        np.testing.assert_allclose(values[measured], expected[measured], atol=1e-4)
        assert np.isnan(values[~measured]).all()
    return results


def test_chm_is_the_dsm_above_the_dtm_clamped_and_pits_filled(forest, tmp_path):
    path, xyz, cls, _ = forest
    cell = 3.0
    quorvel("dtm", path, "-o", tmp_path / "dtm.h5", "--cell", cell, "--fill-rings", 2)
    quorvel("dsm", path, "-o", tmp_path / "dsm.h5", "--cell", cell)
    _, ground, _, _, _ = raster(tmp_path / "dtm.h5", "Height")
    dsm_types, dsm, _, _, _ = raster(tmp_path / "dsm.h5", "Height")
    expected = np.where(dsm_types == 0, np.maximum(dsm - ground, 0), np.nan)
    quorvel("chm", path, "--dtm", tmp_path / "dtm.h5", "-o", tmp_path / "chm.h5", "--cell", cell)
    types, chm, _, _, _ = raster(tmp_path / "chm.h5", "Height")
    valid = np.isfinite(expected)
    assert ((types == 0) == valid).all()
    np.testing.assert_allclose(chm[valid], expected[valid], atol=1e-4)
    assert (chm[valid] >= 0).all() and valid.sum() > 100

    # Pit-free: a cell more than 2 m below the median of its neighbours with heights takes it.
    quorvel("chm", path, "--dtm", tmp_path / "dtm.h5", "-o", tmp_path / "pits.h5", "--cell", cell,
            "--pit-depth", 2)
    _, smooth, _, _, _ = raster(tmp_path / "pits.h5", "Height")
    rows, columns = expected.shape
    for j in range(rows):
        for i in range(columns):
            if not valid[j, i]:
                continue
            block = expected[max(0, j - 1):j + 2, max(0, i - 1):i + 2].copy()
            block[min(j, 1), min(i, 1)] = np.nan
            around = block[np.isfinite(block)]
            median = np.median(around) if len(around) else np.nan
            want = median if len(around) and expected[j, i] < median - 2 else expected[j, i]
            assert smooth[j, i] == pytest.approx(want, abs=1e-4), (j, i)


def test_tin_reproduces_a_plane_and_stays_above_a_convex_paraboloid(tmp_path):
    rng = np.random.default_rng(5)
    # Ground points on a jittered 1 m lattice, georeferenced.
    gx, gy = np.meshgrid(np.arange(0, 40.0), np.arange(0, 30.0))
    xy = np.column_stack([gx.ravel(), gy.ravel()]) + rng.uniform(-0.25, 0.25, (gx.size, 2))
    cell = 1.5
    surfaces = {
        "plane": (lambda x, y: 50 + 0.3 * x - 0.2 * y, 0.0),
        # Linear interpolation of a convex function lies above it, by at most the curvature
        # (1/25 per m^2 here) times the squared longest edge (under 1.8 m) over 8, times 2.
        "paraboloid": (lambda x, y: 50 + ((x - 20) ** 2 + (y - 15) ** 2) / 50, 0.04 * 1.8 ** 2 / 4),
    }
    for name, (f, bound) in surfaces.items():
        xyz = np.column_stack([xy + OFFSET[:2], f(xy[:, 0], xy[:, 1])])
        write_las(tmp_path / f"{name}.las", xyz, np.full(len(xyz), 2, np.uint8),
                  np.ones(len(xyz), np.uint8))
        quorvel("dtm", tmp_path / f"{name}.las", "-o", tmp_path / f"{name}.h5", "--cell", cell,
                "--method", "tin", "--fill-rings", 0)
        types, heights, origin, size, _ = raster(tmp_path / f"{name}.h5", "Height")
        rows, columns = types.shape
        cx = origin[0] + size[0] * np.arange(columns) - OFFSET[0]
        cy = origin[1] + size[1] * np.arange(rows) - OFFSET[1]
        x, y = np.meshgrid(cx, cy)
        # Every centre well inside the points' hull has a height; none outside the points' box.
        inside = (x > 1) & (x < 38) & (y > 1) & (y < 28)
        assert (types[inside] == 0).all(), name
        outside = (x < xy[:, 0].min()) | (x > xy[:, 0].max()) | (y < xy[:, 1].min()) | (
            y > xy[:, 1].max())
        assert (types[outside] == 1).all(), name
        error = heights[types == 0] - f(x[types == 0], y[types == 0])
        assert error.min() >= -2e-3 and error.max() <= bound + 2e-3, (name, error.min(),
                                                                       error.max())


def test_idw_is_the_weighted_mean_of_the_block(tmp_path):
    rng = np.random.default_rng(8)
    xy = rng.uniform(0, 20, (300, 2))
    z = rng.uniform(10, 20, len(xy))
    xyz = write_las(tmp_path / "g.las", np.column_stack([xy + OFFSET[:2], z]),
                    np.full(len(xy), 2, np.uint8), np.ones(len(xy), np.uint8))
    cell = 2.0
    quorvel("dtm", tmp_path / "g.las", "-o", tmp_path / "idw.h5", "--cell", cell, "--method",
            "idw", "--fill-rings", 0)
    types, heights, origin, size, _ = raster(tmp_path / "idw.h5", "Height")
    low, shape = layout(xyz, cell)
    assert types.shape == shape
    i = np.floor(xyz[:, 0] / cell) - low[0]
    j = np.floor(xyz[:, 1] / cell) - low[1]
    for r in range(shape[0]):
        for c in range(shape[1]):
            near = (np.abs(i - c) <= 1) & (np.abs(j - r) <= 1)
            if not near.any():
                assert types[r, c] == 1
                continue
            centre = origin + size * (c, r)
            d2 = ((xyz[near, :2] - centre) ** 2).sum(axis=1)
            want = (xyz[near, 2] / d2).sum() / (1 / d2).sum()
            assert types[r, c] == 0 and heights[r, c] == pytest.approx(want, abs=1e-3)


def mapped_heights(cloud, raster_path, tmp_path, name):
    out = tmp_path / f"{name}.h5"
    quorvel("map", cloud, raster_path, "-o", out, "--height")
    with h5py.File(out, "r") as f:
        grid = next(iter(next(iter(f["Slices"].values())).values()))
        skeleton = next(iter(grid["Skeletons"].values()))
        fields = next(iter(skeleton["Representations"].values()))["Fields"]
        data = fields["CanopyHeight"]["Data"]
        return np.concatenate([data[k][()].ravel() for k in sorted(data)])


def test_dtm_covers_every_point_whatever_the_method(forest, tmp_path):
    path, xyz, cls, _ = forest
    for method in ("lowest", "tin", "idw"):
        dtm = tmp_path / f"{method}.tif"
        quorvel("dtm", path, "-o", dtm, "--cell", 2.5, "--method", method, "--fill-rings", 10)
        heights = mapped_heights(path, dtm, tmp_path, method)
        assert len(heights) == len(xyz)
        # Every point lies over measured or filled ground: none left without a height.
        assert np.isfinite(heights).all(), (method, np.isnan(heights).sum())
        assert (heights > -1000).all(), method


def test_import_keeps_one_cell_per_pixel_and_maps_the_same_points(forest, tmp_path):
    path, xyz, _, _ = forest
    source = tmp_path / "dtm.tif"
    quorvel("dtm", path, "-o", source, "--cell", 1.9, "--fill-rings", 3)
    results = {}
    for n in (1, 7, 256):
        out = tmp_path / f"imported{n}.h5"
        quorvel("raster", "import", source, "-o", out, "--fragment-cells", n)
        types, heights, _, _, shapes = raster(out, "Height")
        rows, columns = types.shape
        # One cell per pixel: the fragments' cells add up to the pixels, none of them padding.
        assert sum(a * b for a, b in shapes) == rows * columns, n
        results[n] = (types.shape, mapped_heights(path, out, tmp_path, f"map{n}"))
    shape = results[256][0]
    assert results[1][0] == results[7][0] == shape
    mapped = {n: np.isfinite(h) for n, (_, h) in results.items()}
    assert (mapped[1] == mapped[7]).all() and (mapped[7] == mapped[256]).all()
    # Heights agree where the point's cell and its 3 x 3 block lie inside its 7-cell fragment (and
    # so inside the one 256-cell fragment).
    low, _ = layout(xyz, 1.9)
    i = np.floor(xyz[:, 0] / 1.9) - low[0]
    j = np.floor(xyz[:, 1] / 1.9) - low[1]
    inner = (i % 7 >= 1) & (i % 7 <= 5) & (j % 7 >= 1) & (j % 7 <= 5)
    inner &= (i <= shape[1] - 2) & (j <= shape[0] - 2)
    assert inner.sum() > 1000
    np.testing.assert_allclose(results[7][1][inner], results[256][1][inner], atol=1e-3)


def geokeys(path):
    """The GeoTIFF keys of a little-endian TIFF: {key id: value}."""
    data = pathlib.Path(path).read_bytes()
    assert data[:4] == b"II*\0"
    (at,) = struct.unpack_from("<I", data, 4)
    (count,) = struct.unpack_from("<H", data, at)
    for k in range(count):
        tag, kind, n, value = struct.unpack_from("<HHII", data, at + 2 + 12 * k)
        if tag == 34735:
            shorts = struct.unpack_from(f"<{n}H", data, value)
            keys = shorts[4:4 + 4 * shorts[3]]
            return {keys[m]: keys[m + 3] for m in range(0, len(keys), 4) if keys[m + 1] == 0}
    return {}


COMPOUND = ('COMPD_CS["ETRF2000-PL / CS92 + PL-EVRF2007-NH height",'
            'PROJCS["ETRF2000-PL / CS92",GEOGCS["ETRF2000-PL",DATUM["ETRF2000_Poland",'
            'SPHEROID["GRS 1980",6378137,298.257222101]],PRIMEM["Greenwich",0],'
            'UNIT["degree",0.0174532925199433]],PROJECTION["Transverse_Mercator"],'
            'PARAMETER["latitude_of_origin",0],PARAMETER["central_meridian",19],'
            'PARAMETER["scale_factor",0.9993],PARAMETER["false_easting",500000],'
            'PARAMETER["false_northing",-5300000],UNIT["metre",1],AUTHORITY["EPSG","2180"]],'
            'VERT_CS["PL-EVRF2007-NH height",VERT_DATUM["PL-EVRF2007-NH",2005],'
            'UNIT["metre",1],AUTHORITY["EPSG","9651"]],AUTHORITY["EPSG","9700"]]')


def test_geotiffs_keep_the_vertical_system_and_skip_unreadable_ones(tmp_path):
    rng = np.random.default_rng(3)
    xyz = np.column_stack([rng.uniform(0, 10, (50, 2)) + OFFSET[:2], rng.uniform(0, 1, 50)])
    cls, returns = np.full(50, 2, np.uint8), np.ones(50, np.uint8)
    # warsaw_small's WKT record: two quotes and a zero, with the WKT bit of the global encoding.
    write_las(tmp_path / "empty.las", xyz, cls, returns, [("LASF_Projection", 2112, b"''\0")], 16)
    for command in ("dtm", "dsm", "density"):
        done = quorvel(command, tmp_path / "empty.las", "-o", tmp_path / f"{command}.tif",
                       "--cell", 1)
        assert done.stderr == (f"{tmp_path / 'empty.las'}: warning: its coordinate system "
                               "records (WKT or GeoTIFF keys) hold no coordinate system GDAL "
                               "reads (empty or broken): the result has none\n"), done.stderr
        keys = geokeys(tmp_path / f"{command}.tif")
        assert 3072 not in keys and 2048 not in keys
    write_las(tmp_path / "compound.las", xyz, cls, returns,
              [("LASF_Projection", 2112, COMPOUND.encode() + b"\0")], 16)
    quorvel("dsm", tmp_path / "compound.las", "-o", tmp_path / "compound.tif", "--cell", 1)
    keys = geokeys(tmp_path / "compound.tif")
    assert keys.get(3072) == 2180  # ProjectedCSTypeGeoKey
    assert keys.get(4096) == 9651  # VerticalCSTypeGeoKey
    # GeoTIFF keys of a LAS file: UTM 17N (26917) with NAVD88 heights (5703).
    keys = struct.pack("<16H", 1, 1, 0, 3, 1024, 0, 1, 1, 3072, 0, 1, 26917, 4096, 0, 1, 5703)
    write_las(tmp_path / "keys.las", xyz, cls, returns, [("LASF_Projection", 34735, keys)])
    quorvel("dtm", tmp_path / "keys.las", "-o", tmp_path / "keys.tif", "--cell", 1)
    keys = geokeys(tmp_path / "keys.tif")
    assert keys.get(3072) == 26917 and keys.get(4096) == 5703, keys


def test_refusals_name_the_file_and_the_problem(forest, tmp_path):
    path, _, _, _ = forest
    done = quorvel("dsm", path, "-o", tmp_path / "x.tif", "--cell", 1, "--classes", 77, ok=False)
    assert done.returncode == 1
    assert done.stderr.endswith(f"{path}: surface: no point of the classes 77.000000:77.000000 "
                                "with finite coordinates\n"), done.stderr
    done = quorvel("dtm", path, "-o", tmp_path / "x.tif", "--cell", 1, "--method", "spline",
                   ok=False)
    assert done.returncode == 2 and '"spline" is not one of lowest, tin, idw' in done.stderr
    # A ground raster elsewhere: no cell of the cloud has ground under it.
    rng = np.random.default_rng(1)
    far = np.column_stack([rng.uniform(0, 5, (20, 2)) + [0, 0], rng.uniform(0, 1, 20)])
    write_las(tmp_path / "far.las", far, np.full(20, 2, np.uint8), np.ones(20, np.uint8))
    quorvel("dtm", tmp_path / "far.las", "-o", tmp_path / "far.h5", "--cell", 1)
    done = quorvel("chm", path, "--dtm", tmp_path / "far.h5", "-o", tmp_path / "x.tif", "--cell",
                   1, ok=False)
    assert done.stderr.endswith(f"{path}: canopy height: no cell has both points and ground "
                                "under it\n"), done.stderr
