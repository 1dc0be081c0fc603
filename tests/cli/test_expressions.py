# SPDX-License-Identifier: BSD-3-Clause
"""quorvel select --where and quorvel assign against numpy masks over the records of the sample
read here with numpy (header fields by struct); text and PLY outputs parsed here with csv and
numpy, read back and compared with the records; LAS through pipes.

QUORVEL names the host and QUORVEL_SAMPLE_DATA the sample folder.
"""

import csv
import os
import pathlib
import struct
import subprocess

import numpy as np
import pytest

QUORVEL = os.environ.get("QUORVEL", "quorvel")
SAMPLES = pathlib.Path(os.environ.get("QUORVEL_SAMPLE_DATA", "data"))
SAMPLE = SAMPLES / "sample_c.las"  # LAS 1.2, point format 3, scale 0.01


def records(path):
    """The points of a LAS file of point format 3 or 6 as a dict of numpy arrays; "extra" holds
    the bytes beyond the format's own (extra bytes)."""
    b = pathlib.Path(path).read_bytes()
    offset = struct.unpack_from("<I", b, 96)[0]
    fmt, length, count = b[104], struct.unpack_from("<H", b, 105)[0], struct.unpack_from("<I", b, 107)[0]
    if b[25] >= 4 and not count:
        count = struct.unpack_from("<Q", b, 247)[0]
    assert fmt in (3, 6)
    scale = np.array(struct.unpack_from("<3d", b, 131))
    origin = np.array(struct.unpack_from("<3d", b, 155))
    raw = np.frombuffer(b, dtype=np.uint8, count=count * length, offset=offset).reshape(count, length)
    ints = raw[:, :12].copy().view("<i4").reshape(count, 3)
    returns = raw[:, 14]
    return {
        "xyz": ints * scale + origin,
        "Intensity": raw[:, 12:14].copy().view("<u2").ravel(),
        "ReturnNumber": returns & (7 if fmt == 3 else 15),
        "NumberOfReturns": (returns >> 3) & 7 if fmt == 3 else returns >> 4,
        "Classification": raw[:, 15] & 31 if fmt == 3 else raw[:, 16],
        "extra": raw[:, 34 if fmt == 3 else 30:],
    }


def run(*args, code=0, stdin=None):
    done = subprocess.run([QUORVEL, "-q", *map(str, args)], capture_output=True, input=stdin)
    assert done.returncode == code, done.stderr.decode()
    return done


@pytest.fixture(scope="module")
def sample():
    return records(SAMPLE)


def test_select_where_keeps_the_points_of_numpy_masks(sample, tmp_path):
    x, y, z = sample["xyz"].T
    c, r, i = sample["Classification"], sample["ReturnNumber"], sample["Intensity"].astype(float)
    cases = {
        "Classification == 2 && ReturnNumber == 1 && Z > 628": (c == 2) & (r == 1) & (z > 628),
        "Classification in [3, 4, 5] || Intensity / 10 >= 50": np.isin(c, [3, 4, 5]) | (i / 10 >= 50),
        "!(Z - 640 < (X - 674500) / 10) && ReturnNumber - 2 < 0": ~(z - 640 < (x - 674500) / 10) & (r < 2),
        "NumberOfReturns != 1 || Y <= 1206750.5": (sample["NumberOfReturns"] != 1) | (y <= 1206750.5),
    }
    for text, mask in cases.items():
        assert int(run("select", SAMPLE, "--where", text, "--count").stdout) == mask.sum(), text
    out = tmp_path / "sel.las"
    run("select", SAMPLE, "--where", "Z > 640", "--range", "6", "-o", out)
    np.testing.assert_array_equal(records(out)["xyz"], sample["xyz"][(z > 640) & (c == 6)])
    assert int(run("select", SAMPLE, "--where", "Z > 640", "--range", "6", "--inverse",
                   "--count").stdout) == (~((z > 640) & (c == 6))).sum()


def test_where_errors_name_the_column_or_the_field():
    done = run("select", SAMPLE, "--where", "Classification == 2 &&", "--count", code=2)
    assert ('--where: "Classification == 2 &&": column 23: expected a number, a field, "(", "-" '
            'or "!", found the end') in done.stderr.decode()
    done = run("select", SAMPLE, "--where", "Clasification == 2", "--count", code=1)
    assert 'unknown field "Clasification" (the cloud has X, Y, Z, Intensity,' in done.stderr.decode()
    done = run("select", SAMPLE, "--count", code=2)
    assert "--range or --where" in done.stderr.decode()


def test_assign_sets_fields_where_the_condition_holds(sample, tmp_path):
    out = tmp_path / "assigned.las"
    run("assign", SAMPLE, "-o", out, "--where", "Classification == 6 && Z > 650",
        "--set", "Classification=9", "--create", "Above:float32", "--set", "Above = Z - 627.5")
    got = records(out)
    z, c = sample["xyz"][:, 2], sample["Classification"]
    chosen = (c == 6) & (z > 650)
    np.testing.assert_array_equal(got["Classification"], np.where(chosen, 9, c))
    above = got["extra"][:, :4].copy().view("<f4").ravel()
    np.testing.assert_array_equal(above, np.where(chosen, (z - 627.5).astype(np.float32), 0))
    np.testing.assert_array_equal(got["xyz"], sample["xyz"])


def test_assign_refuses_a_value_the_field_cannot_hold(tmp_path):
    out = tmp_path / "never.las"
    done = run("assign", SAMPLE, "-o", out, "--where", "Classification == 2",
               "--set", "Classification = Classification * 200", code=1)
    assert ("set Classification: the value 400 of \" Classification * 200\" does not fit: uint8 "
            "holds whole numbers from 0 to 255") in done.stderr.decode()
    assert not out.exists()
    done = run("assign", SAMPLE, "-o", out, "--set", "Classification=1", "--create", "F:int", code=2)
    assert "is not FIELD:TYPE" in done.stderr.decode()


def test_csv_and_xyz_hold_the_points_with_the_input_precision_and_read_back(sample, tmp_path):
    table = tmp_path / "points.csv"
    run("convert", SAMPLE, table, "--fields", "x,y,z,classification,intensity")
    rows = list(csv.reader(table.open()))
    assert rows[0] == ["x", "y", "z", "Classification", "Intensity"]
    expected = [[f"{v:.2f}" for v in p] + [str(c), str(i)]
                for p, c, i in zip(sample["xyz"], sample["Classification"], sample["Intensity"])]
    assert rows[1:] == expected
    back = tmp_path / "back.las"
    run("convert", table, back, "--scale", "0.01")
    got = records(back)
    np.testing.assert_allclose(got["xyz"], sample["xyz"], atol=1e-6)
    np.testing.assert_array_equal(got["Classification"], sample["Classification"])

    xyz = tmp_path / "points.xyz"
    run("convert", SAMPLE, xyz, "--fields", "x,y,z,return_number")
    first = xyz.read_text().splitlines()[0].split(" ")
    assert first == [f"{v:.2f}" for v in sample["xyz"][0]] + [str(sample["ReturnNumber"][0])]
    again = tmp_path / "again.las"
    run("convert", xyz, again, "--fields", "x,y,z,ReturnNumber", "--scale", "0.01")
    np.testing.assert_array_equal(records(again)["ReturnNumber"], sample["ReturnNumber"])


def test_ply_is_binary_little_endian_with_the_fields_types(sample, tmp_path):
    ply = tmp_path / "points.ply"
    run("convert", SAMPLE, ply, "--fields", "x,y,z,Classification,Intensity")
    data = ply.read_bytes()
    end = data.index(b"end_header\n") + len(b"end_header\n")
    header = data[:end].decode().splitlines()
    assert header[1] == "format binary_little_endian 1.0"
    assert f"element vertex {len(sample['xyz'])}" in header
    assert header[-6:-1] == ["property double x", "property double y", "property double z",
                             "property uchar Classification", "property ushort Intensity"]
    vertices = np.frombuffer(data, offset=end, dtype=[("x", "<f8"), ("y", "<f8"), ("z", "<f8"),
                                                      ("c", "u1"), ("i", "<u2")])
    np.testing.assert_array_equal(np.stack([vertices["x"], vertices["y"], vertices["z"]], 1),
                                  sample["xyz"])
    np.testing.assert_array_equal(vertices["c"], sample["Classification"])
    np.testing.assert_array_equal(vertices["i"], sample["Intensity"])
    back = tmp_path / "back.las"
    run("convert", ply, back, "--scale", "0.01")
    np.testing.assert_allclose(records(back)["xyz"], sample["xyz"], atol=1e-6)
    np.testing.assert_array_equal(records(back)["Intensity"], sample["Intensity"])


def test_las_streams_through_pipes_with_nothing_else_on_standard_output(sample, tmp_path):
    out = tmp_path / "piped.las"
    first = subprocess.Popen([QUORVEL, "convert", str(SAMPLE), "-"], stdout=subprocess.PIPE)
    second = subprocess.run([QUORVEL, "select", "-", "--where", "Classification == 2", "-o", "-"],
                            stdin=first.stdout, capture_output=True)
    first.stdout.close()
    assert first.wait() == 0 and second.returncode == 0, second.stderr.decode()
    out.write_bytes(second.stdout)
    size = struct.unpack_from("<I", second.stdout, 96)[0] + 1368 * 34
    assert second.stdout[:4] == b"LASF" and len(second.stdout) == size
    np.testing.assert_array_equal(records(out)["xyz"], sample["xyz"][sample["Classification"] == 2])
    done = run("select", SAMPLE, "--where", "Z > 0", "--count", "-o", "-", code=2)
    assert done.stdout == b"" and "holds the LAS file alone" in done.stderr.decode()


def test_pipeline_stages_assign_with_lists_and_select_by_expression(sample, tmp_path):
    out = tmp_path / "staged.las"
    stages = tmp_path / "stages.json"
    stages.write_text(
        f'["{SAMPLE}", {{"command": "assign", "where": "Classification == 31", '
        f'"set": ["Classification=1", "Intensity=Intensity+1"]}}, '
        f'{{"command": "select", "where": "Classification == 1 || Z > 655"}}, "{out}"]')
    run("pipeline", stages)
    c, z = sample["Classification"], sample["xyz"][:, 2]
    kept = (c == 31) | (z > 655)
    got = records(out)
    np.testing.assert_array_equal(got["xyz"], sample["xyz"][kept])
    np.testing.assert_array_equal(got["Classification"], np.where(c == 31, 1, c)[kept])
    np.testing.assert_array_equal(got["Intensity"],
                                  np.where(c == 31, sample["Intensity"] + 1, sample["Intensity"])[kept])
