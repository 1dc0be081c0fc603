# SPDX-License-Identifier: BSD-3-Clause
"""What the host loads: LAS and LAZ work loads neither GDAL, PROJ nor HDF5 (nor the host's modules
that link them), as the dynamic loader reports it (LD_DEBUG=files); naming a coordinate system,
making a raster and writing a bundle open the module they need and work, and a raster of a cloud
without a coordinate system needs no GDAL; a missing module is named. Points are compared with the records read here with struct, the coordinate system with
the file's GeoTIFF keys.

QUORVEL names the host and QUORVEL_SAMPLE_DATA the sample folder.
"""

import os
import pathlib
import shutil
import struct
import subprocess

import pytest

QUORVEL = os.environ.get("QUORVEL", "quorvel")
SAMPLES = pathlib.Path(os.environ.get("QUORVEL_SAMPLE_DATA", "data"))
# A LAS 1.4 file with a coordinate system (WKT and GeoTIFF keys of EPSG:6880).
WITH_CRS = SAMPLES / "nebraska_wkt_geotiff.las"
GDAL = ("libgdal", "libproj", "libquorvel_gdal")
HDF5 = ("libhdf5", "libquorvel_bundle")  # GDAL loads HDF5 too, for its HDF5 drivers


def loaded(*args, env=None):
    """The names of the shared objects the host loads for args, and the run."""
    env = dict(env or os.environ, LD_DEBUG="files,bindings")
    done = subprocess.run([QUORVEL, *map(str, args)], capture_output=True, text=True, env=env)
    names, log = set(), []
    for line in done.stderr.splitlines():
        if "file=" in line and ("needed by" in line or "dynamically loaded by" in line):
            names.add(pathlib.Path(line.split("file=")[1].split()[0]).name)
        elif "binding file" in line and "`mallopt'" in line:
            names.add("mallopt")
        elif not line.lstrip().split(":", 1)[0].isdigit():
            log.append(line)
    done.stderr = "\n".join(log)
    return names, done


def heavy(names, prefixes):
    return sorted(n for n in names if n.startswith(prefixes) or n == "mallopt")


def records(path):
    """The point records of a LAS file, as bytes."""
    b = pathlib.Path(path).read_bytes()
    offset, = struct.unpack_from("<I", b, 96)
    length, = struct.unpack_from("<H", b, 105)
    count, = struct.unpack_from("<Q", b, 247) if b[25] >= 4 else struct.unpack_from("<I", b, 107)
    return b[offset:offset + count * length]


def crs_records(path):
    """The WKT of a LAS file's record 2112, whether its global encoding makes the WKT count, and
    the projected system's code in its GeoTIFF keys (record 34735)."""
    b = pathlib.Path(path).read_bytes()
    encoding, header_size = struct.unpack_from("<HH", b, 6)[0], struct.unpack_from("<H", b, 94)[0]
    _, vlrs = struct.unpack_from("<II", b, 96)
    at, wkt, code = header_size, None, None
    for _ in range(vlrs):
        record, length = struct.unpack_from("<HH", b, at + 18)
        if record == 2112:
            wkt = b[at + 54:at + 54 + length].rstrip(b"\0").decode()
        if record == 34735:
            keys = struct.unpack_from("<%dH" % (length // 2), b, at + 54)
            code = next(keys[k + 3] for k in range(4, len(keys), 4) if keys[k] == 3072)
        at += 54 + length
    return wkt, bool(encoding & 16), code


def test_las_and_laz_work_loads_neither_gdal_nor_hdf5(tmp_path):
    a = tmp_path / "a.las"
    shutil.copy(WITH_CRS, a)
    shutil.copy(WITH_CRS, tmp_path / "a2.las")
    runs = [
        ["--help"],
        ["convert", "--help"],
        ["convert", a, tmp_path / "b.laz"],
        ["convert", tmp_path / "b.laz", tmp_path / "c.las"],
        ["select", a, "--where", "Classification == 2", "-o", tmp_path / "s.laz"],
        ["thin", tmp_path / "b.laz", "--every", "3", "-o", tmp_path / "t.las"],
        # Files of one coordinate system join without its name being asked for.
        ["merge", a, tmp_path / "a2.las", "-o", tmp_path / "m.laz"],
        ["tile", a, tmp_path / "a2.las", "-o", tmp_path / "tiles", "--size", "20"],
    ]
    for args in runs:
        names, done = loaded(*args)
        assert done.returncode == 0, (args, done.stderr)
        assert heavy(names, GDAL + HDF5) == [], args
        assert "libquorvel_io.so.0" in names, args  # the loader's report was read
    assert records(tmp_path / "c.las") == records(WITH_CRS)


def test_coordinate_systems_rasters_and_bundles_open_their_module(tmp_path):
    # The WKT (in US survey feet) counts, not the keys (of a system in metres).
    wkt, wkt_counts, key_code = crs_records(WITH_CRS)
    assert wkt_counts and 'UNIT["Foot_US"' in wkt and key_code == 32104
    names, done = loaded("info", WITH_CRS)
    assert done.returncode == 0, done.stderr
    assert "crs unit: US survey foot" in done.stdout and "(EPSG:" in done.stdout
    assert "EPSG:%d" % key_code not in done.stdout
    assert heavy(names, GDAL) and "libquorvel_bundle.so" not in names

    names, done = loaded("dtm", WITH_CRS, "-o", tmp_path / "d.tif", "--cell", "5")
    assert done.returncode == 0, done.stderr
    assert (tmp_path / "d.tif").read_bytes()[:4] == b"II*\0"
    assert heavy(names, GDAL) and "libquorvel_bundle.so" not in names

    # A cloud without coordinate-system records makes rasters without one, and no GDAL.
    for command in ("dtm", "dsm"):
        names, done = loaded(command, SAMPLES / "sample_c.las", "-o", tmp_path / "n.h5",
                             "--cell", "5")
        assert done.returncode == 0, done.stderr
        assert heavy(names, HDF5) and not heavy(names, GDAL), command
    info = subprocess.run([QUORVEL, "info", tmp_path / "n.h5"], capture_output=True, text=True)
    assert "crs: unknown" in info.stdout and "cells: " in info.stdout, info.stderr

    names, done = loaded("convert", WITH_CRS, tmp_path / "a.h5")
    assert done.returncode == 0, done.stderr
    assert (tmp_path / "a.h5").read_bytes()[:8] == b"\x89HDF\r\n\x1a\n"
    assert heavy(names, HDF5) and not heavy(names, GDAL)
    names, done = loaded("convert", tmp_path / "a.h5", tmp_path / "back.las")
    assert done.returncode == 0, done.stderr
    assert records(tmp_path / "back.las") == records(WITH_CRS)


def test_a_missing_module_is_named(tmp_path):
    """The libraries alone in a folder of their own, found first by the library path: the modules
    are looked for beside them, and are not there."""
    lines = subprocess.run(["ldd", QUORVEL], capture_output=True, text=True, check=True).stdout
    libs = [line.split("=>")[1].split()[0] for line in lines.splitlines()
            if "libquorvel" in line and "=>" in line]
    assert len(libs) == 4, lines
    for lib in libs:
        shutil.copy(lib, tmp_path)
    env = dict(os.environ, LD_LIBRARY_PATH=str(tmp_path))

    def fails(*args):
        done = subprocess.run([QUORVEL, *map(str, args)], capture_output=True, text=True, env=env)
        assert done.returncode == 1, done.stderr
        return done.stderr

    gdal = tmp_path / "libquorvel_gdal.so"
    missing_gdal = ("quorvel: error: rasters and coordinate systems need GDAL: cannot open %s: "
                    "cannot open shared object file: No such file or directory\n" % gdal)
    assert fails("info", WITH_CRS) == missing_gdal
    # Commands that surely need GDAL open it on a thread of their own while the cloud is read:
    # its failure is still the run's, said once.
    square = tmp_path / "square.geojson"
    square.write_text('{"type": "Polygon", "coordinates": [[[0, 0], [1, 0], [1, 1], [0, 0]]]}')
    assert fails("crop", WITH_CRS, "--polygon", square, "-o", tmp_path / "c.las") == missing_gdal
    assert fails("reproject", WITH_CRS, "--to", "EPSG:4326", "-o", tmp_path / "r.las") == (
        missing_gdal)
    assert not (tmp_path / "c.las").exists() and not (tmp_path / "r.las").exists()
    bundle = tmp_path / "libquorvel_bundle.so"
    assert "cannot open %s: cannot open shared object file" % bundle in fails(
        "convert", WITH_CRS, tmp_path / "a.h5")
    assert not (tmp_path / "a.h5").exists()


@pytest.mark.parametrize("sample", ["nebraska_wkt_geotiff.las", "extra.decoded.las", "wave4.las",
                                    "vegetation_1_3.las", "times.las"])
def test_las_copied_through_is_the_file_a_grid_writes(tmp_path, sample):
    """convert copies a LAS file's records through without a grid; with a fragment size given it
    builds one. Both write the same bytes and say the same warnings, once."""
    for ext in ("las", "laz"):
        copied = subprocess.run([QUORVEL, "-q", "convert", SAMPLES / sample, tmp_path / ("c." + ext)],
                                capture_output=True, text=True)
        built = subprocess.run([QUORVEL, "-q", "--fragment-points", "1000000000", "convert",
                                SAMPLES / sample, tmp_path / ("g." + ext)],
                               capture_output=True, text=True)
        assert copied.returncode == 0 and built.returncode == 0, copied.stderr + built.stderr
        assert copied.stderr == built.stderr
        assert (tmp_path / ("c." + ext)).read_bytes() == (tmp_path / ("g." + ext)).read_bytes()
    assert records(tmp_path / "c.las") == records(SAMPLES / sample)
