# SPDX-License-Identifier: BSD-3-Clause
"""quorvel crop, outliers, thin and reproject against computations written here: numpy masks,
a winding-number point-in-polygon with its own boundary test, brute-force nearest neighbours,
SplitMix64 in Python, and LAS files written and read with struct.

QUORVEL names the host.
"""

import json
import os
import pathlib
import struct
import subprocess

import numpy as np
import pytest

QUORVEL = os.environ.get("QUORVEL", "quorvel")
SCALE = 0.01


# ---- LAS files, written and read with struct -----------------------------------------------


def vlr(user, record, payload):
    return struct.pack("<H16sHH32s", 0, user.encode(), record, len(payload), b"") + payload


def write_las(path, xyz, classes=None, version=4, records=(), global_encoding=0,
              scale=(SCALE,) * 3, offset=(0.0, 0.0, 0.0)):
    """A LAS 1.4 format 6 or LAS 1.2 format 1 file of the points (scale 0.01 by default)."""
    n = len(xyz)
    fmt = 6 if version == 4 else 1
    if fmt == 6:
        dtype = [("X", "<i4"), ("Y", "<i4"), ("Z", "<i4"), ("intensity", "<u2"), ("returns", "u1"),
                 ("flags", "u1"), ("classification", "u1"), ("user", "u1"), ("angle", "<i2"),
                 ("source", "<u2"), ("gps", "<f8")]
    else:
        dtype = [("X", "<i4"), ("Y", "<i4"), ("Z", "<i4"), ("intensity", "<u2"), ("returns", "u1"),
                 ("classification", "u1"), ("angle", "i1"), ("user", "u1"), ("source", "<u2"),
                 ("gps", "<f8")]
    points = np.zeros(n, dtype)
    for k, a in enumerate("XYZ"):
        points[a] = np.round((xyz[:, k] - offset[k]) / scale[k]).astype("<i4")
    points["returns"] = 0x11 if fmt == 6 else 0x09
    points["classification"] = 1 if classes is None else classes
    real = np.column_stack([points[a] * scale[k] + offset[k] for k, a in enumerate("XYZ")])
    blob = b"".join(vlr(*r) for r in records)
    size = 375 if fmt == 6 else 227
    lo, hi = real.min(axis=0), real.max(axis=0)
    head = struct.pack("<4sHH16sBB32s32sHHHIIBHI5I3d3d6d", b"LASF", 0, global_encoding, bytes(16),
                       1, version, b"", b"test_filters", 1, 2024, size, size + len(blob),
                       len(records), fmt, points.dtype.itemsize, 0 if fmt == 6 else n,
                       *([0] * 5 if fmt == 6 else [n, 0, 0, 0, 0]), *scale, *offset,
                       hi[0], lo[0], hi[1], lo[1], hi[2], lo[2])
    if fmt == 6:
        head += struct.pack("<QQIQ15Q", 0, 0, 0, n, n, *[0] * 14)
    pathlib.Path(path).write_bytes(head + blob + points.tobytes())
    return real


def read_las(path):
    """(xyz, classes, scale, offset, global encoding, records) of a LAS 1.2 or 1.4 file."""
    data = pathlib.Path(path).read_bytes()
    size, offset_to_points, count_vlrs = struct.unpack_from("<HIL", data, 94)
    fmt = data[104] & 0x3F
    length, n = struct.unpack_from("<HL", data, 105)
    if data[25] >= 4:
        n = struct.unpack_from("<Q", data, 247)[0] or n
    scale = np.array(struct.unpack_from("<3d", data, 131))
    offset = np.array(struct.unpack_from("<3d", data, 155))
    records, at = [], size
    for _ in range(count_vlrs):
        _, user, record, payload = struct.unpack_from("<H16sHH", data, at)
        records.append((user.split(b"\0")[0].decode(), record, data[at + 54:at + 54 + payload]))
        at += 54 + payload
    cls_at = 16 if fmt >= 6 else 15
    raw = np.frombuffer(data, np.dtype({"names": ["X", "Y", "Z", "c"],
                                        "formats": ["<i4", "<i4", "<i4", "u1"],
                                        "offsets": [0, 4, 8, cls_at], "itemsize": length}),
                        n, offset_to_points)
    xyz = np.column_stack([raw[a] * scale[k] + offset[k] for k, a in enumerate("XYZ")])
    classes = raw["c"] if fmt >= 6 else raw["c"] & 31
    return xyz, classes.copy(), scale, offset, struct.unpack_from("<H", data, 6)[0], records


def quorvel(*args, ok=True):
    done = subprocess.run([QUORVEL, *map(str, args)], capture_output=True, text=True)
    assert (done.returncode == 0) == ok, done.stderr
    return done


def rows(xyz):
    """Points as a sorted list of integer triples (centimetres), for set comparisons."""
    return sorted(map(tuple, np.round(np.asarray(xyz) / SCALE).astype(np.int64).tolist()))


# ---- crop -------------------------------------------------------------------------------


def test_crop_by_box_keeps_the_closed_box_and_inverse_the_rest(tmp_path):
    rng = np.random.default_rng(1)
    xyz = np.round(rng.uniform(0, 20, (4000, 3)), 1)  # many points on the edges
    src = write_las(tmp_path / "in.las", xyz)
    inside = (src[:, 0] >= 5) & (src[:, 0] <= 12.5) & (src[:, 1] >= 3) & (src[:, 1] <= 9)
    assert inside.sum() > 100 and np.isin(src[:, 0], [5.0, 12.5]).sum() > 0
    quorvel("crop", tmp_path / "in.las", "-o", tmp_path / "a.las", "--box", "5,3,12.5,9")
    quorvel("crop", tmp_path / "in.las", "-o", tmp_path / "b.las", "--box", "5,3,12.5,9",
            "--inverse")
    assert rows(read_las(tmp_path / "a.las")[0]) == rows(src[inside])
    assert rows(read_las(tmp_path / "b.las")[0]) == rows(src[~inside])
    bad = quorvel("crop", tmp_path / "in.las", "-o", tmp_path / "c.las", "--box", "5,3,1,9",
                  ok=False)
    assert "--box" in bad.stderr and "5,3,1,9" in bad.stderr


def winding(px, py, ring):
    """The winding number of a closed ring about each point."""
    w = np.zeros(len(px), int)
    for (ax, ay), (bx, by) in zip(ring, ring[1:] + ring[:1]):
        side = (bx - ax) * (py - ay) - (by - ay) * (px - ax)
        w += ((ay <= py) & (by > py) & (side > 0)).astype(int)
        w -= ((ay > py) & (by <= py) & (side < 0)).astype(int)
    return w


def on_ring(px, py, ring):
    near = np.zeros(len(px), bool)
    for (ax, ay), (bx, by) in zip(ring, ring[1:] + ring[:1]):
        dx, dy = bx - ax, by - ay
        t = np.clip(((px - ax) * dx + (py - ay) * dy) / (dx * dx + dy * dy), 0, 1)
        near |= np.hypot(px - (ax + t * dx), py - (ay + t * dy)) < 1e-9
    return near


def in_polygons(px, py, polygons):
    """Union of polygons (outer ring, holes), boundaries inside: winding numbers, not crossings."""
    mask = np.zeros(len(px), bool)
    for rings in polygons:
        inside = winding(px, py, rings[0]) != 0
        for hole in rings[1:]:
            inside &= winding(px, py, hole) == 0
        for ring in rings:
            inside |= on_ring(px, py, ring)
        mask |= inside
    return mask


SQUARE_WITH_HOLE = [[(0, 0), (10, 0), (10, 10), (0, 10)], [(3, 3), (7, 3), (7, 7), (3, 7)]]
TRIANGLE = [[(12, 1), (19, 2), (14, 9)]]
STAR = [[(10 + 6 * (1 + (k % 2)) / 2 * np.cos(k * np.pi / 9), 15 + 6 * (1 + (k % 2)) / 2
          * np.sin(k * np.pi / 9)) for k in range(18)]]


def geojson(path, features):
    doc = {"type": "FeatureCollection", "features": [
        {"type": "Feature", "properties": {"name": name},
         "geometry": {"type": kind, "coordinates": coords}} for name, kind, coords in features]}
    pathlib.Path(path).write_text(json.dumps(doc))


def closed(rings):
    return [[list(map(float, v)) for v in ring + ring[:1]] for ring in rings]


def test_crop_by_polygons_holes_multipolygons_and_feature_filter(tmp_path):
    grid = np.mgrid[-1:21:0.25, -1:22:0.25].reshape(2, -1).T  # vertices and edges included
    xyz = np.column_stack([grid, np.zeros(len(grid))])
    src = write_las(tmp_path / "in.las", xyz)
    geojson(tmp_path / "areas.geojson", [
        ("a", "MultiPolygon", [closed(SQUARE_WITH_HOLE), closed(TRIANGLE)]),
        ("b", "Polygon", closed(STAR))])
    quorvel("crop", tmp_path / "in.las", "-o", tmp_path / "all.las",
            "--polygon", tmp_path / "areas.geojson")
    expected = in_polygons(src[:, 0], src[:, 1], [SQUARE_WITH_HOLE, TRIANGLE, STAR])
    assert on_ring(src[:, 0], src[:, 1], SQUARE_WITH_HOLE[1]).sum() > 10  # the hole's edge
    assert rows(read_las(tmp_path / "all.las")[0]) == rows(src[expected])
    quorvel("crop", tmp_path / "in.las", "-o", tmp_path / "b.las", "--polygon",
            tmp_path / "areas.geojson", "--feature-filter", "name = 'b'", "--inverse")
    star = in_polygons(src[:, 0], src[:, 1], [STAR])
    assert rows(read_las(tmp_path / "b.las")[0]) == rows(src[~star])
    bad = quorvel("crop", tmp_path / "in.las", "-o", tmp_path / "c.las", "--polygon",
                  tmp_path / "areas.geojson", "--layer", "nothing", ok=False)
    assert "areas.geojson" in bad.stderr and "nothing" in bad.stderr


# ---- outliers ---------------------------------------------------------------------------


def planted_cloud(rng, n=700, planted=12):
    core = rng.normal(0, 2, (n, 3)).round(2)
    far = rng.uniform(15, 30, (planted, 3)).round(2) * rng.choice([-1, 1], (planted, 3))
    return np.vstack([core, far])


def brute_distances(xyz):
    d = np.sqrt(((xyz[:, None, :] - xyz[None, :, :]) ** 2).sum(axis=2))
    return d


@pytest.mark.parametrize("k,m", [(8, 2.0), (3, 1.0)])
def test_statistical_outliers_match_brute_force(tmp_path, k, m):
    rng = np.random.default_rng(k)
    src = write_las(tmp_path / "in.las", planted_cloud(rng))
    d = np.sort(brute_distances(src), axis=1)[:, 1:k + 1].mean(axis=1)
    mu, sigma = d.mean(), d.std()
    expected = d > mu + m * sigma
    assert expected[-12:].all()
    for threads in (1, 2):
        out = tmp_path / f"out{threads}.las"
        quorvel("outliers", tmp_path / "in.las", "-o", out, "--neighbours", k, "--multiplier", m,
                "--threads", threads)
        xyz, classes = read_las(out)[:2]
        assert np.array_equal(classes == 7, expected)
        assert np.array_equal(classes[~expected], np.ones((~expected).sum()))
    assert (tmp_path / "out1.las").read_bytes() == (tmp_path / "out2.las").read_bytes()
    quorvel("outliers", tmp_path / "in.las", "-o", tmp_path / "kept.las", "--neighbours", k,
            "--multiplier", m, "--remove")
    assert rows(read_las(tmp_path / "kept.las")[0]) == rows(src[~expected])


def test_radius_outliers_count_points_at_exactly_the_radius(tmp_path):
    # A unit lattice: a point at distance exactly 1 counts; lone points and a pair stand apart.
    lattice = np.mgrid[0:6, 0:6, 0:2].reshape(3, -1).T.astype(float)
    lone = np.array([[20.0, 20, 0], [40, 0, 0], [30, 30, 5], [30, 31, 5]])
    src = write_las(tmp_path / "in.las", np.vstack([lattice, lone]))
    counts = (brute_distances(src) <= 1.0).sum(axis=1) - 1
    for n in (2, 3, 4):
        for threads in (1, 3):
            out = tmp_path / f"o{threads}.las"
            quorvel("outliers", tmp_path / "in.las", "-o", out, "--method", "radius", "--radius", 1,
                    "--min-points", n, "--classify", 18, "--threads", threads)
            classes = read_las(out)[1]
            assert np.array_equal(classes == 18, counts < n), n
        assert (tmp_path / "o1.las").read_bytes() == (tmp_path / "o3.las").read_bytes()
    assert ((counts < 3) & (counts > 0)).any() and (counts == 3).any()



def test_where_limits_the_points_crop_and_outliers_test(tmp_path):
    """Points the expression leaves out are kept by crop and never outliers, yet stay the
    outliers' neighbours."""
    rng = np.random.default_rng(5)
    xyz = planted_cloud(rng)
    classes = np.where(xyz[:, 2] > 0, 5, 2).astype(np.uint8)
    src = write_las(tmp_path / "in.las", xyz, classes)
    quorvel("crop", tmp_path / "in.las", "-o", tmp_path / "c.las", "--box", "-1,-1,1,1",
            "--where", "Classification == 2 && Z < 0")
    tested = (classes == 2) & (src[:, 2] < 0)
    inside = (np.abs(src[:, 0]) <= 1) & (np.abs(src[:, 1]) <= 1)
    assert rows(read_las(tmp_path / "c.las")[0]) == rows(src[~tested | inside])
    d = np.sort(brute_distances(src), axis=1)[:, 1:9].mean(axis=1)
    outlier = d > d.mean() + 2 * d.std()
    quorvel("outliers", tmp_path / "in.las", "-o", tmp_path / "o.las", "--where",
            "Classification in [2]")
    got = read_las(tmp_path / "o.las")[1]
    assert np.array_equal(got == 7, outlier & (classes == 2))
    assert (outlier & (classes == 5)).any() and (outlier & (classes == 2)).any()
    bad = quorvel("outliers", tmp_path / "in.las", "-o", tmp_path / "x.las", "--where",
                  "Clasification == 2", ok=False)
    assert "Clasification" in bad.stderr

# ---- thin ------------------------------------------------------------------------------


def splitmix(seed, n):
    mask = (1 << 64) - 1
    out = []
    for i in range(n):
        z = (seed + (i + 1) * 0x9E3779B97F4A7C15) & mask
        z = ((z ^ (z >> 30)) * 0xBF58476D1CE4E5B9) & mask
        z = ((z ^ (z >> 27)) * 0x94D049BB133111EB) & mask
        out.append(z ^ (z >> 31))
    return out


def voxel_choice(xyz, size, keep):
    """Index of each voxel's kept point, by a dictionary walk in file order."""
    chosen = {}
    for i, p in enumerate(xyz):
        key = tuple(np.floor(p / size).astype(int))
        centre = (np.floor(p / size) + 0.5) * size
        score = {"first": 0, "lowest": p[2], "highest": -p[2],
                 "centre": ((p - centre) ** 2).sum()}[keep]
        if key not in chosen or score < chosen[key][0]:
            chosen[key] = (score, i)
    return sorted(i for _, i in chosen.values())


@pytest.mark.parametrize("keep", ["first", "lowest", "highest", "centre"])
def test_thin_by_voxel_keeps_one_point_per_cube(tmp_path, keep):
    rng = np.random.default_rng(3)
    # Runs of copies, so that the threads' blocks of sorted voxels cut through voxels.
    points = rng.uniform(-7, 7, (3000, 3)).round(2)
    src = write_las(tmp_path / "in.las", np.concatenate([points, points[::3], points[::7]]))
    for threads in (1, 3):
        quorvel("thin", tmp_path / "in.las", "-o", tmp_path / "t.las", "--voxel", 1.5, "--keep",
                keep, "--threads", threads)
        got = read_las(tmp_path / "t.las")[0]
        assert np.allclose(got, src[voxel_choice(src, 1.5, keep)])  # file order kept
    # Voxels spread too widely for one 64-bit key on three axes: a point and its copies a few
    # steps up share a voxel of 0.05 over a span of 2e6 metres.
    base = rng.uniform(-1e6, 1e6, (300, 3)).round(2)
    wide = np.concatenate([base, base + [0, 0, 0.02], base[::2] + [0.01, 0, 0]])
    src = write_las(tmp_path / "wide.las", wide[rng.permutation(len(wide))])
    quorvel("thin", tmp_path / "wide.las", "-o", tmp_path / "w.las", "--voxel", 0.05, "--keep",
            keep)
    assert np.allclose(read_las(tmp_path / "w.las")[0], src[voxel_choice(src, 0.05, keep)])


def test_thin_random_and_every(tmp_path):
    rng = np.random.default_rng(4)
    src = write_las(tmp_path / "in.las", rng.uniform(0, 50, (5000, 3)).round(2))
    for seed, fraction, threads in ((0, 0.3, 1), (0, 0.3, 3), (12345, 0.75, 2)):
        quorvel("thin", tmp_path / "in.las", "-o", tmp_path / "r.las", "--random", fraction,
                "--seed", seed, "--threads", threads)
        expected = np.array(splitmix(seed, len(src)), dtype=np.uint64) < np.uint64(
            int(fraction * 2**64))
        assert np.allclose(read_las(tmp_path / "r.las")[0], src[expected])
        assert abs(expected.mean() - fraction) < 0.03
    for n, threads in ((1, 1), (3, 3), (7, 2)):
        quorvel("thin", tmp_path / "in.las", "-o", tmp_path / "e.las", "--every", n, "--threads",
                threads)
        assert np.allclose(read_las(tmp_path / "e.las")[0], src[::n])
    bad = quorvel("thin", tmp_path / "in.las", "-o", tmp_path / "x.las", "--every", 2, "--voxel",
                  1, ok=False)
    assert "--every" in bad.stderr or "--voxel" in bad.stderr


# ---- reproject -------------------------------------------------------------------------


def geokeys(records):
    """GeoTIFF key id -> value of a key directory record."""
    payload = next(p for u, r, p in records if (u, r) == ("LASF_Projection", 34735))
    numbers = struct.unpack(f"<{len(payload) // 2}H", payload)
    return {numbers[k]: numbers[k + 3] for k in range(4, len(numbers), 4)}


def test_reproject_known_pair_round_trip_and_records(tmp_path):
    # 12 E 55 N in ETRS89 / UTM 32N (EPSG:25832): 691875.63 E, 6098907.83 N (PROJ's own example).
    lonlat = np.array([[12.0, 55.0, 10.0], [12.001, 55.002, 11.0], [11.998, 54.999, 12.5]])
    write_las(tmp_path / "geo.las", lonlat, scale=(1e-7, 1e-7, 0.01), version=2)
    quorvel("reproject", tmp_path / "geo.las", "-o", tmp_path / "utm.las", "--from", "EPSG:4258",
            "--to", "EPSG:25832")
    xyz, _, scale, offset, encoding, records = read_las(tmp_path / "utm.las")
    assert abs(xyz[0, 0] - 691875.63) < 0.01 and abs(xyz[0, 1] - 6098907.83) < 0.01
    # 1e-7 degrees east is 0.0064 m at 55 N; a tenth of it rounds down to 1e-4 m.
    assert list(scale[:2]) == [1e-4, 1e-4] and list(offset) == list(np.floor(xyz.min(axis=0)))
    assert geokeys(records)[3072] == 25832 and not encoding & 16

    rng = np.random.default_rng(5)
    utm = np.column_stack([rng.uniform(500000, 502000, 400), rng.uniform(4e6, 4.002e6, 400),
                           rng.uniform(100, 200, 400)]).round(2)
    src = write_las(tmp_path / "u.las", utm)
    quorvel("reproject", tmp_path / "u.las", "-o", tmp_path / "g.las", "--from", "EPSG:32633",
            "--to", "EPSG:4326")
    geo, _, gscale, _, encoding, records = read_las(tmp_path / "g.las")
    assert encoding & 16 and any(r == 2112 for _, r, _ in records)
    assert gscale[0] == 1e-9 and 14 < geo[:, 0].min() and geo[:, 0].max() < 16
    quorvel("reproject", tmp_path / "g.las", "-o", tmp_path / "back.las", "--to", "EPSG:32633")
    back = read_las(tmp_path / "back.las")[0]
    assert np.abs(back - src).max() < 1e-3


@pytest.mark.parametrize("source,target,lo,hi", [
    # 30 km across the 12 E edge of UTM zone 32, into zone 33.
    ("EPSG:32632", "EPSG:32633", (705000, 5.30e6, 0), (735000, 5.33e6, 800)),
    # Longitude, latitude and height into geocentric x, y, z: the height moves all three.
    ("EPSG:4979", "EPSG:4978", (11.7, 47.8, -40), (12.1, 48.1, 2500)),
])
def test_reproject_interpolated_cells_write_what_exact_does(tmp_path, source, target, lo, hi):
    rng = np.random.default_rng(11)
    n = 60000
    xyz = np.column_stack([rng.uniform(lo[k], hi[k], n) for k in range(3)])
    scale = (1e-7, 1e-7, 0.01) if source == "EPSG:4979" else (0.01,) * 3
    write_las(tmp_path / "in.las", xyz, scale=scale, offset=tuple(np.floor(lo)))
    for extra in ([], ["--exact"]):
        quorvel("reproject", tmp_path / "in.las", "-o", tmp_path / f"out{len(extra)}.las", "--from",
                source, "--to", target, *extra)
    approx, _, ascale, aoffset = read_las(tmp_path / "out0.las")[:4]
    exact, _, escale, eoffset = read_las(tmp_path / "out1.las")[:4]
    assert list(ascale) == list(escale) and list(aoffset) == list(eoffset)
    # Within a hundredth of a step of the exact coordinates, so a written value differs only
    # where the exact one lies that close to a rounding boundary: by one step, rarely.
    steps = np.abs(np.round((approx - exact) / np.asarray(escale)))
    assert steps.max() <= 1
    assert (steps > 0).mean() < 0.03


def write_gtx(path, south, west, step, heights):
    """A GTX grid (big-endian): origin, steps, rows and columns, then rows from south to north."""
    rows, cols = heights.shape
    pathlib.Path(path).write_bytes(struct.pack(">4d2i", south, west, step, step, rows, cols)
                                   + heights.astype(">f4").tobytes())


def bilinear(heights, south, west, step, lon, lat):
    fi, fj = (lat - south) / step, (lon - west) / step
    i, j = np.floor(fi).astype(int), np.floor(fj).astype(int)
    a, b = fi - i, fj - j
    return (heights[i, j] * (1 - a) * (1 - b) + heights[i + 1, j] * a * (1 - b)
            + heights[i, j + 1] * (1 - a) * b + heights[i + 1, j + 1] * a * b)


def test_reproject_heights_through_a_geoid_grid(tmp_path):
    # A geoid-like grid over 11.9..12.1 E, 54.9..55.1 N whose heights are not a plane, so that
    # a wrong corner or weight shows.
    i, j = np.mgrid[0:5, 0:5]
    heights = (30 + 3 * i + 7 * j + 0.5 * i * j + (i == 2) * (j == 3) * 4.0).astype(np.float32)
    write_gtx(tmp_path / "geoid.gtx", 54.9, 11.9, 0.05, heights)
    rng = np.random.default_rng(8)
    lonlat = np.column_stack([rng.uniform(11.91, 12.09, 60), rng.uniform(54.91, 55.09, 60),
                              rng.uniform(-5, 80, 60)])
    lonlat[:3, :2] = [[12.0, 55.0], [12.05, 55.0], [11.95, 55.05]]  # on grid nodes
    src = write_las(tmp_path / "h.las", lonlat, scale=(1e-7, 1e-7, 0.001))
    geoid = f"+proj=longlat +datum=WGS84 +geoidgrids={tmp_path / 'geoid.gtx'} +vunits=m +type=crs"
    undulation = bilinear(heights.astype(float), 54.9, 11.9, 0.05, src[:, 0], src[:, 1])
    # Ellipsoidal heights to heights above the geoid: h - N, and back: H + N.
    for source, target, sign in (("EPSG:4979", geoid, -1), (geoid, "EPSG:4979", 1)):
        quorvel("reproject", tmp_path / "h.las", "-o", tmp_path / "o.las", "--from", source,
                "--to", target)
        out = read_las(tmp_path / "o.las")[0]
        assert np.abs(out[:, :2] - src[:, :2]).max() < 1e-7
        assert np.abs(out[:, 2] - (src[:, 2] + sign * undulation)).max() < 1e-3
    bad = quorvel("reproject", tmp_path / "h.las", "-o", tmp_path / "o.las", "--from",
                  "EPSG:4979", "--to", geoid.replace("geoid.gtx", "absent.gtx"), ok=False)
    assert "absent.gtx" in bad.stderr and "h.las" in bad.stderr


def test_reproject_needs_a_system(tmp_path):
    write_las(tmp_path / "n.las", np.array([[1.0, 2, 3]]))
    bad = quorvel("reproject", tmp_path / "n.las", "-o", tmp_path / "o.las", "--to", "EPSG:4326",
                  ok=False)
    assert "--from" in bad.stderr and "n.las" in bad.stderr
    bad = quorvel("reproject", tmp_path / "n.las", "-o", tmp_path / "o.las", "--from", "EPSG:4326",
                  "--to", "EPSG:nonsense", ok=False)
    assert "EPSG:nonsense" in bad.stderr


# ---- kept records copied ---------------------------------------------------------------


@pytest.mark.parametrize("sample", ["1_4_w_evlr.decoded.las", "extra.decoded.las", "wave5.las"])
def test_kept_records_copied_give_the_file_a_cloud_gives(tmp_path, sample):
    """Alone on a LAS file, crop, thin and select copy the kept records: the output must be the
    file that building the kept cloud and writing it gives (--fragment-points forces that way),
    byte for byte, VLRs, EVLRs, extra bytes and waveform records included, as LAS and as LAZ."""
    src = pathlib.Path(os.environ.get("QUORVEL_SAMPLE_DATA", "data")) / sample
    xyz = read_las(src)[0]
    middle = np.median(xyz, axis=0)
    box = "%.3f,%.3f,%.3f,%.3f" % (xyz[:, 0].min(), xyz[:, 1].min(), middle[0], middle[1])
    cases = [["crop", "--box", box], ["crop", "--box", box, "--inverse"],
             ["crop", "--box", "0,0,1,1"], ["thin", "--voxel", "2"], ["thin", "--every", "3"],
             ["select", "--where", "Z > %.3f || Intensity < 100" % middle[2]]]
    for k, case in enumerate(cases):
        for ext in ("las", "laz"):
            copied, built = tmp_path / f"{k}c.{ext}", tmp_path / f"{k}b.{ext}"
            quorvel(case[0], src, "-o", copied, *case[1:], "-q")
            quorvel(case[0], src, "-o", built, *case[1:], "-q", "--fragment-points", 10**9)
            assert copied.read_bytes() == built.read_bytes(), (case, ext)
    # --count still prints the count when the records are copied.
    t = float("%.3f" % middle[2])
    done = quorvel("select", src, "-o", tmp_path / "n.las", "--where", f"Z > {t}", "--count", "-q")
    assert done.stdout == f"{int((xyz[:, 2] > t).sum())}\n"
    assert len(read_las(tmp_path / "n.las")[0]) == int((xyz[:, 2] > t).sum())
    # A choice that fails on the fields read for it is made again on the whole cloud: the message
    # names every field of the file, a warning is said once, and nothing is written.
    bad = quorvel("select", src, "-o", tmp_path / "u.las", "--where", "Nosuch > 1", ok=False)
    assert "Intensity, ReturnNumber" in bad.stderr and not (tmp_path / "u.las").exists()
    lines = bad.stderr.splitlines()
    assert len(lines) == len(set(lines)), bad.stderr


@pytest.mark.parametrize("target", ["sample_nc.las", "vegetation_1_3.las", "wave9.las"])
def test_transferred_classes_copied_into_the_records_give_the_file_a_cloud_gives(tmp_path, target):
    """Alone on a LAS file, transfer reads the target's positions and classes only and copies its
    records with the new classes: the output must be the file that the whole cloud gives
    (--fragment-points forces that way), byte for byte, as LAS and LAZ, with the classes of the
    nearest source points (the target's own points here). Classes above 31 onto a format before 6
    need a newer format: the records cannot pass, and the whole cloud is written."""
    dst = pathlib.Path(os.environ.get("QUORVEL_SAMPLE_DATA", "data")) / target
    xyz = read_las(dst)[0]
    rng = np.random.default_rng(5)
    for low, high in ((0, 32), (32, 256)):
        classes = rng.integers(low, high, len(xyz)).astype(np.uint8)
        src = tmp_path / "src.las"
        write_las(src, xyz, classes, scale=(0.001,) * 3)
        for ext in ("las", "laz"):
            copied, built = tmp_path / f"c.{ext}", tmp_path / f"b.{ext}"
            args = ["transfer", src, dst, "--bands", "0.01", "-q"]
            quorvel(*args, "-o", copied)
            quorvel(*args, "-o", built, "--fragment-points", 10**9)
            assert copied.read_bytes() == built.read_bytes(), (low, ext)
        out = read_las(tmp_path / "c.las")
        assert np.mean(out[1] == classes) > 0.99, low
        formats = [pathlib.Path(p).read_bytes()[104] & 0x3F for p in (dst, tmp_path / "c.las")]
        assert formats[1] == formats[0] if high == 32 or formats[0] >= 6 else formats[1] >= 6


@pytest.mark.parametrize("sample", ["sample_c.las", "wave9.las"])
def test_outliers_classified_in_the_copied_records_give_the_file_a_cloud_gives(tmp_path, sample):
    """Alone on a LAS file, outliers --classify reads positions and classes only and copies the
    records with the new classes, and --remove reads the positions and the fields of --where and
    copies the records kept: byte for byte the file the whole cloud gives, as LAS and LAZ; with
    --where, classifying writes the whole cloud, as before."""
    src = pathlib.Path(os.environ.get("QUORVEL_SAMPLE_DATA", "data")) / sample
    total = len(read_las(src)[0])
    for extra in ([], ["--where", "Intensity > 10"]):
        for mode in (["--remove"], []):
            for ext in ("las", "laz"):
                copied, built = tmp_path / f"c.{ext}", tmp_path / f"b.{ext}"
                args = ["outliers", src, "--multiplier", "1", *mode, *extra, "-q"]
                quorvel(*args, "-o", copied)
                quorvel(*args, "-o", built, "--fragment-points", 10**9)
                assert copied.read_bytes() == built.read_bytes(), (mode, extra, ext)
            xyz, classes = read_las(tmp_path / "c.las")[:2]
            assert 0 < len(xyz) < total if mode else 7 in classes, (mode, extra)
