# SPDX-License-Identifier: BSD-3-Clause
"""quorvel tile, merge and --box reads against numpy computations on LAS files written here.

The files are made by a small numpy + struct writer (point formats 1 and 6, with and without
extra bytes, a CRS record copied from a sample) and read back by an equally small reader, so
that every expected tile, buffer and box comes from the rules themselves, not from the host.
QUORVEL names the host, QUORVEL_SAMPLE_DATA the sample folder; PYTHONPATH may hold the Python
package (the Python box reads are skipped without it); QUORVEL_SANITIZED set skips the memory
measurements, which a sanitizer's shadow memory would swamp.
"""

import collections
import dataclasses
import math
import os
import pathlib
import struct
import subprocess
import sys

import numpy as np
import pytest

QUORVEL = os.environ.get("QUORVEL", "quorvel")
SAMPLES = pathlib.Path(os.environ.get("QUORVEL_SAMPLE_DATA", "data"))

# Point records as stored (little-endian, packed).
BASE_FIELDS = {
    1: [("X", "<i4"), ("Y", "<i4"), ("Z", "<i4"), ("intensity", "<u2"), ("returns", "u1"),
        ("classification", "u1"), ("scan_angle", "i1"), ("user_data", "u1"),
        ("point_source", "<u2"), ("gps_time", "<f8")],
    6: [("X", "<i4"), ("Y", "<i4"), ("Z", "<i4"), ("intensity", "<u2"), ("returns", "u1"),
        ("flags", "u1"), ("classification", "u1"), ("user_data", "u1"), ("scan_angle", "<i2"),
        ("point_source", "<u2"), ("gps_time", "<f8")],
}
# Extra-bytes dimensions: name, numpy type, LAS data type.
EXTRA_DIMS = [("Tag", "<u2", 3), ("Weight", "<f4", 9)]
EXTRA_SIZES = {1: 1, 2: 1, 3: 2, 4: 2, 5: 4, 6: 4, 7: 8, 8: 8, 9: 4, 10: 8}
WKT_BIT = 16


def record_dtype(fmt, extra):
    return np.dtype(BASE_FIELDS[fmt] + ([(n, t) for n, t, _ in EXTRA_DIMS] if extra else []))


# ---- LAS files, written and read with struct ---------------------------------------------------


def vlr(user, record, description, payload):
    head = struct.pack("<H16sHH32s", 0, user.encode(), record, len(payload), description.encode())
    return head + payload


def extra_bytes_vlr():
    descriptors = b"".join(struct.pack("<2xBB32s4x24s24s24s24s24s32s", kind, 0, name.encode(),
                                       *[bytes(24)] * 5, b"") for name, _, kind in EXTRA_DIMS)
    return vlr("LASF_Spec", 4, "extra bytes", descriptors)


def write_las(path, points, fmt, scale, offset, crs=(), global_encoding=0):
    """A LAS 1.2 (format 1) or 1.4 (format 6) file of the records `points`; crs holds
    (user, record, description, payload) records copied as they are."""
    extra = points.dtype.names[-1] == EXTRA_DIMS[-1][0]
    records = b"".join(vlr(*r) for r in crs) + (extra_bytes_vlr() if extra else b"")
    header_size = 227 if fmt == 1 else 375
    xyz = np.column_stack([points[a] * scale[k] + offset[k] for k, a in enumerate("XYZ")])
    lo, hi = (xyz.min(axis=0), xyz.max(axis=0)) if len(points) else (np.zeros(3), np.zeros(3))
    numbers = np.bincount(points["returns"] & (7 if fmt == 1 else 15), minlength=16)[1:]
    legacy_count, legacy_returns = (len(points), numbers[:5]) if fmt == 1 else (0, [0] * 5)
    head = struct.pack("<4sHH16sBB32s32sHHHIIBHI5I3d3d6d", b"LASF", 0, global_encoding, bytes(16),
                       1, 2 if fmt == 1 else 4, b"", b"test_tiles", 1, 2024, header_size,
                       header_size + len(records), len(crs) + extra, fmt, points.dtype.itemsize,
                       legacy_count, *legacy_returns, *scale, *offset,
                       hi[0], lo[0], hi[1], lo[1], hi[2], lo[2])
    if fmt == 6:
        head += struct.pack("<QQIQ15Q", 0, 0, 0, len(points), *numbers[:15])
    assert len(head) == header_size
    with open(path, "wb") as f:
        f.write(head + records)
        points.tofile(f)


class Las:
    """A LAS file's header facts, records (raw, one numpy void per point) and coordinates."""

    def __init__(self, path):
        data = pathlib.Path(path).read_bytes()
        assert data[:4] == b"LASF", path
        self.global_encoding = struct.unpack_from("<H", data, 6)[0]
        self.version = (data[24], data[25])
        header_size, point_offset, vlr_count = struct.unpack_from("<HIL", data, 94)
        assert not data[104] & 0xC0, "%s: compressed" % path
        self.fmt = data[104] & 0x3F
        self.record_length, self.count = struct.unpack_from("<HL", data, 105)
        self.scale = struct.unpack_from("<3d", data, 131)
        self.offset = struct.unpack_from("<3d", data, 155)
        mx, nx, my, ny, mz, nz = struct.unpack_from("<6d", data, 179)
        self.bounds = ((nx, ny, nz), (mx, my, mz))
        if self.version >= (1, 4):
            self.count = struct.unpack_from("<Q", data, 247)[0] or self.count
        self.vlrs, at = [], header_size
        for _ in range(vlr_count):
            _, user, record, length = struct.unpack_from("<H16sHH", data, at)
            payload = data[at + 54 : at + 54 + length]
            self.vlrs.append((user.split(b"\0")[0].decode(), record, payload))
            at += 54 + length
        self.records = np.frombuffer(data, f"V{self.record_length}", self.count, point_offset)
        raw = np.frombuffer(data, np.dtype({"names": list("XYZ"), "formats": ["<i4"] * 3,
                                            "offsets": [0, 4, 8],
                                            "itemsize": self.record_length}),
                            self.count, point_offset)
        self.xyz = np.column_stack([raw[a] * self.scale[k] + self.offset[k]
                                    for k, a in enumerate("XYZ")])

    def crs(self):
        return [r for r in self.vlrs if r[0] == "LASF_Projection"]

    def extra_dims(self):
        """(name, data type, byte offset in the record) of each extra-bytes dimension."""
        payload = next((p for u, r, p in self.vlrs if (u, r) == ("LASF_Spec", 4)), b"")
        at = record_dtype(self.fmt, False).itemsize
        dims = []
        for k in range(0, len(payload), 192):
            kind, options, name = struct.unpack_from("<2xBB32s", payload, k)
            dims.append((name.split(b"\0")[0].decode(), kind, at))
            at += EXTRA_SIZES[kind] if kind else options
        return dims


def multiset(records):
    return collections.Counter(r.tobytes() for r in records)


def quorvel(*args, ok=True):
    done = subprocess.run([QUORVEL, *map(str, args)], capture_output=True, text=True)
    if ok:
        assert done.returncode == 0, done.stderr
    return done


def decoded(path):
    """The LAS file itself, or a LAZ / COPC file decoded by quorvel convert into a folder beside
    its own (so that a folder of tiles keeps only the tiles)."""
    path = pathlib.Path(path)
    if path.name.endswith(".las"):
        return Las(path)
    scratch = path.parent.with_name(path.parent.name + "-decoded")
    scratch.mkdir(exist_ok=True)
    out = scratch / (path.name.replace(".", "_") + ".las")
    quorvel("convert", path, out)
    return Las(out)


def projection_records(sample, ids):
    """The CRS records (user, record, description, payload) of a sample file, as stored."""
    data = (SAMPLES / sample).read_bytes()
    header_size, _, count = struct.unpack_from("<HIL", data, 94)
    out, at = [], header_size
    for _ in range(count):
        _, user, record, length, text = struct.unpack_from("<H16sHH32s", data, at)
        if user.startswith(b"LASF_Projection") and record in ids:
            name = lambda b: b.split(b"\0")[0].decode("latin-1")
            out.append((name(user), record, name(text), data[at + 54 : at + 54 + length]))
        at += 54 + length
    assert out, sample
    return out


# Format 6 carries a WKT record (its global encoding says so), format 1 GeoTIFF keys.
NEBRASKA_WKT = ("nebraska_wkt_geotiff.las", (2112,))
HEXBIN_WKT = ("hexbin-crop.las", (2112,))
HEXBIN_KEYS = ("hexbin-crop.las", (34735, 34737))


# ---- Clouds with points on the grid lines, duplicates and negative coordinates ----------------


@dataclasses.dataclass(frozen=True)
class Case:
    fmt: int
    extra: bool
    size: float
    origin: tuple  # None: the default, 0,0
    scale: float
    offset: tuple
    lo: tuple  # x-y extent of the points
    hi: tuple
    buffer: float


CASES = {
    "whole-grid-f1-extra": Case(1, True, 20.0, None, 0.01, (0.0, 0.0, 0.0), (-45, -25), (35, 45),
                                2.0),
    "fractional-grid-f6": Case(6, False, 12.5, (0.25, -0.5), 0.01, (-3.0, 7.0, 0.0), (-30, -22),
                               (35, 30), 2.5),
    "georeferenced-f6-extra": Case(6, True, 50.0, (0.0, 0.0), 0.001, (500000.0, 4200000.0, 0.0),
                                   (499880, 4199930), (500090, 4200110), 0.75),
}


def grid_lines(case, axis):
    """The tile edges inside the extent along an axis, and the edges of the grown squares."""
    o, s = (case.origin or (0.0, 0.0))[axis], case.size
    first, last = math.ceil((case.lo[axis] - o) / s), math.floor((case.hi[axis] - o) / s)
    edges = np.array([o + i * s for i in range(first, last + 1)])
    return np.concatenate([edges, edges - case.buffer, edges + case.buffer])


def make_points(case, n=5500, seed=7):
    """n points at random and 900 more copies of 150 of them, shuffled; a third of the coordinates
    lie on an edge (a tile's or a grown square's), exactly or one raw step either side."""
    rng = np.random.default_rng(seed)
    raw = lambda real, k: np.round((real - case.offset[k]) / case.scale).astype(np.int64)
    coords = []
    for k in range(2):
        random = raw(rng.uniform(case.lo[k], case.hi[k], n), k)
        on_line = raw(rng.choice(grid_lines(case, k), n), k) + rng.choice([-1, 0, 0, 0, 1], n)
        coords.append(np.where(rng.uniform(size=n) < 0.33, on_line, random))
    points = np.zeros(n, record_dtype(case.fmt, case.extra))
    points["X"], points["Y"] = coords
    points["Z"] = rng.integers(-5000, 90000, len(points))
    for name in points.dtype.names[3:]:
        kind = points.dtype[name]
        if kind.kind == "f":
            points[name] = rng.uniform(0, 1e6, len(points))
        else:
            info = np.iinfo(kind)
            points[name] = rng.integers(info.min, info.max, len(points), endpoint=True)
    twins = np.repeat(points[rng.choice(len(points), 150, replace=False)], 6)
    return rng.permutation(np.concatenate([points, twins]))


def corners(v, size, origin):
    """The lower-left corner along one axis of the tile holding each coordinate: the o + i*size
    with o + i*size <= v < o + i*size + size, computed in double as the rule states it."""
    i = np.floor((v - origin) / size)
    i = np.where(origin + i * size > v, i - 1, i)
    i = np.where(origin + i * size + size <= v, i + 1, i)
    c = origin + i * size
    assert np.all((c <= v) & (v < c + size))
    return c


def coordinate_text(c):
    return str(int(c)) if c == int(c) else repr(float(c))


def expected_tiles(xyz, size, origin, buffer=None):
    """{tile name without extension: (core point indices, buffer point indices)}."""
    x, y = xyz[:, 0], xyz[:, 1]
    cx, cy = corners(x, size, origin[0]), corners(y, size, origin[1])
    tiles = {}
    for a, b in sorted(set(zip(cx.tolist(), cy.tolist()))):
        core = (cx == a) & (cy == b)
        grown = np.zeros(len(x), bool)
        if buffer:
            grown = ((x >= a - buffer) & (x <= a + size + buffer) & (y >= b - buffer)
                     & (y <= b + size + buffer) & ~core)
        name = f"{coordinate_text(a)}_{coordinate_text(b)}"
        tiles[name] = (np.flatnonzero(core), np.flatnonzero(grown))
    return tiles


def cloud_files(case, folder, parts=2, n=5500, crs=None):
    """A case's points in LAS files (parts of one shuffled cloud), with the case's CRS unless
    crs names another sample's records: the files, their records and coordinates in order."""
    points = make_points(case, n)
    crs = crs or (NEBRASKA_WKT if case.fmt == 6 else HEXBIN_KEYS)
    records = projection_records(*crs) if crs != "none" else ()
    encoding = WKT_BIT if any(r[1] == 2112 for r in records) else 0
    paths = [folder / f"{chr(ord('a') + k)}.las" for k in range(parts)]
    for path, part in zip(paths, np.array_split(points, parts)):
        write_las(path, part, case.fmt, (case.scale,) * 3, case.offset, records, encoding)
    files = [Las(p) for p in paths]
    records = np.concatenate([f.records for f in files])
    xyz = np.concatenate([f.xyz for f in files])
    return dict(case=case, inputs=paths, records=records, xyz=xyz, first=files[0])


@pytest.fixture(scope="module", params=list(CASES), ids=list(CASES))
def cloud(request, tmp_path_factory):
    case = CASES[request.param]
    made = cloud_files(case, tmp_path_factory.mktemp(request.param))
    # The cloud really tests the edges: points on tile edges and on the grown squares' edges.
    xyz, origin = made["xyz"], case.origin or (0.0, 0.0)
    for k in range(2):
        c = corners(xyz[:, k], case.size, origin[k])
        assert (xyz[:, k] == c).sum() > 100
        # The neighbours' grown edges: e + B right of an edge e, e - B left of it.
        grown_edge = (xyz[:, k] == c + case.buffer) | (xyz[:, k] == c + case.size - case.buffer)
        assert grown_edge.sum() > 50
    assert (xyz[:, :2] < 0).any() or case.offset[0] > 0
    return made


def grid_args(case):
    args = ["--size", repr(case.size)]
    if case.origin:
        args.append("--origin=%r,%r" % case.origin)
    return args


def check_header_like(out, first, record_length=None):
    assert (out.fmt, out.version) == (first.fmt, first.version)
    assert out.record_length == (record_length or first.record_length)
    assert (out.scale, out.offset) == (first.scale, first.offset)
    assert out.crs() == first.crs()
    assert out.global_encoding & WKT_BIT == first.global_encoding & WKT_BIT
    if out.count:
        found = (out.xyz.min(axis=0), out.xyz.max(axis=0))
        assert np.allclose(out.bounds, found, rtol=0, atol=1e-9)


# ---- Tiles and merges --------------------------------------------------------------------------


def test_the_tile_rule_and_names_of_the_oracle():
    # Lower and left edges belong to the tile, the upper and right ones to the next.
    v = np.array([0.25, 12.75, 12.749999999999998, -0.0001, -12.25, 25.25])
    assert corners(v, 12.5, 0.25).tolist() == [0.25, 12.75, 0.25, -12.25, -12.25, 25.25]
    names = [coordinate_text(c) for c in (-100.0, 200.0, -0.0, 12.5, -7.25, 500000.0, 0.1)]
    assert names == ["-100", "200", "0", "12.5", "-7.25", "500000", "0.1"]


def check_tiles(folder, cloud, ext, subset=None):
    """The folder holds one tile per occupied square, each with exactly its points' records."""
    case, xyz, records = cloud["case"], cloud["xyz"], cloud["records"]
    chosen = np.arange(len(xyz)) if subset is None else np.flatnonzero(subset)
    expected = expected_tiles(xyz[chosen], case.size, case.origin or (0.0, 0.0))
    assert sorted(p.name for p in folder.iterdir()) == sorted(f"{n}.{ext}" for n in expected)
    for name, (core, _) in expected.items():
        tile = decoded(folder / f"{name}.{ext}")
        check_header_like(tile, cloud["first"])
        assert multiset(tile.records) == multiset(records[chosen[core]]), name


def test_tiles_hold_exactly_their_squares_records_and_merge_back(cloud, tmp_path):
    case = cloud["case"]
    quorvel("tile", *cloud["inputs"], "-o", tmp_path / "tiles", *grid_args(case))
    check_tiles(tmp_path / "tiles", cloud, "las")
    # Merged, the tiles give back the inputs' records.
    tiles = sorted((tmp_path / "tiles").iterdir())
    quorvel("merge", *tiles, "-o", tmp_path / "merged.las")
    merged = Las(tmp_path / "merged.las")
    check_header_like(merged, cloud["first"])
    assert multiset(merged.records) == multiset(cloud["records"])
    # Files merged in the order given, records unchanged.
    quorvel("merge", cloud["inputs"][1], cloud["inputs"][0], "-o", tmp_path / "ba.las")
    a, b = (Las(p).records for p in cloud["inputs"])
    assert Las(tmp_path / "ba.las").records.tobytes() == b.tobytes() + a.tobytes()


def test_buffered_tiles_add_the_grown_square_with_a_buffer_byte(cloud, tmp_path):
    case, xyz, records = cloud["case"], cloud["xyz"], cloud["records"]
    buffer_args = ["--buffer", repr(case.buffer)]
    quorvel("tile", *cloud["inputs"], "-o", tmp_path, *grid_args(case), *buffer_args)
    expected = expected_tiles(xyz, case.size, case.origin or (0.0, 0.0), case.buffer)
    # Tiles holding only buffer points are not written.
    assert sorted(p.name for p in tmp_path.iterdir()) == sorted(f"{n}.las" for n in expected)
    length = cloud["first"].record_length
    for name, (core, grown) in expected.items():
        tile = Las(tmp_path / f"{name}.las")
        check_header_like(tile, cloud["first"], length + 1)
        dims = tile.extra_dims()
        assert dims[:-1] == cloud["first"].extra_dims()
        assert dims[-1] == ("Buffer", 1, length)
        rows = np.frombuffer(tile.records.tobytes(), np.uint8).reshape(-1, length + 1)
        flag = rows[:, length]
        assert set(np.unique(flag)) <= {0, 1}
        kept = lambda rows: collections.Counter(r.tobytes() for r in rows[:, :length])
        assert kept(rows[flag == 0]) == multiset(records[core]), name
        assert kept(rows[flag == 1]) == multiset(records[grown]), name


# The case, whether its inputs are LAZ, and --format (None: the first input's own).
COMPRESSED = [("whole-grid-f1-extra", True, None), ("whole-grid-f1-extra", False, "laz"),
              ("fractional-grid-f6", True, None), ("georeferenced-f6-extra", True, "las"),
              ("georeferenced-f6-extra", False, "copc")]


@pytest.mark.parametrize("cloud, laz_inputs, tile_format", COMPRESSED, indirect=["cloud"])
def test_laz_inputs_and_outputs_carry_the_same_records(cloud, tmp_path, laz_inputs, tile_format):
    inputs = cloud["inputs"]
    if laz_inputs:
        inputs = [tmp_path / "a.laz", tmp_path / "b.laz"]
        for las, laz in zip(cloud["inputs"], inputs):
            quorvel("convert", las, laz)
        assert multiset(decoded(inputs[0]).records) == multiset(cloud["first"].records)
    format_args = ["--format", tile_format] if tile_format else []
    quorvel("tile", *inputs, "-o", tmp_path / "tiles", *grid_args(cloud["case"]), *format_args)
    ext = {None: "laz" if laz_inputs else "las", "las": "las", "laz": "laz", "copc": "copc.laz"}
    check_tiles(tmp_path / "tiles", cloud, ext[tile_format])
    quorvel("merge", *inputs, "-o", tmp_path / "merged.laz")
    assert multiset(decoded(tmp_path / "merged.laz").records) == multiset(cloud["records"])


def test_a_warning_every_tile_repeats_is_said_once_then_counted(tmp_path):
    """Format 1 tiles written as COPC all move to format 6: one line for the first tile, one
    with the count of the others, not a line per tile."""
    case = CASES["whole-grid-f1-extra"]
    made = cloud_files(case, tmp_path, parts=1)
    done = quorvel("tile", *made["inputs"], "-o", tmp_path / "tiles", *grid_args(case),
                   "--format", "copc")
    tiles = done.stdout.split()
    assert len(tiles) > 2
    lines = done.stderr.splitlines()
    text = "writing LAS 1.4 point format 6 instead of LAS 1.2 point format 1 (for COPC)"
    folder = tmp_path / "tiles"
    assert lines[:2] == [f"{tiles[0]}: {text}",
                         f"{folder}: the same for {len(tiles) - 1} more tiles: {text}"]
    assert not [line for line in lines[2:] if "instead of" in line]


# ---- Box reads ---------------------------------------------------------------------------------


def boxes(case, xyz):
    """Boxes whose every edge has points of the box on it (grid lines, which many points lie on,
    and heights of points inside), an empty one and the cloud's exact bounds (every point)."""
    lines = [np.unique(grid_lines(case, k)) for k in range(2)]
    inner = (lines[0][2], lines[1][1], lines[0][-3], lines[1][-2])
    z = np.sort(xyz[box_mask(xyz, inner), 2])
    lo, hi = xyz.min(axis=0).tolist(), xyz.max(axis=0).tolist()
    made = {
        "edges-on-points": (lines[0][1], lines[1][2], lines[0][-2], lines[1][-3]),
        "with-heights": inner + (z[len(z) // 4], z[len(z) * 3 // 4]),
        "empty": (hi[0] + 1, lo[1], hi[0] + 5, hi[1]),
        "exact-bounds": tuple(lo[:2] + hi[:2] + [lo[2], hi[2]]),
    }
    return {name: tuple(map(float, box)) for name, box in made.items()}


def box_mask(xyz, box):
    """X0,Y0,X1,Y1[,Z0,Z1]: the points inside, edges included."""
    low, high = box_edges(box)
    inside = [(xyz[:, k] >= low[k]) & (xyz[:, k] <= high[k]) for k in range(len(low))]
    return np.logical_and.reduce(inside)


def box_edges(box):
    return [box[0], box[1], *box[4:5]], [box[2], box[3], *box[5:6]]


def edges_hold_points(xyz, box):
    inside, (low, high) = xyz[box_mask(xyz, box)], box_edges(box)
    on = lambda k, v: (inside[:, k] == v).any()
    return all(on(k, low[k]) and on(k, high[k]) for k in range(len(low)))


def box_arg(box):
    return "--box=" + ",".join(repr(v) for v in box)


@pytest.fixture(scope="module", params=["las", "laz", "copc", "las-f1"])
def box_source(request, tmp_path_factory):
    """One LAS file read as itself, as LAZ or as COPC; las-f1 a format-1 file with extra bytes."""
    case = CASES["whole-grid-f1-extra" if request.param == "las-f1" else "fractional-grid-f6"]
    folder = tmp_path_factory.mktemp("box-" + request.param)
    made = cloud_files(case, folder, parts=1)
    if request.param in ("laz", "copc"):
        path = folder / ("a.laz" if request.param == "laz" else "a.copc.laz")
        quorvel("convert", made["inputs"][0], path)
        made["inputs"] = [path]
    return made


@pytest.mark.parametrize("box_name", ["edges-on-points", "with-heights", "empty", "exact-bounds"])
def test_box_reads_give_the_points_of_the_closed_box(box_source, box_name, tmp_path):
    box = boxes(box_source["case"], box_source["xyz"])[box_name]
    mask = box_mask(box_source["xyz"], box)
    assert edges_hold_points(box_source["xyz"], box) != (box_name == "empty")
    quorvel("convert", box_source["inputs"][0], tmp_path / "out.las", box_arg(box))
    out = Las(tmp_path / "out.las")
    assert out.count == mask.sum()
    assert multiset(out.records) == multiset(box_source["records"][mask])
    first = box_source["first"]
    assert (out.fmt, out.scale, out.offset) == (first.fmt, first.scale, first.offset)


def test_tiles_of_a_box_hold_only_its_points(cloud, tmp_path):
    box = boxes(cloud["case"], cloud["xyz"])["edges-on-points"]
    out = tmp_path / "tiles"
    quorvel("tile", *cloud["inputs"], "-o", out, *grid_args(cloud["case"]), box_arg(box))
    check_tiles(out, cloud, "las", box_mask(cloud["xyz"], box))


@pytest.mark.parametrize("box_name", ["edges-on-points", "with-heights", "empty"])
def test_python_box_reads_give_the_points_of_the_closed_box(box_source, box_name):
    package = pytest.importorskip("quorvel")
    if not hasattr(package, "read"):  # the source folder of that name, not the package
        pytest.skip("the Python package is not on PYTHONPATH")
    box = boxes(box_source["case"], box_source["xyz"])[box_name]
    expected = box_source["xyz"][box_mask(box_source["xyz"], box)]
    got = package.read(str(box_source["inputs"][0]), box=box)
    assert len(got) == len(expected)
    rows = lambda a: a[np.lexsort(a.T[::-1])] if len(a) else a.reshape(0, 3)
    np.testing.assert_allclose(rows(np.asarray(got.xyz)), rows(expected), rtol=0, atol=1e-9)


def test_python_tile_and_merge_do_what_the_commands_do(cloud, tmp_path):
    package = pytest.importorskip("quorvel")
    if not hasattr(package, "tile"):
        pytest.skip("the Python package is not on PYTHONPATH")
    case = cloud["case"]
    written = package.tile([str(p) for p in cloud["inputs"]], str(tmp_path / "tiles"), case.size,
                           origin=case.origin or (0.0, 0.0))
    assert sorted(written) == sorted(str(p) for p in (tmp_path / "tiles").iterdir())
    check_tiles(tmp_path / "tiles", cloud, "las")
    count = package.merge(written, str(tmp_path / "merged.las"))
    assert count == len(cloud["records"])
    assert multiset(Las(tmp_path / "merged.las").records) == multiset(cloud["records"])


# ---- Refusals ----------------------------------------------------------------------------------


@pytest.fixture(scope="module")
def refusal_inputs(tmp_path_factory):
    """Files that may not be put together: another CRS, another point format (both without
    CRS, so that only the format differs)."""
    folder = tmp_path_factory.mktemp("refusals")
    case = CASES["fractional-grid-f6"]
    for name, fmt, crs in (("wkt_a", 6, NEBRASKA_WKT), ("wkt_b", 6, HEXBIN_WKT),
                           ("plain6", 6, "none"), ("plain1", 1, "none")):
        sub = folder / name
        sub.mkdir()
        made = cloud_files(dataclasses.replace(case, fmt=fmt), sub, parts=1, n=600, crs=crs)
        made["inputs"][0].rename(folder / f"{name}.las")
    return folder


# inputs, output (None: the default one), the names the error line must show (any: one of them).
REFUSALS = {
    "differing-crs": (["wkt_a.las", "wkt_b.las"], None, ["wkt_a.las", "wkt_b.las"], False),
    "different-formats": (["plain6.las", "plain1.las"], None, ["plain6.las", "plain1.las"], True),
    "missing-input": (["wkt_a.las", "missing.las"], None, ["missing.las"], False),
    "output-under-a-file": (["wkt_a.las"], "afile.las/out", ["afile.las"], False),
    "output-parent-missing": (["wkt_a.las"], "nowhere/out", ["nowhere"], False),
    "read-only-folder": (["wkt_a.las"], "locked/out", ["locked"], False),
}


@pytest.mark.parametrize("command", ["tile", "merge"])
@pytest.mark.parametrize("refusal", list(REFUSALS))
def test_refusals_name_the_file_and_leave_nothing(refusal_inputs, tmp_path, command, refusal):
    inputs, output, names, any_name = REFUSALS[refusal]
    (tmp_path / "afile.las").write_bytes(b"not a folder")
    if refusal == "read-only-folder":
        if os.geteuid() == 0:
            pytest.skip("root writes into read-only folders")
        (tmp_path / "locked").mkdir(mode=0o555)
    before = sorted(p for p in tmp_path.rglob("*") if p.is_file())
    out = tmp_path / (output or "out")
    if command == "merge":
        out = out.with_name(out.name + ".las")
    args = ["-o", out] + (["--size", "10"] if command == "tile" else [])
    done = quorvel(command, *[refusal_inputs / i for i in inputs], *args, ok=False)
    lines = done.stderr.strip().splitlines()
    assert done.returncode == 1 and len(lines) == 1, done.stderr
    assert lines[0].startswith("quorvel: error: "), lines[0]
    shown = [n in lines[0] for n in names]
    assert any(shown) if any_name else all(shown), lines[0]
    # Nothing written: no tile, no merged file, no temporary (an empty folder may stay).
    assert sorted(p for p in tmp_path.rglob("*") if p.is_file()) == before


# ---- Memory ------------------------------------------------------------------------------------

PEAK_RSS = ("import resource, subprocess, sys; rc = subprocess.run(sys.argv[1:]).returncode; "
            "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss); sys.exit(rc)")
MIB = 1 << 20


def peak_resident_bytes(*args):
    """The host's peak resident size, measured from a fresh process that runs only it."""
    done = subprocess.run([sys.executable, "-c", PEAK_RSS, QUORVEL, *map(str, args)],
                          capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    return int(done.stdout.split()[-1]) * 1024  # Linux counts kilobytes


def point_count(path):
    """A LAS 1.4 file's point count, from its header alone."""
    with open(path, "rb") as f:
        return struct.unpack_from("<Q", f.read(375), 247)[0]


def write_survey(path, n, seed):
    """n format-6 points in random order, one per square metre."""
    rng = np.random.default_rng(seed)
    side = int(100_000 * math.sqrt(n / 1e6))  # in centimetres
    points = np.zeros(n, record_dtype(6, False))
    points["X"], points["Y"] = rng.integers(0, side, n), rng.integers(0, side, n)
    points["Z"] = rng.integers(0, 5000, n)
    points["returns"] = 0x11
    points["gps_time"] = np.arange(n) * 1e-5
    write_las(path, points, 6, (0.01,) * 3, (0.0, 0.0, 0.0))


@pytest.mark.skipif("QUORVEL_SANITIZED" in os.environ, reason="a sanitizer's shadow memory")
def test_tiling_memory_does_not_grow_with_the_file(tmp_path):
    peaks, sizes = {}, {}
    for n in (1_000_000, 8_000_000):
        path, tiles = tmp_path / f"{n}.las", tmp_path / f"tiles-{n}"
        write_survey(path, n, seed=n)
        sizes[n] = path.stat().st_size
        peaks[n] = peak_resident_bytes("tile", path, "-o", tiles, "--size", "500")
        counts = [point_count(p) for p in tiles.iterdir()]
        assert sum(counts) == n and len(counts) == math.ceil(math.sqrt(n / 1e6) * 2) ** 2
        path.unlink()
        for p in tiles.iterdir():
            p.unlink()
    big = 8_000_000
    assert peaks[big] < sizes[big] / 2 and peaks[big] < 200 * MIB, peaks
    assert peaks[big] - peaks[1_000_000] <= 64 * MIB, peaks
