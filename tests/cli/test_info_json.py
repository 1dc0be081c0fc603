# SPDX-License-Identifier: BSD-3-Clause
"""quorvel info --json against LAS headers and point records read here with struct alone.

QUORVEL names the host, QUORVEL_SAMPLE_DATA the sample folder and QUORVEL_REAL_DATA the folder
of real scans beside the repository (absent on a fresh clone: those cases are skipped). A LAZ
file's header and records come from the file itself; its point facts (bounds, returns, classes,
GPS times) from the uncompressed partner that data/SOURCES.md names for it.
"""

import functools
import json
import math
import os
import pathlib
import re
import struct
import subprocess

import pytest

QUORVEL = os.environ.get("QUORVEL", "quorvel")
SAMPLES = pathlib.Path(os.environ.get("QUORVEL_SAMPLE_DATA", "data"))
REAL = pathlib.Path(os.environ.get("QUORVEL_REAL_DATA", "../shared/data/real"))

# Point formats with a GPS time.
GPS_FORMATS = {1, 3, 4, 5, 6, 7, 8, 9, 10}


class LasFile:
    """A LAS file's header, records and one pass over its points, from the bytes."""

    def __init__(self, path):
        data = pathlib.Path(path).read_bytes()
        assert data[:4] == b"LASF", path
        self.global_encoding = struct.unpack_from("<H", data, 6)[0]
        self.major, self.minor = data[24], data[25]
        header_size, self.point_offset, vlr_count = struct.unpack_from("<HIL", data, 94)
        self.compressed = bool(data[104] & 0xC0)
        self.point_format = data[104] & 0x3F
        self.record_length, legacy_count = struct.unpack_from("<HL", data, 105)
        legacy_returns = list(struct.unpack_from("<5L", data, 111))
        self.scale = list(struct.unpack_from("<3d", data, 131))
        self.offset = list(struct.unpack_from("<3d", data, 155))
        mx, nx, my, ny, mz, nz = struct.unpack_from("<6d", data, 179)
        self.header_min, self.header_max = [nx, ny, nz], [mx, my, mz]
        self.count, self.returns = legacy_count, legacy_returns
        self.evlrs = []
        if self.minor >= 4:
            evlr_start, evlr_count, count = struct.unpack_from("<QLQ", data, 235)
            if count or not legacy_count:
                self.count = count
                self.returns = list(struct.unpack_from("<15Q", data, 255))
            self.evlrs = self._records(data, evlr_start, evlr_count, True)
        self.vlrs = self._records(data, header_size, vlr_count, False)
        self.data = data

    @staticmethod
    def _records(data, at, count, extended):
        out = []
        for _ in range(count):
            if extended:
                _, user, record, length, text = struct.unpack_from("<H16sHQ32s", data, at)
                head = 60
            else:
                _, user, record, length, text = struct.unpack_from("<H16sHH32s", data, at)
                head = 54
            payload = data[at + head : at + head + length]
            name = lambda b: b.split(b"\0")[0].decode("latin-1")
            out.append((name(user), record, name(text), length, payload))
            at += head + length
        return out

    def record(self, record_id):
        for user, record, _, _, payload in self.vlrs + self.evlrs:
            if user == "LASF_Projection" and record == record_id:
                return payload
        return None

    @functools.cached_property
    def points(self):
        """Bounds, return numbers, classes and GPS range of the point records."""
        assert not self.compressed
        extended = self.point_format >= 6
        # x, y, z, intensity, return byte, then (legacy) class or (extended) flags and class.
        if extended:
            layout = "<3lHBBB5xd"
        else:
            layout = "<3lHBB4x" + ("d" if self.point_format in GPS_FORMATS else "")
        layout += "%dx" % (self.record_length - struct.calcsize(layout))
        end = self.point_offset + self.count * self.record_length
        lo, hi = [math.inf] * 3, [-math.inf] * 3
        returns, classes, times = {}, {}, []
        for rec in struct.iter_unpack(layout, self.data[self.point_offset : end]):
            for k in range(3):
                lo[k], hi[k] = min(lo[k], rec[k]), max(hi[k], rec[k])
            number = rec[4] & (15 if extended else 7)
            cls = rec[6] if extended else rec[5] & 0x1F
            returns[str(number)] = returns.get(str(number), 0) + 1
            classes[str(cls)] = classes.get(str(cls), 0) + 1
            if self.point_format in GPS_FORMATS and not math.isnan(rec[-1]):
                times.append(rec[-1])
        real = lambda raw, k: raw * self.scale[k] + self.offset[k]
        box = None
        if self.count:
            box = {"min": [real(lo[k], k) for k in range(3)], "max": [real(hi[k], k) for k in range(3)]}
        gps = None
        if times:
            kind = "adjusted-standard" if self.global_encoding & 1 else "week"
            gps = {"min": min(times), "max": max(times), "type": kind}
        order = lambda d: dict(sorted(d.items(), key=lambda kv: int(kv[0])))
        return {"bbox": box, "returns": order(returns), "classes": order(classes), "gps": gps}

    def epsg(self):
        """The EPSG code the file's governing record names: the WKT's own identifier when the
        global encoding's WKT bit is set, else GeoTIFF key 3072 (projected) or 2048 (geographic)
        held in the key directory itself; None when it names none (or the system is
        geocentric)."""
        if self.global_encoding & 16:
            wkt = (self.record(2112) or b"").split(b"\0")[0].decode("latin-1").strip()
            found = re.search(r'(?:AUTHORITY\["EPSG",\s*"(\d+)"\]|ID\["EPSG",\s*(\d+)\])\]$', wkt)
            return int(found.group(1) or found.group(2)) if found else None
        keys = self.record(34735)
        if not keys:
            return None
        words = struct.unpack_from("<%dH" % (len(keys) // 2), keys)
        entries = {words[4 * k]: words[4 * k + 1 : 4 * k + 4] for k in range(1, words[3] + 1)}
        # GeoTIFF's model type (key 1024) says which key names the system: 1 projected, 2
        # geographic; without it, the projected key where there is one.
        model = entries.get(1024, (0, 0, 0))[2]
        key = {1: 3072, 2: 2048}.get(model, 3072 if model == 0 else None)
        location, _, value = entries.get(key, (1, 0, 0))
        return value if location == 0 and value not in (0, 32767) else None


def partner(laz):
    """The uncompressed file a LAZ sample was made from (data/SOURCES.md)."""
    base = re.sub(r"(-v1|v4)$", "", laz.stem)
    for name in (base + ".decoded.las", base + ".las"):
        if (laz.parent / name).exists():
            return laz.parent / name
    raise AssertionError("no uncompressed partner for %s" % laz)


@functools.lru_cache(maxsize=None)
def info(*paths):
    done = subprocess.run([QUORVEL, "info", "--json", *map(str, paths)], capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)  # standard output holds the document and nothing else


@functools.lru_cache(maxsize=None)
def parsed(path):
    return LasFile(path)


def sample_files():
    return sorted(p for p in SAMPLES.iterdir() if p.suffix in (".las", ".laz"))


def real_files():
    if not REAL.is_dir():
        return [pytest.param(None, marks=pytest.mark.skip(reason="no real scans in %s" % REAL))]
    return sorted(REAL.glob("*.las"))


def near(a, b):
    return a == pytest.approx(b, rel=1e-12, abs=1e-9)


def check_file(path):
    d, f = info(path), parsed(path)
    # The header.
    assert d["type"] == ("laz" if f.compressed else "las")
    assert d["version"] == "%d.%d" % (f.major, f.minor)
    assert d["point_format"] == f.point_format
    assert d["record_length"] == f.record_length
    assert d["points"] == f.count
    assert d["points_by_return"] == f.returns
    assert d["scale"] == f.scale and d["offset"] == f.offset
    assert d["header_bounds"] == {"min": f.header_min, "max": f.header_max}
    # Records as stored, the LAZ compressor's own included.
    as_listed = lambda rs: [(r["user_id"], r["record_id"], r["description"], r["length"]) for r in rs]
    assert as_listed(d["vlrs"]) == [r[:4] for r in f.vlrs]
    assert as_listed(d["evlrs"]) == [r[:4] for r in f.evlrs]
    # The points, from the records (a LAZ file's from its partner).
    p = parsed(partner(path)).points if f.compressed else f.points
    assert d["points_by_return_counted"] == p["returns"]
    assert d["classes"] == p["classes"]
    for end in ("min", "max"):
        assert all(near(a, b) for a, b in zip(d["bbox"][end], p["bbox"][end]))
    if p["gps"] is None:
        assert d["gps_time"] is None
    else:
        assert d["gps_time"]["type"] == p["gps"]["type"]
        assert near(d["gps_time"]["min"], p["gps"]["min"])
        assert near(d["gps_time"]["max"], p["gps"]["max"])
    width = p["bbox"]["max"][0] - p["bbox"]["min"][0]
    height = p["bbox"]["max"][1] - p["bbox"]["min"][1]
    assert d["density"] == (pytest.approx(f.count / (width * height)) if width * height > 0 else None)
    # The coordinate system, where the file names an EPSG code.
    if f.epsg() is not None:
        assert d["crs"] is not None and d["crs"]["epsg"] == f.epsg(), d["crs"]
    if f.record(2112) is None and f.record(34735) is None:
        assert d["crs"] is None


@pytest.mark.parametrize("path", sample_files(), ids=lambda p: p.name)
def test_samples_agree_with_their_bytes(path):
    check_file(path)


@pytest.mark.parametrize("path", real_files(), ids=lambda p: p.name if p else "absent")
def test_real_scans_agree_with_their_bytes(path):
    check_file(path)


def test_nebraska_wkt_governs_over_its_geotiff_keys():
    # A LAS 1.4 file whose WKT (the record its global encoding makes the one that counts) is an
    # ESRI definition without an identifier (NAD83(2011), Lambert conformal conic, parallels 40
    # and 43, US survey feet), the definition of EPSG 6880, "NAD83(2011) / Nebraska (ftUS)"; its
    # GeoTIFF keys name 32104 (NAD83 / Nebraska, in metres) and must not win.
    f = parsed(SAMPLES / "nebraska_wkt_geotiff.las")
    assert f.global_encoding & 16 and f.epsg() is None
    crs = info(SAMPLES / "nebraska_wkt_geotiff.las")["crs"]
    assert crs["epsg"] == 6880 and crs["unit"] == "US survey foot", crs
    assert "Nebraska" in crs["name"] and crs["wkt"].startswith("PROJCS[")


def test_several_files_and_directories():
    # Several operands: an array in their order; a directory: its LAS, LAZ and bundle files by
    # name, nothing else (SOURCES.md is left out).
    pair = info(SAMPLES / "simple.laz", SAMPLES / "sample_c.las")
    assert [d["file"] for d in pair] == [str(SAMPLES / "simple.laz"), str(SAMPLES / "sample_c.las")]
    listed = info(SAMPLES)
    assert [pathlib.Path(d["file"]).name for d in listed] == [p.name for p in sample_files()]
    assert listed[0] == info(sample_files()[0])


def test_failures_name_the_file_and_print_no_document(tmp_path):
    (tmp_path / "empty").mkdir()
    (tmp_path / "empty" / "notes.txt").write_text("no clouds here\n")
    (tmp_path / "broken.las").write_bytes(b"LASF" + bytes(50))
    for operand, text in (
        (tmp_path / "empty", "%s: no LAS, LAZ or bundle files" % (tmp_path / "empty")),
        (tmp_path / "broken.las", "%s: truncated header" % (tmp_path / "broken.las")),
    ):
        args = [QUORVEL, "info", "--json", str(SAMPLES / "simple.laz"), str(operand)]
        done = subprocess.run(args, capture_output=True, text=True)
        assert done.returncode == 1 and done.stdout == ""
        assert text in done.stderr and done.stderr.count("\n") == 1, done.stderr
