# SPDX-License-Identifier: BSD-3-Clause
"""quorvel render and quorvel.render against pictures worked out here with numpy: the highest
point of every pixel and its class's colour, the world file's pixel centres, the nearest point of
every pixel of a profile, the ramp's lightness, and gdaldem's hillshade formula. PNG files are
decoded here with zlib alone, so that nothing shares GDAL's code.

QUORVEL names the host and QUORVEL_SAMPLE_DATA the sample folder; the package is on PYTHONPATH.
"""

import math
import os
import pathlib
import struct
import subprocess
import zlib

import numpy as np
import pytest

import quorvel

QUORVEL = os.environ.get("QUORVEL", "quorvel")
SAMPLES = pathlib.Path(os.environ.get("QUORVEL_SAMPLE_DATA", "data"))


def run(*args):
    return subprocess.run([QUORVEL, *map(str, args)], capture_output=True, text=True)


def png_pixels(path):
    """The pixels of an 8-bit RGB or RGBA PNG as a (rows, columns, 3 or 4) array: zlib and the
    five row filters of the PNG format, nothing else."""
    data = open(path, "rb").read()
    assert data[:8] == b"\x89PNG\r\n\x1a\n"
    at, idat = 8, b""
    while at < len(data):
        length, kind = struct.unpack_from(">I4s", data, at)
        body = data[at + 8:at + 8 + length]
        if kind == b"IHDR":
            width, height, depth, colour, _, _, interlace = struct.unpack_from(">IIBBBBB", body)
            assert depth == 8 and colour in (2, 6) and interlace == 0
        elif kind == b"IDAT":
            idat += body
        at += 12 + length
    bpp, raw = (3 if colour == 2 else 4), zlib.decompress(idat)
    stride = width * bpp
    rows, up = [], bytearray(stride)
    for row in range(height):
        kind, line = raw[row * (stride + 1)], raw[row * (stride + 1) + 1:(row + 1) * (stride + 1)]
        out = bytearray(line)
        if kind == 2:
            out = bytearray((a + b) & 255 for a, b in zip(line, up))
        elif kind in (1, 3, 4):  # Sub, Average and Paeth depend on the bytes just made
            for i in range(stride):
                left = out[i - bpp] if i >= bpp else 0
                corner = up[i - bpp] if i >= bpp else 0
                if kind == 1:
                    pred = left
                elif kind == 3:
                    pred = (left + up[i]) >> 1
                else:
                    p = left + up[i] - corner
                    pa, pb, pc = abs(p - left), abs(p - up[i]), abs(p - corner)
                    pred = left if pa <= pb and pa <= pc else up[i] if pb <= pc else corner
                out[i] = (line[i] + pred) & 255
        rows.append(out)
        up = out
    return np.frombuffer(b"".join(rows), np.uint8).reshape(height, width, bpp).astype(np.int32)


def palette():
    """Class -> (r, g, b) from `quorvel render --palette`."""
    result = run("render", "--palette")
    assert result.returncode == 0, result.stderr
    colours = {}
    for line in result.stdout.splitlines():
        cls, colour = line.split()[:2]
        if cls != "other":
            colours[int(cls)] = tuple(int(colour[k:k + 2], 16) for k in (1, 3, 5))
    return colours


def scene(seed=7):
    """40 x 40 m: ground everywhere (z near 0), a building (class 6, z 8) in the north-east
    quarter over ground, vegetation (class 5, z 2 to 15) in the south-west quarter over ground."""
    rng = np.random.default_rng(seed)
    ground = np.column_stack([rng.uniform(0, 40, 6000), rng.uniform(0, 40, 6000),
                              rng.uniform(-0.2, 0.2, 6000)])
    roof = np.column_stack([rng.uniform(20.3, 39.7, 1500), rng.uniform(20.3, 39.7, 1500),
                            np.full(1500, 8.0) + rng.uniform(0, 0.1, 1500)])
    trees = np.column_stack([rng.uniform(0, 20, 2000), rng.uniform(0, 20, 2000),
                             rng.uniform(2, 15, 2000)])
    xyz = np.vstack([ground, roof, trees]) + [500000.0, 4000000.0, 100.0]
    classes = np.concatenate([np.full(6000, 2), np.full(1500, 6), np.full(2000, 5)]).astype(np.uint8)
    order = rng.permutation(len(xyz))
    return xyz[order], classes[order]


def highest(keys, depth, values):
    """For every distinct key, the value of the entry of greatest depth."""
    order = np.lexsort((depth, keys))
    last = np.r_[keys[order][1:] != keys[order][:-1], True]
    return keys[order][last], values[order][last]


def test_top_view_shows_each_pixels_highest_point_in_its_class_colour():
    xyz, classes = scene()
    cloud = quorvel.Cloud(xyz, classification=classes)
    colours = palette()
    for pixel in (1.0, 0.7):
        image = quorvel.render_array(cloud, pixel=pixel)
        left = math.floor(xyz[:, 0].min() / pixel) * pixel
        top = (math.floor(xyz[:, 1].max() / pixel) + 1) * pixel
        columns = np.floor((xyz[:, 0] - left) / pixel).astype(np.int64)
        rows = np.floor((top - xyz[:, 1]) / pixel).astype(np.int64)
        assert image.shape[:2] == (rows.max() + 1, columns.max() + 1)
        keys, cls = highest(rows * image.shape[1] + columns, xyz[:, 2], classes)
        expected = np.zeros(image.shape, np.uint8)
        flat = expected.reshape(-1, 4)
        flat[keys, :3] = [colours[c] for c in cls]
        flat[keys, 3] = 255
        np.testing.assert_array_equal(image, expected)
    # Only the building's class, into 100 pixels along x at most.
    building = quorvel.render_array(cloud, classes="6", size=(100,))
    drawn = building[..., 3] == 255
    assert building.shape[1] == 100 and drawn.sum() > 1000
    assert (building[drawn][:, :3] == colours[6]).all()


def test_png_world_file_and_geotiff(tmp_path):
    xyz, classes = scene()
    cloud = quorvel.Cloud(xyz, classification=classes)
    las = tmp_path / "scene.las"
    cloud.write(str(las))
    out = tmp_path / "top.png"
    result = run("render", las, "-o", out, "--pixel", 0.5)
    assert result.returncode == 0, result.stderr
    image = png_pixels(out)
    stored = quorvel.read(str(las))
    np.testing.assert_array_equal(image, quorvel.render_array(stored, pixel=0.5))
    xyz = stored.xyz  # rounded to the file's scale
    a, d, b, e, c, f = map(float, (tmp_path / "top.pgw").read_text().split())
    assert (a, d, b, e) == (0.5, 0.0, 0.0, -0.5)
    # The centre of the pixel every point falls into lies within half a pixel of it (points on
    # a pixel's edge, which the file's 0.01 m steps make many, lie in either).
    u, v = (xyz[:, 0] - c) / a, (xyz[:, 1] - f) / e
    inner = (np.abs(u % 1 - 0.5) > 1e-6) & (np.abs(v % 1 - 0.5) > 1e-6)
    columns, rows = np.round(u[inner]).astype(int), np.round(v[inner]).astype(int)
    xyz = xyz[inner]
    assert (np.abs(c + columns * a - xyz[:, 0]) <= 0.25 + 1e-6).all()
    assert (np.abs(f + rows * e - xyz[:, 1]) <= 0.25 + 1e-6).all()
    assert (image[rows, columns, 3] == 255).all()
    assert rows.min() == 0 and columns.min() == 0
    # GeoTIFF with the coordinate system of a LAS file that has one.
    tif = tmp_path / "top.tif"
    result = run("render", SAMPLES / "nebraska_wkt_geotiff.las", "-o", tif, "--size", 64)
    assert result.returncode == 0, result.stderr
    assert tif.read_bytes()[:4] in (b"II*\x00", b"MM\x00*")
    info = run("info", tif).stdout
    assert "crs: NAD83(2011) / Nebraska (ftUS) (EPSG:6880)" in info
    assert "bounds: 2445180.000 604299.674 - 2445239.990 604339.980" in info


def test_profile_pixels_show_the_nearest_corridor_point():
    rng = np.random.default_rng(3)
    n = 20000
    xyz = np.column_stack([rng.uniform(0, 30, n), rng.uniform(0, 30, n), rng.uniform(0, 12, n)])
    classes = rng.choice([2, 3, 4, 5, 6, 9], n).astype(np.uint8)
    cloud = quorvel.Cloud(xyz, classification=classes)
    start, end, width, pixel = (2.0, 3.0), (27.0, 24.0), 1.5, 0.5
    image = quorvel.render_array(cloud, view="profile", line=(start, end), width=width, pixel=pixel)
    direction = np.subtract(end, start) / math.dist(start, end)
    rel = xyz[:, :2] - start
    along = rel @ direction
    right = rel[:, 0] * direction[1] - rel[:, 1] * direction[0]
    inside = (along >= 0) & (along <= math.dist(start, end)) & (np.abs(right) <= width)
    along, z, right, cls = along[inside], xyz[inside, 2], right[inside], classes[inside]
    columns = np.minimum(np.floor((along - along.min()) / pixel).astype(int), image.shape[1] - 1)
    rows = np.minimum(np.floor((z.max() - z) / pixel).astype(int), image.shape[0] - 1)
    keys, shown = highest(rows * image.shape[1] + columns, right, cls)
    colours = palette()
    flat = image.reshape(-1, 4)
    assert (flat[keys, 3] == 255).all() and (flat[:, 3] == 255).sum() == len(keys)
    np.testing.assert_array_equal(flat[keys, :3], [colours[c] for c in shown])
    with pytest.raises(ValueError, match="line"):
        quorvel.render_array(cloud, view="profile")


def luminance(rgb):
    linear = np.where(rgb / 255 <= 0.04045, rgb / 255 / 12.92, ((rgb / 255 + 0.055) / 1.055) ** 2.4)
    return linear @ [0.2126, 0.7152, 0.0722]


def test_ramp_grows_lighter_over_the_range_and_clamps_outside():
    x = np.arange(0, 200) + 0.5
    xyz = np.column_stack([x, np.full(200, 0.5), x / 10])  # z 0.05 to 19.95 west to east
    cloud = quorvel.Cloud(xyz, classification=np.full(200, 2, np.uint8))
    image = quorvel.render_array(cloud, by="z", pixel=1, range=(5, 15))
    row = image[0, :, :3].astype(float)
    light = luminance(row)
    inside = (x / 10 > 5) & (x / 10 < 15)
    assert (np.diff(light[inside]) > 0).all()
    assert (row[x / 10 <= 5] == row[0]).all() and (row[x / 10 >= 15] == row[-1]).all()
    assert light[-1] > 5 * light[0]
    # Without a range: the 2nd and 98th percentiles of the values drawn.
    default = quorvel.render_array(cloud, by="z", pixel=1)[0, :, :3]
    assert (default[:4] == default[0]).all() and not (default[4] == default[0]).all()
    assert (default[-5:] == default[-1]).all() and not (default[-6] == default[-1]).all()


def gdal_hillshade(dzdx, dzdy):
    """gdaldem's default hillshade (azimuth 315, altitude 45) from the height's gradient (x east,
    y north; the formula's own y runs south, down the rows)."""
    zenith, azimuth = math.radians(45), math.radians(360 - 315 + 90)
    slope = math.atan(math.hypot(dzdx, dzdy))
    aspect = math.atan2(-dzdy, -dzdx)
    value = math.cos(zenith) * math.cos(slope) + math.sin(zenith) * math.sin(slope) * math.cos(
        azimuth - aspect)
    return 1 if value <= 0 else 1 + 254 * value


def test_hillshade_of_a_plane_is_uniform_and_a_ridge_is_lit_from_the_north_west():
    j, i = np.mgrid[0:30, 0:40].astype(float)  # j: rows from the lowest y
    plane = quorvel.raster((0.3 * i + 0.2 * j).astype(np.float32), cell_size=1.0)
    shade = quorvel.render_array(plane, hillshade=True)
    grey = shade[..., 0].astype(int)
    assert (grey == shade[..., 1]).all() and (shade[..., 3] == 255).all()
    # dz/dy counts north as positive; rows of a picture run north to south.
    assert abs(grey - gdal_hillshade(0.3, 0.2)).max() <= 1
    ridge = quorvel.raster((10 - np.abs(i - 20)).astype(np.float32), cell_size=1.0)
    lit = quorvel.render_array(ridge, hillshade=True)[..., 0].astype(int)
    west, east = lit[:, 2:18], lit[:, 22:38]
    assert abs(west - gdal_hillshade(1, 0)).max() <= 1 and abs(east - gdal_hillshade(-1, 0)).max() <= 1
    assert west.min() > east.max()
    # Coloured by height, and a cell without a height transparent.
    height = (0.3 * i).astype(np.float32)
    height[5, 5] = np.nan
    coloured = quorvel.render_array(quorvel.raster(height), hillshade=True, by="z")
    assert coloured[30 - 1 - 5, 5, 3] == 0 and coloured[0, 0, 3] == 255
    assert luminance(coloured[10, 35, :3].astype(float)) > luminance(coloured[10, 3, :3].astype(float))


def test_shaded_raster_keeps_its_height_colours_darkened_by_the_hillshade(tmp_path):
    j, i = np.mgrid[0:30, 0:40].astype(float)
    heights = (10 - np.abs(i - 20) + 0.2 * j).astype(np.float32)  # a ridge rising northwards
    ridge = quorvel.raster(heights, cell_size=1.0)
    flat = quorvel.render_array(ridge)[..., :3].astype(float)
    shaded = quorvel.render_array(ridge, shade=True)[..., :3].astype(int)
    # A face away from the light keeps 40 % of its colour, one facing it all of it.
    for cells, dzdx in ((np.s_[2:28, 2:18], 1), (np.s_[2:28, 22:38], -1)):
        factor = 0.4 + 0.6 * gdal_hillshade(dzdx, 0.2) / 255
        assert abs(shaded[cells] - np.floor(flat[cells] * factor)).max() <= 1
    # From the host too, and --shade with --hillshade is refused by name.
    tif = tmp_path / "ridge.tif"
    ridge.write(str(tif))
    out = tmp_path / "ridge.png"
    assert run("render", tif, "-o", out, "--shade").returncode == 0
    np.testing.assert_array_equal(png_pixels(out)[..., :3], shaded)
    result = run("render", tif, "-o", out, "--shade", "--hillshade")
    assert result.returncode == 1
    assert f"{tif}: render: shade and hillshade together" in result.stderr


def test_legend_names_the_classes_or_shows_a_colour_bar():
    xyz, classes = scene()
    cloud = quorvel.Cloud(xyz, classification=classes)
    plain = quorvel.render_array(cloud, pixel=1)
    legend = quorvel.render_array(cloud, pixel=1, legend=True)
    assert legend.shape[0] >= plain.shape[0] and legend.shape[1] > plain.shape[1]
    np.testing.assert_array_equal(legend[:plain.shape[0], :plain.shape[1]], plain)
    panel = legend[:, plain.shape[1]:].reshape(-1, 4)
    colours = [tuple(c) for c in panel[:, :3]]
    for c in (2, 5, 6):  # a swatch per class drawn, and text
        assert palette()[c] in colours
    assert (0, 0, 0) in colours and (255, 255, 255) in colours
    assert palette()[9] not in colours
    bar = quorvel.render_array(cloud, pixel=1, by="z", legend=True)[:, plain.shape[1]:]
    assert len({tuple(c) for c in bar.reshape(-1, 4)[:, :3]}) > 50


def test_host_options_and_messages(tmp_path):
    las = tmp_path / "scene.las"
    xyz, classes = scene()
    quorvel.Cloud(xyz, classification=classes).write(str(las))
    custom = tmp_path / "palette.json"
    custom.write_text('{"6": "#102030", "5": {"colour": "#405060", "name": "trees"}}')
    out = tmp_path / "custom.png"
    assert run("render", las, "-o", out, "--palette", custom, "--pixel", 1).returncode == 0
    drawn = {tuple(c) for c in png_pixels(out).reshape(-1, 4)[:, :3]}
    assert {(0x10, 0x20, 0x30), (0x40, 0x50, 0x60)} <= drawn
    shaded = tmp_path / "shaded.png"
    assert run("render", las, "-o", shaded, "--pixel", 1, "--shade").returncode == 0
    assert not np.array_equal(png_pixels(shaded), png_pixels(tmp_path / "custom.png"))
    bad = tmp_path / "bad.json"
    bad.write_text('{"6": "red"}')
    result = run("render", las, "-o", out, "--palette", bad)
    assert result.returncode == 1 and f"{bad}: class 6: the colour is not" in result.stderr
    result = run("render", las, "-o", tmp_path / "x.jpg")
    assert result.returncode == 1 and "x.jpg: a picture is written as .png or .tif" in result.stderr
    result = run("render", las, "-o", out, "--view", "profile")
    assert result.returncode == 2 and "--from" in result.stderr
    result = run("render", las, "-o", out, "--by", "height")
    assert result.returncode == 1 and "quorvel map" in result.stderr
    thumb = tmp_path / "thumb.png"
    quorvel.write_thumbnail(quorvel.read(str(las)), str(thumb), size=64)
    assert max(png_pixels(thumb).shape[:2]) == 64 and (tmp_path / "thumb.pgw").exists()
