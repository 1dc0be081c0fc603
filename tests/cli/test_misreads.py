# SPDX-License-Identifier: BSD-3-Clause
"""Inputs the host used to read as something else without a word, each refused or warned of with
the file (or the option) and the value: classes beyond a byte, empty and reversed ranges, LAS
extra-bytes descriptors no reader can apply, LAS points outside their header's bounds (a scale
or offset that is not the one they were written with), rasters with infinite heights or
unusable pixel sizes.

LAS files are written here with struct; rasters are GDAL virtual rasters (XML) over raw float32
pixels written with numpy.

QUORVEL names the host, QUORVEL_SAMPLE_DATA the sample data folder.
"""

import math
import os
import pathlib
import struct
import subprocess

import numpy as np
import pytest

QUORVEL = os.environ.get("QUORVEL", "quorvel")
DATA = os.environ.get("QUORVEL_SAMPLE_DATA",
                      os.path.join(os.path.dirname(__file__), "..", "..", "data"))


def quorvel(*args):
    return subprocess.run([QUORVEL, "-q", *map(str, args)], capture_output=True, text=True)


# ---- Option values -----------------------------------------------------------------------------


@pytest.mark.parametrize("option, value, message", [
    # Classes are one byte: 999 was stored as 231.
    ("--bands", "1=999", '--bands: "1=999" gives a class outside 0 to 255'),
    ("--bands", "0.5=2;1=-1", '--bands: "1=-1" in "0.5=2;1=-1" gives a class outside 0 to 255'),
    # An empty text ran as the default band of 1 mm.
    ("--bands", "", "--bands: an empty value holds no distance (leave the option out for the "
                    "default)"),
    # 5:1 holds no class: the run changed nothing.
    ("--source-classes", "5:1", '--source-classes: "5:1" is reversed: its low end is above its '
                                "high end"),
    ("--target-classes", "0,9:3", '--target-classes: "9:3" in "0,9:3" is reversed: its low end '
                                  "is above its high end"),
])
def test_values_read_as_something_else_are_refused(tmp_path, option, value, message):
    done = quorvel("transfer", os.path.join(DATA, "sample_c_thin.las"),
                   os.path.join(DATA, "sample_nc.las"), "-o", tmp_path / "out.las", option, value)
    assert done.returncode == 2, done.stderr
    assert message in done.stderr
    assert not (tmp_path / "out.las").exists()


# ---- LAS extra-bytes descriptors ---------------------------------------------------------------


def small_las(path, descriptors=(), extra_length=0, offset=0.0):
    """A LAS 1.4 format 6 file of three points at 0, 0.01 and 0.02 m on every axis (its header
    bounds), stored with scale 0.01 and the offset given; records carry extra_length bytes after
    the 30 of the format, described by the given 192-byte descriptors."""
    payload = b"".join(descriptors)
    record = (struct.pack("<H16sHH32s", 0, b"LASF_Spec", 4, len(payload), b"") + payload
              if descriptors else b"")
    length = 30 + extra_length
    stored = [round((0.01 * k - offset) / 0.01) for k in range(3)]
    points = b"".join(struct.pack("<iiiHBBBBhHd", v, v, v, 0, 0x11, 0, 1, 0, 0, 0, 0.0)
                      + bytes(range(extra_length)) for v in stored)
    head = struct.pack("<4sHH16sBB32s32sHHHIIBHI5I3d3d6d", b"LASF", 0, 0, bytes(16), 1, 4, b"",
                       b"test_misreads", 1, 2024, 375, 375 + len(record), int(bool(record)), 6,
                       length, 0, 0, 0, 0, 0, 0, 0.01, 0.01, 0.01, offset, offset, offset,
                       0.02, 0, 0.02, 0, 0.02, 0)
    head += struct.pack("<QQIQ15Q", 0, 0, 0, 3, 3, *[0] * 14)
    pathlib.Path(path).write_bytes(head + record + points)


def descriptor(name, data_type, options=0, scale=0.0, offset=0.0):
    """An extra-bytes descriptor: the scale and offset of the first component at 112 and 136."""
    d = bytearray(192)
    struct.pack_into("<BB32s", d, 2, data_type, options, name.encode())
    struct.pack_into("<d", d, 112, scale)
    struct.pack_into("<d", d, 136, offset)
    return bytes(d)


SCALE, OFFSET = 1 << 3, 1 << 4


@pytest.mark.parametrize("described, length, warning", [
    (descriptor("empty", 0, 0), 0,
     'extra-bytes dimension "empty" has length 0 (type 0 with no bytes): left out'),
    (descriptor("height", 4, SCALE, 0.0), 2,
     'extra-bytes dimension "height" has scale 0, which no reader can apply: its stored values '
     "are read unscaled"),
    (descriptor("height", 4, SCALE, math.nan), 2,
     'extra-bytes dimension "height" has scale nan, which no reader can apply'),
    (descriptor("height", 4, SCALE | OFFSET, 0.01, math.inf), 2,
     'extra-bytes dimension "height" has offset inf, which no reader can apply'),
], ids=["length 0", "scale 0", "scale NaN", "offset inf"])
def test_extra_bytes_descriptors_no_reader_can_apply_are_warned_of(tmp_path, described, length,
                                                                  warning):
    path = tmp_path / "extra.las"
    small_las(path, [described], length)
    done = quorvel("info", path)
    assert done.returncode == 0, done.stderr
    assert f"{path}: warning: {warning}" in done.stderr


def test_each_warning_is_said_once_by_every_command(tmp_path):
    # A file is opened more than once by the commands that stream it (checked, then read).
    path = tmp_path / "extra.las"
    small_las(path, [descriptor("height", 4, SCALE, math.nan)], 2)
    for args in (["info", path], ["convert", path, tmp_path / "c.las"],
                 ["merge", path, "-o", tmp_path / "m.laz"], ["thin", path, "-o", tmp_path /
                 "t.las", "--every", 2], ["tile", path, "-o", tmp_path / "tiles", "--size", 100]):
        done = quorvel(*args)
        assert done.returncode == 0, done.stderr
        assert done.stderr.count("which no reader can apply") == 1, (args, done.stderr)


def test_usable_extra_bytes_descriptors_read_quietly(tmp_path):
    path = tmp_path / "extra.las"
    small_las(path, [descriptor("height", 4, SCALE | OFFSET, 0.01, 5.0)], 2)
    done = quorvel("info", path)
    assert done.returncode == 0 and "warning" not in done.stderr, done.stderr


def test_points_outside_the_header_bounds_are_warned_of(tmp_path):
    # The records were written with offset 0; a header saying -1 moves every point by 1 m.
    path = tmp_path / "moved.las"
    small_las(path)
    data = bytearray(path.read_bytes())
    struct.pack_into("<d", data, 155, -1.0)
    path.write_bytes(bytes(data))
    done = quorvel("convert", path, tmp_path / "moved.xyz")
    assert done.returncode == 0, done.stderr
    assert (f"{path}: warning: the points' x runs from -1 to -0.98, outside the header's bounds "
            "0 to 0.02: the scale (0.01) or offset (-1) of x is likely not the one the points "
            "were written with") in done.stderr
    # Written with the offset it states, the same header reads quietly.
    small_las(path, offset=-1.0)
    done = quorvel("convert", path, tmp_path / "fine.xyz")
    assert done.returncode == 0 and "warning" not in done.stderr, done.stderr


# ---- Rasters -----------------------------------------------------------------------------------


def virtual_raster(folder, heights, transform):
    """A GDAL virtual raster of the float32 heights (rows north first) with the geotransform."""
    heights = np.asarray(heights, "<f4")
    rows, columns = heights.shape
    (folder / "heights.raw").write_bytes(heights.tobytes())
    path = folder / "heights.vrt"
    path.write_text(
        f'<VRTDataset rasterXSize="{columns}" rasterYSize="{rows}">\n'
        f"  <GeoTransform>{', '.join(map(repr, map(float, transform)))}</GeoTransform>\n"
        '  <VRTRasterBand dataType="Float32" band="1" subClass="VRTRawRasterBand">\n'
        '    <SourceFilename relativeToVRT="1">heights.raw</SourceFilename>\n'
        f"    <ImageOffset>0</ImageOffset><PixelOffset>4</PixelOffset>"
        f"<LineOffset>{4 * columns}</LineOffset><ByteOrder>LSB</ByteOrder>\n"
        "  </VRTRasterBand>\n</VRTDataset>\n")
    return path


NORTH_UP = (100, 1, 0, 203, 0, -1)


@pytest.mark.parametrize("heights, transform, problem", [
    ([[1, 2, 3], [4, math.inf, 6], [7, 8, 9]], NORTH_UP,
     "the pixel at row 1, column 1 of band 1 is inf"),
    ([[1, 2, 3], [4, 5, 6], [7, 8, -math.inf]], NORTH_UP,
     "the pixel at row 2, column 2 of band 1 is -inf"),
    ([[1, 2], [3, 4]], (100, 1, 0, 203, 0, math.nan),
     "the raster's pixel size (1 by nan) is not usable: the width must be positive and finite, "
     "the height finite and not 0"),
    ([[1, 2], [3, 4]], (100, math.inf, 0, 203, 0, -1),
     "the raster's pixel size (inf by -1) is not usable"),
    ([[1, 2], [3, 4]], (100, -1, 0, 203, 0, -1), "the raster's pixel size (-1 by -1) is not usable"),
])
def test_rasters_with_unusable_heights_or_pixels_are_refused(tmp_path, heights, transform,
                                                             problem):
    source = virtual_raster(tmp_path, heights, transform)
    done = quorvel("raster", "import", source, "-o", tmp_path / "imported.h5")
    assert done.returncode == 1, done.stderr
    assert f"{source}: {problem}" in done.stderr
    assert not (tmp_path / "imported.h5").exists()
