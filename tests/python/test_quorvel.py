# SPDX-License-Identifier: BSD-3-Clause
"""Tests of the Python package: clouds from numpy arrays and back, files, the algorithms against
numpy computations of their own, boxes, errors and the GIL."""
import os
import threading
import time

import numpy as np
import pytest

import quorvel

DATA = os.environ.get("QUORVEL_SAMPLE_DATA", os.path.join(os.path.dirname(__file__), "../../data"))


def surface(n=400, seed=1):
    rng = np.random.default_rng(seed)
    xy = rng.uniform(0, 10, (n, 2))
    z = 0.3 * np.sin(xy[:, 0]) + 0.02 * rng.uniform(size=n)
    return np.column_stack([xy + [1000, 2000], z + 50])


# ---- Clouds and files ---------------------------------------------------------------------------


def test_clouds_from_arrays_give_them_back_with_every_element_type():
    xyz = surface(50)
    fields = {f"f_{np.dtype(t).str[1:]}": (np.arange(50) % 100).astype(t)
              for t in (np.uint8, np.int8, np.uint16, np.int16, np.uint32, np.int32,
                        np.uint64, np.int64, np.float32, np.float64)}
    fields["NormalVector"] = np.random.default_rng(2).normal(size=(50, 3))
    fields["f_i8"][3] = -7
    fields["f_u8"][4] = 2**63 + 5
    for fragment_points in (0, 7):
        cloud = quorvel.Cloud(xyz, fragment_points=fragment_points, **fields)
        assert len(cloud) == 50
        assert cloud.fragments == (1 if fragment_points == 0 else 8)
        np.testing.assert_array_equal(cloud.xyz, xyz)
        for name, values in fields.items():
            got = cloud[name]
            assert got.dtype == values.dtype, name
            np.testing.assert_array_equal(got, values, err_msg=name)
        assert cloud.fields["NormalVector"] == "vector"
        assert cloud.fields["Positions"] == "point"
    # Values come back read-only, shared with a one-fragment cloud and kept after it is gone.
    cloud = quorvel.Cloud(xyz, Classification=fields["f_u1"])
    classes = cloud["Classification"]
    with pytest.raises(ValueError, match="read-only"):
        classes[0] = 9
    del cloud
    np.testing.assert_array_equal(classes, fields["f_u1"])
    from_dict = quorvel.Cloud.from_dict({"Positions": xyz, "Classification": fields["f_u1"]})
    np.testing.assert_array_equal(from_dict["Classification"], fields["f_u1"])
    with pytest.raises(quorvel.Error, match="field \"Bad\""):
        quorvel.Cloud(xyz, Bad=np.zeros(49))
    with pytest.raises(KeyError):
        from_dict["Nothing"]


def test_las_and_bundle_files_round_trip(tmp_path):
    xyz = np.round(surface(300), 3)
    classes = (np.arange(300) % 7).astype(np.uint8)
    normals = np.random.default_rng(3).normal(size=(300, 3))
    cloud = quorvel.Cloud(xyz, Classification=classes, NormalVector=normals)
    for name in ("c.las", "c.h5"):
        cloud.write(str(tmp_path / name))
        back = quorvel.read(str(tmp_path / name))
        np.testing.assert_allclose(back.xyz, xyz, atol=5e-4)
        np.testing.assert_array_equal(back["Classification"], classes)
        expected = normals.astype(np.float32) if name.endswith(".las") else normals
        np.testing.assert_array_equal(back["NormalVector"], expected)
    # A real file read in tiles comes back in file order.
    sample = os.path.join(DATA, "sample_c.las")
    whole, tiled = quorvel.read(sample), quorvel.read(sample, fragment_points=3000)
    assert tiled.fragments > 1
    np.testing.assert_array_equal(tiled.xyz, whole.xyz)
    np.testing.assert_array_equal(tiled["Intensity"], whole["Intensity"])
    with pytest.raises(quorvel.Error, match="missing.las"):
        quorvel.read(str(tmp_path / "missing.las"))


# ---- Algorithms against numpy ----------------------------------------------------------------


def planarity_by_numpy(xyz, step):
    """One scale (maxstep 1): neighbours within step sorted by squared distance; the scale
    counts those with squared distance <= step and takes as many beyond the near-duplicates."""
    out = np.zeros(len(xyz))
    for i, p in enumerate(xyz):
        d = xyz - p
        d2 = (d * d).sum(axis=1)
        order = np.argsort(d2[d2 <= step * step], kind="stable")
        near = d[d2 <= step * step][order]
        near2 = d2[d2 <= step * step][order]
        count = int((near2 <= step).sum())
        used = near[near2 >= 1e-4][:count]
        m = used.T @ used / len(used) if len(used) else np.zeros((3, 3))
        lam = np.linalg.eigvalsh(m)
        s = lam.sum()
        out[i] = 2 * (lam[1] - lam[0]) / s if abs(s) >= 1e-6 else 0.0
    return out


def test_laz_files_read_and_write_like_las(tmp_path):
    laz = quorvel.read(os.path.join(DATA, "simple.laz"))
    las = quorvel.read(os.path.join(DATA, "simple.decoded.las"))
    np.testing.assert_array_equal(laz.xyz, las.xyz)
    np.testing.assert_array_equal(laz["Classification"], las["Classification"])
    laz.write(str(tmp_path / "again.laz"))
    again = quorvel.read(str(tmp_path / "again.laz"))
    np.testing.assert_array_equal(again["Intensity"], las["Intensity"])


def test_shape_factors_weights_and_reduction():
    xyz = surface(300)
    cloud = quorvel.Cloud(xyz)
    box = quorvel.ShapeFactorComputationParameterBox(maxstep=1, step=1.2, normalvector=True)
    assert quorvel.shapeFactorComputation(cloud, box) == ""
    np.testing.assert_allclose(cloud["Planarity"], planarity_by_numpy(xyz, 1.2), atol=2e-5)
    normals = cloud["NormalVector"]
    assert (normals[:, 2] >= 0).all()
    np.testing.assert_allclose(np.linalg.norm(normals, axis=1), 1.0, atol=1e-9)

    weights_box = quorvel.PointCloudReductionParameterBox(radius=0.5, neighbours=6)
    quorvel.computePointCloudReductionWeights(cloud, weights_box)
    w = cloud["Weights"]
    # Divided by the median (the element at n / 2 of the sorted weights of the one fragment).
    assert np.sort(w)[len(w) // 2] == pytest.approx(1.0)
    assert len(weights_box.fragmentMedianWeights) == 1

    kept = quorvel.reducedPointCloud(cloud, quorvel.PointCloudSizeReductionParameterBox(
        threshold=1.0, keep_unweighted=False))
    np.testing.assert_array_equal(kept.xyz, xyz[w >= 1.0])
    np.testing.assert_array_equal(kept["Weights"], w[w >= 1.0])


def test_selection_grids_and_tables_match_numpy_masks():
    xyz = surface(200)
    classes = (np.arange(200) % 5).astype(np.uint8)
    cloud = quorvel.Cloud(xyz, fragment_points=64, Classification=classes)
    box = quorvel.SelectionParameterBox(selection="1:2,4")
    mask = (classes == 1) | (classes == 2) | (classes == 4)
    selected = quorvel.computeSelection(cloud, box)
    np.testing.assert_array_equal(selected.xyz, xyz[mask])
    np.testing.assert_array_equal(selected["Classification"], classes[mask])
    box.columns = ["Classification"]
    table = quorvel.array2D(cloud, box)
    np.testing.assert_array_equal(table, np.column_stack([xyz[mask], classes[mask]]))
    assert box.columnNames == ["x", "y", "z", "Classification"]
    by_height = quorvel.computeSelection(cloud, quorvel.SelectionParameterBox(
        fieldname="Positions", selection="50.1:60", inverse=True))
    np.testing.assert_array_equal(by_height.xyz, xyz[~((xyz[:, 2] >= 50.1) & (xyz[:, 2] <= 60))])


def test_expressions_select_and_assign_as_numpy_masks_do():
    xyz = surface(300)
    classes = (np.arange(300) % 7).astype(np.uint8)
    cloud = quorvel.Cloud(xyz, fragment_points=64, Classification=classes)
    mask = np.isin(classes, [1, 5]) & (xyz[:, 2] > 50)
    selected = quorvel.select(cloud, quorvel.SelectionParameterBox(
        where="Classification in [1, 5] && Z > 50"))
    np.testing.assert_array_equal(selected.xyz, xyz[mask])
    box = quorvel.FieldAssignmentParameterBox(
        where="Classification in [1, 5] && Z > 50", set=["Classification=Classification+100"],
        create=["Z2:float64"])
    box.set = box.set + ["Z2 = Z * 2"]
    assert quorvel.assign(cloud, box) == f"assigned 2 fields at {mask.sum()} points"
    np.testing.assert_array_equal(cloud["Classification"], np.where(mask, classes + 100, classes))
    np.testing.assert_array_equal(cloud["Z2"], np.where(mask, xyz[:, 2] * 2, 0))
    with pytest.raises(quorvel.Error, match="does not fit: uint8"):
        quorvel.assign(cloud, quorvel.FieldAssignmentParameterBox(set=["Classification=-1"]))


def test_terrain_and_transfer():
    line = np.column_stack([np.arange(10.0), np.zeros(10), np.zeros(10)])
    classes = np.zeros(10, np.uint8)
    classes[0] = 2
    cloud = quorvel.Cloud(line, Classification=classes)
    box = quorvel.ExtrapolationParameterBox(mode="constant", radius=1.5, maximum_iteration=3)
    assert quorvel.extrapolation(cloud, box) == ""
    np.testing.assert_array_equal(cloud["Classification"], [2, 2, 2, 2, 0, 0, 0, 0, 0, 0])

    target = quorvel.Cloud(line + [0.1, 0, 0], Classification=np.zeros(10, np.uint8))
    quorvel.classificationTransfer(cloud, target, quorvel.ClassificationTransferParameterBox("0.5"))
    np.testing.assert_array_equal(target["Classification"], cloud["Classification"])

    ground = quorvel.Cloud(surface(300), Classification=np.where(np.arange(300) % 4 == 0, 2, 0)
                           .astype(np.uint8))
    regression = quorvel.PlanarRegressionParameterBox(working_range="0", radius=1.5)
    quorvel.planarRegressionOfGrid(ground, regression)
    assert (ground["Classification"] == 2).sum() > 200


def test_relative_height_and_belows_against_a_scan_of_every_square():
    pts = surface(200, seed=5)
    classes = (np.arange(200) % 3).astype(np.uint8)
    cloud = quorvel.Cloud(pts, Classification=classes)
    quorvel.relativeHeightAndBelows(cloud, 1.0)
    near = (np.abs(pts[:, None, 0] - pts[None, :, 0]) <= 1.0) & \
        (np.abs(pts[:, None, 1] - pts[None, :, 1]) <= 1.0)
    lowest = np.where(near, pts[None, :, 2], np.inf).min(axis=1)
    np.testing.assert_allclose(cloud["RelativeHeight"], (pts[:, 2] - lowest).astype(np.float32),
                               atol=1e-4)
    below = (near & (pts[None, :, 2] < pts[:, None, 2])).sum(axis=1)
    np.testing.assert_array_equal(cloud["RelativeBelows"], (255 * below // near.sum(axis=1)))
    with pytest.raises(quorvel.Error, match="Classification"):
        quorvel.relativeHeightAndBelows(quorvel.Cloud(pts), 1.0, classes="1")


def test_the_earlier_transfer_and_dates():
    line = np.column_stack([np.arange(10.0), np.zeros(10), np.zeros(10)])
    source = quorvel.Cloud(line, Classification=(np.arange(10) % 3).astype(np.uint8))
    target = quorvel.Cloud(line + [0.2, 0, 0], Classification=np.zeros(10, np.uint8))
    quorvel.classificationTransferOLD(source, target, quorvel.ClassificationTransferParameterBox("0.5"))
    np.testing.assert_array_equal(target["Classification"], source["Classification"])
    date = quorvel.Chronometry("strip_210617_134502.las")
    assert (date.year, date.month, date.day, date.hour, date.minute) == (2021, 6, 17, 13, 45)
    assert date.yyyymmdd("-") == "2021-06-17" and date.ddmmyyyy(".") == "17.06.2021"
    assert date.gps_week == quorvel.compute_gps_week(17, 6, 2021)
    assert ":" not in quorvel.current_date_and_time(" ")


def test_band_rules_are_strict_and_skip_planeless_cells():
    # Ground test alone: ground 10, band 0.5 to 2, strictly inside.
    planeless = (0, 0, 1e7)
    assert quorvel.mapClassification(0.5, 2, planeless, (0, 0, 10.5), 0, 0, 10, 5, 1) == 1
    assert quorvel.mapClassification(0.5, 2, planeless, (0, 0, 11), 0, 0, 10, 5, 1) == 5
    # Plane test alone: distance 1 from z = 10, within the block's ground.
    assert quorvel.mapClassification(0.5, 2, (0, 0, 10), (0, 0, 11), 10, 10, 0, 6, 1) == 6
    assert quorvel.mapClassificationStep(0.5, 2, (0, 0, 12), 10, 9, 1) == 1
    assert quorvel.mapClassificationStep(0.5, 2, (0, 0, 11.9), 10, 9, 1) == 9


def test_rasters_prepared_and_mapped_against_numpy():
    rng = np.random.default_rng(6)
    rows, columns = 12, 10
    height = (100 + 0.2 * np.arange(columns)[None, :] - 0.1 * np.arange(rows)[:, None]
              + rng.uniform(0, 0.05, (rows, columns))).astype(np.float32)
    types = np.zeros((rows, columns), np.uint8)
    types[3, 4] = 1
    types[::4, ::3] = 4
    raster = quorvel.raster(height, types, origin=(500.0, 800.0, 0.0), cell_size=2.0,
                            fragment_cells=5)
    box = quorvel.MapRasterOnPointCloudParameterBox(height=True)
    assert quorvel.takeRasterLayout(raster, box)
    assert box.cellsize == [2.0, 2.0, 0.0] and box.rastersize == [5, 5, 1]
    assert quorvel.prepareRaster(raster, box)
    # The box of the real cells' centres (12 rows: up to 800 + 11 * 2), whatever the fragments.
    assert box.raster_bbox == ([500.0, 800.0, 0.0], [518.0, 822.0, 0.0])
    highest = quorvel.cells(raster, "MaxGround")[:rows, :columns]
    ground = types != 1
    for j in range(rows):
        for i in range(columns):
            # The 3 x 3 block inside the cell's fragment of 5 x 5 cells.
            fj, fi = j // 5 * 5, i // 5 * 5
            block = (slice(max(j - 1, fj), min(j + 2, fj + 5)), slice(max(i - 1, fi), min(i + 2, fi + 5)))
            if ground[j, i]:
                assert highest[j, i] == height[block][ground[block]].max()
            else:
                assert np.isnan(highest[j, i])
    # One cell per pixel: the last fragments hold only the pixels left.
    assert quorvel.cells(raster, "CellType").shape == (rows, columns)

    # Heights of points above the plane of the cell under them.
    xy = np.column_stack([rng.uniform(500, 517, 200), rng.uniform(800, 821, 200)])
    z = 100 + 0.1 * (xy[:, 0] - 500) + rng.uniform(0, 5, 200)
    cloud = quorvel.Cloud(np.column_stack([xy, z]), Classification=np.ones(200, np.uint8))
    assert quorvel.mapData(cloud, raster, box)
    planes = quorvel.cells(raster, "PlanarRegression")
    i = np.floor((xy[:, 0] + 1 - 500) / 2).astype(int)
    j = np.floor((xy[:, 1] + 1 - 800) / 2).astype(int)
    a, b, c = planes[j, i, 0], planes[j, i, 1], planes[j, i, 2]
    expected = np.where(c < 1e7, (z - (a * xy[:, 0] + b * xy[:, 1] + c)) / np.sqrt(a * a + b * b + 1),
                        -1000.0)
    np.testing.assert_allclose(cloud["CanopyHeight"], expected.astype(np.float32), rtol=1e-6)

    # The raster's heights carried onto its own cells from the points, nearest within 1.5.
    quorvel.mapSourceToTarget(cloud, "Classification", raster, "Near", 1.5)
    near = quorvel.cells(raster, "Near")[:rows, :columns]
    assert np.nanmax(near) == 1.0 and np.isnan(near).any()
    with pytest.raises(quorvel.Error, match="No source field: Nothing"):
        quorvel.mapSourceToTarget(cloud, "Nothing", raster, "Near", 1.5)


def test_ground_rasters_and_geotiffs(tmp_path):
    rng = np.random.default_rng(8)
    xy = rng.uniform(0, 20, (2000, 2)) + [300, 600]
    z = 0.2 * xy[:, 0] + rng.uniform(0, 0.3, 2000)
    cls = np.where(np.arange(2000) % 2 == 0, 2, 5).astype(np.uint8)
    cloud = quorvel.Cloud(np.column_stack([xy, z + np.where(cls == 5, 3.0, 0.0)]), Classification=cls)
    dtm = quorvel.groundRaster(cloud, 2.0)
    height = quorvel.cells(dtm, "Height")
    i = np.floor(xy[:, 0] / 2).astype(int) - 150
    j = np.floor(xy[:, 1] / 2).astype(int) - 300
    lowest = np.full(height.shape, np.inf, np.float32)
    np.minimum.at(lowest, (j[cls == 2], i[cls == 2]), z[cls == 2].astype(np.float32))
    # The points' 10 x 10 cells and one column and row past them, which bound the last points.
    assert height.shape == (11, 11)
    np.testing.assert_array_equal(height[:10, :10], lowest[:10, :10])
    dtm.write(str(tmp_path / "dtm.tif"))
    back = quorvel.read(str(tmp_path / "dtm.tif"))
    np.testing.assert_array_equal(quorvel.cells(back, "Height")[:10, :10], lowest[:10, :10])
    with pytest.raises(quorvel.Error, match="no point of the classes"):
        quorvel.groundRaster(cloud, 2.0, classes="9")


def test_kernels_and_parsers_against_numpy():
    pts = surface(30)
    ok, (a, b, c) = quorvel.planarRegression(pts)
    coefficients = np.linalg.lstsq(np.column_stack([pts[:, :2], np.ones(30)]), pts[:, 2], rcond=None)[0]
    assert ok
    np.testing.assert_allclose([a, b, c], coefficients, rtol=1e-6)
    r = quorvel.MultiRange("2:5,9")
    assert r.contains(5 + 1e-9) and not r.contains(6)
    assert r.intervals == [(2.0, 5.0), (9.0, 9.0)]
    ok, table = quorvel.assignClassesToClasses("2>6;3:5>7")
    assert ok and table[2] == 6 and table[4] == 7 and table[1] == 1
    assert quorvel.assignRangesToClasses("0:1.5=2") == (True, [((0.0, 1.5), 2)])
    assert quorvel.sphCubic(0.0) == 1.0 and quorvel.sphCubic(3.0) == 0.0
    assert quorvel.compute_gps_week(1, 1, 2000) == 1042
    ok, (x, y, z) = quorvel.weightedMean(pts, [1.0] * 30)
    np.testing.assert_allclose([x, y, z], pts.mean(axis=0))


# ---- Boxes, errors, threads --------------------------------------------------------------------


def test_boxes_print_their_defaults_and_take_keywords(capfd):
    for name in ("ShapeFactorComputationParameterBox", "PointCloudReductionParameterBox",
                 "SelectionParameterBox", "ExtrapolationParameterBox",
                 "MapRasterOnPointCloudParameterBox"):
        box = getattr(quorvel, name)()
        box.print()
        printed = capfd.readouterr().out
        for field in ("maxstep", "step", "radius", "neighbours", "fieldname", "inverse",
                      "mode", "quantile", "height", "heightfieldname", "unclassify"):
            if field in box._fields:
                value = getattr(box, field)
                text = (str(int(value)) if isinstance(value, bool)
                        else f"{value:g}" if isinstance(value, float) else str(value))
                assert f"{field}: {text}" in printed, (name, field, printed)
    box = quorvel.ShapeFactorComputationParameterBox(step=0.5, linearity=True)
    assert box.step == 0.5 and box.linearity and box.maxstep == 4
    assert repr(box).startswith("ShapeFactorComputationParameterBox(maxstep=4, step=0.5,")
    with pytest.raises(TypeError, match="no field 'stepp'"):
        quorvel.ShapeFactorComputationParameterBox(stepp=1)


def test_errors_raise_with_their_texts():
    cloud = quorvel.Cloud(surface(20))
    with pytest.raises(quorvel.Error, match="ERROR: no chart Elsewhere found"):
        quorvel.shapeFactorComputation(cloud, quorvel.ShapeFactorComputationParameterBox(
            chartname="Elsewhere"))
    with pytest.raises(quorvel.Error, match="ERROR: no f_normalvector"):
        quorvel.computePointCloudReductionWeights(cloud, quorvel.PointCloudReductionParameterBox())
    with pytest.raises(quorvel.Error, match="ERROR: no f_classification"):
        quorvel.extrapolation(cloud, quorvel.ExtrapolationParameterBox())


def test_runs_release_the_gil():
    rng = np.random.default_rng(4)
    cloud = quorvel.Cloud(np.column_stack([rng.uniform(0, 300, (300_000, 2)), rng.normal(size=300_000)]))
    ticks = []
    stop = threading.Event()

    def count():
        while not stop.is_set():
            ticks.append(time.perf_counter())
            time.sleep(0.001)

    worker = threading.Thread(target=count)
    worker.start()
    start = time.perf_counter()
    quorvel.shapeFactorComputation(cloud, quorvel.ShapeFactorComputationParameterBox())
    end = time.perf_counter()
    stop.set()
    worker.join()
    during = [t for t in ticks if start < t < end]
    assert end - start > 0.05
    assert len(during) >= 5
