# SPDX-License-Identifier: BSD-3-Clause
"""Tests of the package's own layer: field keywords and their types, the checks every run makes,
boxes against the library's C++ headers and print() lines, names, the stub and the verbose
switch."""
import ast
import math
import os
import re
import struct

import numpy as np
import pytest

import quorvel

DATA = os.environ.get("QUORVEL_SAMPLE_DATA", os.path.join(os.path.dirname(__file__), "../../data"))
ROOT = os.path.dirname(os.path.abspath(DATA))
STUB = os.path.join(os.path.dirname(quorvel.__file__), "__init__.pyi")


def las_records(path):
    """(point format, [record bytes]) of a LAS file, read by struct from the header fields."""
    with open(path, "rb") as f:
        data = f.read()
    assert data[:4] == b"LASF"
    offset, = struct.unpack_from("<I", data, 96)
    point_format = data[104] & 0x3F
    length, legacy_count = struct.unpack_from("<HI", data, 105)
    count = legacy_count or struct.unpack_from("<Q", data, 247)[0]
    return point_format, [data[offset + k * length:offset + (k + 1) * length] for k in range(count)]


def las_classes(path):
    point_format, records = las_records(path)
    if point_format >= 6:
        return np.array([r[16] for r in records])
    return np.array([r[15] & 0x1F for r in records])


def line(n=20):
    return np.column_stack([np.arange(n, dtype=float), np.zeros(n), np.zeros(n)]) + [1000, 2000, 50]


# ---- Field keywords and types ------------------------------------------------------------------


def test_field_keywords_in_either_spelling_make_the_las_fields(tmp_path):
    xyz = line()
    classes = (np.arange(20) % 7).astype(np.uint8)
    for key in ("classification", "Classification"):
        path = str(tmp_path / f"{key}.las")
        quorvel.Cloud(xyz, **{key: classes}).write(path)
        np.testing.assert_array_equal(las_classes(path), classes)
    # laspy's names land on the framework's fields with the LAS types, whatever type was given.
    cloud = quorvel.Cloud(xyz, intensity=np.arange(20) * 1000, return_number=np.ones(20),
                          number_of_returns=np.full(20, 2), gps_time=np.arange(20),
                          point_source_id=np.full(20, 7, np.int64), user_data=np.arange(20),
                          red=np.arange(20), green=np.arange(20) * 2, blue=np.arange(20) * 3,
                          my_value=np.arange(20, dtype=np.int16))
    assert cloud.fields == {"Positions": "point", "Intensity": "uint16", "ReturnNumber": "uint8",
                            "NumberOfReturns": "uint8", "GpsTime": "float64",
                            "PointSourceId": "uint16", "UserData": "uint8", "RGB": "rgb16",
                            "my_value": "int16"}
    path = str(tmp_path / "fields.las")
    cloud.write(path)
    back = quorvel.read(path)
    np.testing.assert_array_equal(back["Intensity"], np.arange(20) * 1000)
    np.testing.assert_array_equal(back["GpsTime"], np.arange(20.0))
    np.testing.assert_array_equal(back["RGB"], np.arange(20)[:, None] * [1, 2, 3])
    np.testing.assert_array_equal(back["my_value"], np.arange(20))
    # The record's own bytes: intensity at 12, point source id at 18 (formats 0 to 5) or 20.
    point_format, records = las_records(path)
    source_id_at = 18 if point_format < 6 else 20
    assert [struct.unpack_from("<H", r, 12)[0] for r in records] == list(range(0, 20000, 1000))
    assert {struct.unpack_from("<H", r, source_id_at)[0] for r in records} == {7}
    with pytest.raises(TypeError, match='field "Classification" given twice'):
        quorvel.Cloud(xyz, classification=classes, Classification=classes)
    with pytest.raises(TypeError, match="red, green and blue make \"RGB\" together"):
        quorvel.Cloud(xyz, red=np.arange(20))


def test_positions_and_fields_of_any_numeric_type_are_converted_once():
    xyz = line()
    expected = quorvel.Cloud(xyz).xyz
    wide = np.zeros((20, 6))
    wide[:, ::2] = xyz
    for given in (xyz.astype(np.float32), xyz.astype(np.int64), xyz.astype(">f8"),
                  np.asfortranarray(xyz), wide[:, ::2], xyz.tolist()):
        np.testing.assert_array_equal(quorvel.Cloud(given).xyz, expected)
    intensity = (np.arange(20) * 300).astype(">u2")
    values = np.linspace(-1, 1, 20).astype(">f8")
    cloud = quorvel.Cloud(xyz.astype(">f4"), Intensity=intensity, value=values,
                          flag=np.arange(20) % 2 == 0)
    np.testing.assert_array_equal(cloud["Intensity"], np.arange(20) * 300)
    np.testing.assert_array_equal(cloud["value"], np.linspace(-1, 1, 20))
    assert cloud.fields["value"] == "float64" and cloud.fields["flag"] == "uint8"
    # The extension itself never reads bytes of another order as native ones.
    with pytest.raises(quorvel.Error, match='field "Positions": an array in the machine'):
        quorvel._plain_from_dict({"Positions": xyz.astype(">f8")})


@pytest.mark.parametrize("fields, error, message", [
    ({"Classification": np.array(["2"] * 20)}, TypeError,
     'field "Classification": an array of numbers is needed, not <U1'),
    ({"classification": np.full(20, 300)}, ValueError,
     'field "Classification": 300 does not fit uint8 (0 to 255)'),
    ({"intensity": np.full(20, -1)}, ValueError,
     'field "Intensity": -1 does not fit uint16 (0 to 65535)'),
    ({"classification": np.full(20, 2.5)}, ValueError,
     'field "Classification": 2.5 is not a whole number'),
    ({"gps_time": np.array([object()] * 20)}, TypeError,
     'field "GpsTime": an array of numbers is needed, not object'),
])
def test_fields_of_wrong_types_are_refused_by_name(fields, error, message):
    with pytest.raises(error) as raised:
        quorvel.Cloud(line(), **fields)
    assert str(raised.value) == message
    with pytest.raises(TypeError, match='field "xyz": an array of numbers is needed'):
        quorvel.Cloud(np.array([["a", "b", "c"]]))


def test_write_refuses_names_of_no_known_file_type(tmp_path):
    cloud = quorvel.Cloud(line())
    for name in ("x.txt", "x", "x.LAS.bak"):
        path = str(tmp_path / name)
        with pytest.raises(ValueError) as raised:
            cloud.write(path)
        assert str(raised.value) == (
            f'"{path}" names no file type quorvel writes (.las for LAS, .laz for LAZ, .h5 or '
            ".hdf5 for a bundle, .tif or .tiff for a raster's GeoTIFF)")
    assert os.listdir(tmp_path) == []


# ---- Checks before every run -------------------------------------------------------------------


def refused(run):
    with pytest.raises(ValueError) as raised:
        run()
    return str(raised.value)


def test_runs_refuse_what_the_command_refuses_with_its_words():
    cloud = quorvel.Cloud(line(), Classification=np.zeros(20, np.uint8))
    Shape = quorvel.ShapeFactorComputationParameterBox
    cases = [
        (lambda: quorvel.shape_factors(cloud, Shape(step=-1)),
         '"step": "-1" is not a positive finite number'),
        (lambda: quorvel.shape_factors(cloud, Shape(maxstep=1001)),
         '"maxstep": "1001" is not a whole number from 0 to 1000'),
        (lambda: quorvel.shape_factors(cloud, Shape(dimension=4)),
         '"dimension": "4" is not one of 2, 3'),
        (lambda: quorvel.shape_factors(cloud, Shape(intensity_threshold=70000)),
         '"intensity_threshold": "70000" is not a number from 0 to 65535'),
        (lambda: quorvel.reduction_weights(cloud, quorvel.PointCloudReductionParameterBox(
            radius=math.nan)), '"radius": "nan" is not a positive finite number'),
        (lambda: quorvel.reduced_cloud(cloud, quorvel.PointCloudSizeReductionParameterBox(
            keep=2)), '"keep": "2" is not a number from 0 to 1'),
        (lambda: quorvel.relative_height_and_belows(cloud, -1.0),
         '"squareHalfWidth": "-1" is not a positive finite number'),
        (lambda: quorvel.relative_height_and_belows(cloud, 1.0, classes="two"),
         '"classes": "two" is not a value or low:high of finite numbers'),
        (lambda: quorvel.planar_regression(cloud, quorvel.PlanarRegressionParameterBox(
            source="2,x:3")), '"source": "x:3" in "2,x:3" is not a value or low:high of finite '
         'numbers'),
        (lambda: quorvel.planar_regression(cloud, quorvel.PlanarRegressionParameterBox(
            quantile=101)), '"quantile": "101" is not a number from 0 to 100'),
        (lambda: quorvel.extrapolate(cloud, quorvel.ExtrapolationParameterBox(mode="grow")),
         '"mode": "grow" is not one of planarregression, threshold, classification, constant'),
        (lambda: quorvel.select(cloud, quorvel.SelectionParameterBox(coordinate=3)),
         '"coordinate": "3" is not one of 0, 1, 2'),
        (lambda: quorvel.ClassificationTransferParameterBox("0.5=two"),
         '"text": "0.5=two" is not a distance or distance=class'),
        (lambda: quorvel.classification_transfer(cloud, cloud,
                                                 quorvel.ClassificationTransferParameterBox(
                                                     "1", maxradius=0)),
         '"maxradius": "0" is not a positive finite number'),
        (lambda: quorvel.map_field(cloud, "Classification", cloud, "Near", math.inf),
         '"radius": "inf" is not a positive finite number'),
        (lambda: quorvel.ground_raster(cloud, 1.0, fill_rings=1001),
         '"fill_rings": "1001" is not a whole number from 0 to 1000'),
    ]
    for k, (run, message) in enumerate(cases):
        assert refused(run) == message, k
    # Nothing ran: the cloud has none of the results.
    assert set(cloud.fields) == {"Positions", "Classification"}


def test_classes_beyond_a_byte_and_reversed_ranges_are_refused_by_the_same_table():
    # Class 999 became 231; a reversed range selected nothing.
    cases = [
        (lambda: quorvel.ClassificationTransferParameterBox("0.5=2;1=999"),
         '"text": "1=999" in "0.5=2;1=999" gives a class outside 0 to 255'),
        (lambda: quorvel.ExtrapolationParameterBox(source="5:1"),
         '"source": "5:1" is reversed: its low end is above its high end'),
    ]
    for k, (run, message) in enumerate(cases):
        assert refused(run) == message, k


def test_non_finite_positions_and_heights_are_refused_with_their_place():
    xyz = line()
    xyz[7, 1] = math.nan
    assert refused(lambda: quorvel.Cloud(xyz)) == "xyz: row 7 holds nan; positions must be finite"
    xyz[7, 1], xyz[3, 2] = 0, -math.inf
    assert refused(lambda: quorvel.Cloud(xyz)) == "xyz: row 3 holds -inf; positions must be finite"
    # NaN heights are cells without data; an infinite one is refused by its row and column.
    height = np.ones((3, 4), np.float32)
    height[2, 1] = math.inf
    assert refused(lambda: quorvel.raster(height)) == "height: the cell at row 2, column 1 is inf"
    with pytest.raises(quorvel.Error, match="positive finite cell size"):
        quorvel.raster(np.ones((2, 2), np.float32), cell_size=math.inf)


def test_a_bundle_of_several_grids_is_read_by_name_only(tmp_path):
    path = str(tmp_path / "two.h5")
    quorvel.Cloud(line()).write(path)
    assert len(quorvel.read(path, grid="PointCloud")) == 20
    with pytest.raises(quorvel.Error, match='holds 1 grid .*, none named "trees"'):
        quorvel.read(path, grid="trees")
    with pytest.raises(ValueError, match="grid names a grid of a bundle"):
        quorvel.read(os.path.join(DATA, "sample_c.las"), grid="PointCloud")


def test_the_command_line_host_words_refusals_the_same(tmp_path):
    host = os.path.join(os.path.dirname(os.path.dirname(quorvel.__file__)), "..", "cli", "quorvel")
    if not os.path.exists(host):
        pytest.skip("the quorvel host is not built")
    import subprocess
    sample = os.path.join(DATA, "sample_c_thin.las")
    for args, python in [
        (["shapefactors", "--step", "-1"], lambda c: quorvel.shape_factors(
            c, quorvel.ShapeFactorComputationParameterBox(step=-1))),
        (["regress", "--source", "two"], lambda c: quorvel.planar_regression(
            c, quorvel.PlanarRegressionParameterBox(source="two"))),
        (["extrapolate", "--quantile", "101"], lambda c: quorvel.extrapolate(
            c, quorvel.ExtrapolationParameterBox(quantile=101))),
    ]:
        run = subprocess.run([host, args[0], sample, "-o", str(tmp_path / "o.las"), *args[1:]],
                             capture_output=True, text=True)
        assert run.returncode == 2
        words = refused(lambda: python(quorvel.Cloud(line()))).split(": ", 1)[1]
        assert words in run.stderr, (words, run.stderr)


# ---- Boxes against the C++ headers and their print() lines -------------------------------------

# Members that are a run's working state, not settings: not bound.
WORKING_STATE = {"reference", "treeReference", "classReference", "oneQuadTree", "oneOcTree",
                 "sourceClasses", "sourceHeights"}


def header_boxes():
    """{box: [field]} of every *ParameterBox struct in the library's headers, read from the
    declarations (functions and working state left out)."""
    boxes = {}
    for directory, _, files in os.walk(os.path.join(ROOT, "quorvel")):
        for name in files:
            if not name.endswith(".hpp"):
                continue
            with open(os.path.join(directory, name)) as f:
                text = f.read()
            for box, body in re.findall(r"struct (\w+ParameterBox) \{\n(.*?)\n\};", text, re.S):
                fields = []
                for statement in re.sub(r"//[^\n]*", "", body).split(";"):
                    statement = re.sub(r"\{[^}]*\}|=.*", "", " ".join(statement.split()))
                    if not statement or "(" in statement or statement.startswith("using"):
                        continue
                    while "<" in statement:
                        statement = re.sub(r"<[^<>]*>", "", statement)
                    fields += [part.split()[-1] for part in statement.split(",")]
                boxes[box] = [f for f in fields if f not in WORKING_STATE]
    return boxes


# print() labels that are not the field's name.
LABELS = {"use first returns": "use_only_firstreturns",
          "use single returns": "use_only_singlereturns",
          "use last returns": "use_only_lastreturns", "has assignment": "hasAssignment",
          "raster bbox": "raster_bbox"}


def printed_values(box):
    """{field: printed text} of the box's print() lines, read as they are written."""
    out = {}
    for text in str(box).splitlines():
        label, sep, value = text.partition(": ")
        label = label.removeprefix("ParameterBox.").rstrip(":")
        if sep or text.endswith(":"):
            out[LABELS.get(label, label.replace(" ", "_"))] = value
    return out


def same_value(value, text):
    if isinstance(value, bool):
        return text == str(int(value))
    if isinstance(value, (int, float)):
        return (math.isnan(value) and text == "nan") or float(text) == pytest.approx(value, 1e-6)
    if isinstance(value, list) and not value:  # items printed one after another: none
        return text == ""
    if isinstance(value, list) and text.startswith("("):  # cellsize "(1 ,1 ,0)"
        return [float(v) for v in text.strip("()").split(",")] == value
    if isinstance(value, list) and "x" in text:  # rastersize "256x256x1"
        return [int(v) for v in text.split("x")] == value
    if isinstance(value, str) and re.fullmatch(r"[-\d.:,;]+", text or "-"):
        return quorvel.MultiRange(value).intervals == quorvel.MultiRange(text).intervals
    return str(value if value is not None else "") == text


def test_every_box_binds_every_field_of_its_struct_with_the_printed_defaults():
    boxes = header_boxes()
    bound = {name for name in dir(quorvel) if name.endswith("ParameterBox")}
    assert bound == set(boxes) and len(boxes) == 18
    for name, fields in boxes.items():
        cls = getattr(quorvel, name)
        assert list(cls._fields) == fields, name
        box = cls()
        printed = printed_values(box)
        assert printed, name
        for field, text in printed.items():
            if field == "assignment":  # bands, printed on lines of their own
                continue
            assert field in fields, (name, field)
            assert same_value(getattr(box, field), text), (name, field, text)
        assert cls.__doc__.count("\n    ") >= len(fields), name


def test_a_transfer_box_reads_its_bands():
    box = quorvel.ClassificationTransferParameterBox("0.5=2;1=3", onetree=True, expand=True,
                                                     maxradius=20, offset=(1, 2, 3))
    assert box.assignment == {0.25: 2, 1.0: 3} and box.hasAssignment and box.radius == 1.0
    text = str(box)
    assert "\t0.5 --> 2\n\t1 --> 3\n" in text
    assert "onetree: 1\n" in text and "expand: 1\n" in text and "maxradius: 20\n" in text
    assert box.offset == [1.0, 2.0, 3.0]
    a, b = quorvel.ComputeNeighboursParameterBox(), quorvel.ComputeNeighboursParameterBox()
    b.radius = a.radius + 0.01
    assert b.different(a) and not a.different(quorvel.ComputeNeighboursParameterBox())


# ---- Names, docstrings, the stub ---------------------------------------------------------------


def public_names():
    return {name for name in dir(quorvel) if not name.startswith("_")}


def test_snake_case_names_are_the_library_functions_and_documented():
    assert len(quorvel.ALIASES) >= 20
    for snake, camel in quorvel.ALIASES.items():
        assert getattr(quorvel, snake) is getattr(quorvel, camel)
        assert re.search(rf"^{snake} +{camel}$", quorvel.__doc__, re.M), snake


def test_every_function_and_box_documents_its_parameters():
    for name in public_names():
        value = getattr(quorvel, name)
        if isinstance(value, type) and name.endswith("ParameterBox"):
            for field in value._fields:
                assert f"    {field}: " in value.__doc__, (name, field)
        elif callable(value) and not isinstance(value, type) and name != "is_verbose":
            assert "Parameters:\n" in (value.__doc__ or ""), name


def stub_names():
    """{top-level name: {class member}} of the stub, read with ast."""
    tree = ast.parse(open(STUB).read())
    names = {}
    for node in tree.body:
        if isinstance(node, (ast.FunctionDef, ast.ClassDef)):
            names[node.name] = {
                getattr(m, "name", None) or getattr(getattr(m, "target", None), "id", None)
                for m in getattr(node, "body", [])} - {None}
        elif isinstance(node, ast.Assign):
            names.update({t.id: set() for t in node.targets})
        elif isinstance(node, ast.AnnAssign):
            names[node.target.id] = set()
    return names


def test_the_stub_lists_every_public_name_and_every_box_field():
    stub = stub_names()
    assert public_names() == set(stub)
    for name in public_names():
        value = getattr(quorvel, name)
        if isinstance(value, type) and hasattr(value, "_fields"):
            assert set(value._fields) | {"__init__", "print", "__str__"} <= stub[name], name


def stub_box_fields():
    """{box: [(field, annotation node)]} of the stub's box classes, in their order."""
    tree = ast.parse(open(STUB).read())
    return {node.name: [(m.target.id, m.annotation) for m in node.body
                        if isinstance(m, ast.AnnAssign)]
            for node in tree.body
            if isinstance(node, ast.ClassDef) and node.name.endswith("ParameterBox")}


def fits(annotation, value):
    """Whether a default value is of the stub's annotation (pybind11 gives lists for arrays,
    which the setters take as tuples too)."""
    if isinstance(annotation, ast.Name):
        kind = {"int": int, "float": float, "bool": bool, "str": str}.get(annotation.id)
        if annotation.id == "Any":
            return True
        return kind is not None and type(value) is kind
    outer = annotation.value.id
    inner = annotation.slice.elts if isinstance(annotation.slice, ast.Tuple) else [annotation.slice]
    if outer == "Optional":
        return value is None or fits(inner[0], value)
    if outer == "List":
        return isinstance(value, list) and all(fits(inner[0], v) for v in value)
    if outer == "Tuple":
        return (isinstance(value, (list, tuple)) and len(value) == len(inner) and
                all(fits(a, v) for a, v in zip(inner, value)))
    if outer == "Dict":
        return isinstance(value, dict) and all(
            fits(inner[0], k) and fits(inner[1], v) for k, v in value.items())
    return False


def test_the_stub_lists_each_box_s_described_fields_with_the_types_of_their_defaults():
    stub = stub_box_fields()
    assert set(stub) == {name for name in dir(quorvel) if name.endswith("ParameterBox")}
    for name, fields in stub.items():
        cls = getattr(quorvel, name)
        assert [field for field, _ in fields] == list(cls._fields), name
        assert set(cls._units) == set(cls._fields), name
        box = cls()
        for field, annotation in fields:
            assert fits(annotation, getattr(box, field)), (name, field, ast.unparse(annotation))


def test_the_stub_type_check_refuses_what_it_must():
    parse = lambda text: ast.parse(text, mode="eval").body
    assert not fits(parse("int"), True) and not fits(parse("float"), 1)
    assert not fits(parse("List[str]"), ["a", 1]) and fits(parse("List[str]"), [])
    assert not fits(parse("Tuple[float, float, float]"), [1.0, 2.0])
    assert fits(parse("Optional[Tuple[float, float]]"), None)
    assert not fits(parse("Dict[float, int]"), {1.0: 2.5})


# ---- The library's own lines --------------------------------------------------------------------


def test_the_library_lines_show_only_when_verbose(capfd):
    cloud = quorvel.Cloud(line())
    box = quorvel.ShapeFactorComputationParameterBox(verbose=True)
    assert not quorvel.is_verbose()
    quorvel.shape_factors(cloud, box)
    assert capfd.readouterr() == ("", "")
    with quorvel.verbose():
        assert quorvel.is_verbose()
        quorvel.shape_factors(cloud, box)
    out, err = capfd.readouterr()
    assert out == "" and "shapeFactorComputation: compute 1 / 1" in err
    assert quorvel.set_verbose(False) is False
    # A box's print() is asked for: it shows whatever the setting.
    box.print()
    assert capfd.readouterr().out == str(box) and "step: 0.25\n" in str(box)


def test_ground_filter_finds_the_ground_under_a_roof_and_refuses_bad_boxes():
    """A 60 x 60 m plane at 2 points per square metre with a 12 m roof 5 m high on it: the plane
    is ground, the roof is not; noise (7) keeps its class; a refused value raises ValueError."""
    rng = np.random.default_rng(4)
    xy = rng.uniform(0, 60, (7200, 2))
    roof = (abs(xy[:, 0] - 30) < 6) & (abs(xy[:, 1] - 30) < 6)
    z = 50 + 0.05 * xy[:, 0] + np.where(roof, 5.0, 0.0)
    classes = np.where(np.arange(7200) % 100 == 0, 7, 0).astype(np.uint8)
    cloud = quorvel.Cloud(np.column_stack([xy, z]), classification=classes)
    found = quorvel.ground_filter(cloud, quorvel.GroundFilterParameterBox())
    out = cloud["Classification"]
    assert np.array_equal(out[classes == 7], classes[classes == 7])
    assert np.all(out[(classes != 7) & roof] == 1) and np.all(out[(classes != 7) & ~roof] == 2)
    assert found == np.count_nonzero((classes != 7) & ~roof)
    with pytest.raises(ValueError, match="window"):
        quorvel.groundFilter(cloud, quorvel.GroundFilterParameterBox(window=-1))
