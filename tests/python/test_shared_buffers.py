# SPDX-License-Identifier: BSD-3-Clause
"""Clouds over the numpy arrays they are built from: shared where the layout is the field's,
copied where it is not, never changed by an algorithm, kept alive by the cloud."""
import gc
import weakref

import numpy as np
import pytest

import quorvel


def lattice(n=400):
    """n points on a 0.5 m lattice at georeferenced coordinates, heights rising with x."""
    i = np.arange(n)
    return np.column_stack([5e5 + (i % 20) * 0.5, 5.4e6 + (i // 20) * 0.5, (i % 20) * 0.25])


def arrays(n=400):
    rng = np.random.default_rng(5)
    return {
        "Classification": (np.arange(n) % 3).astype(np.uint8),
        "Intensity": rng.integers(0, 60000, n).astype(np.uint16),
        "GpsTime": rng.uniform(0, 1e6, n),
        "NormalVector": rng.normal(size=(n, 3)),
        "Amplitude": rng.uniform(0, 1, n).astype(np.float32),
    }


def test_a_cloud_shares_the_arrays_it_is_built_from_and_reads_back_views():
    xyz, fields = lattice(), arrays()
    cloud = quorvel.Cloud(xyz, **fields)
    assert np.shares_memory(cloud.xyz, xyz)
    for name, values in fields.items():
        assert np.shares_memory(cloud[name], values), name
        assert not cloud[name].flags.writeable, name
    via_dict = quorvel.Cloud.from_dict({"xyz": xyz, **fields})
    assert np.shares_memory(via_dict["GpsTime"], fields["GpsTime"])
    # In fragments the cloud still reads the arrays; a field read back is then one copy in
    # input order.
    parts = quorvel.Cloud(xyz, fragment_points=64, **fields)
    assert parts.fragments == 7
    np.testing.assert_array_equal(parts.xyz, xyz)
    for name, values in fields.items():
        np.testing.assert_array_equal(parts[name], values)


def test_runs_that_only_read_a_field_leave_it_shared(tmp_path):
    xyz, fields = lattice(), arrays()
    cloud = quorvel.Cloud(xyz, **fields)
    quorvel.shapeFactorComputation(cloud, quorvel.ShapeFactorComputationParameterBox())
    quorvel.select(cloud, quorvel.SelectionParameterBox(where="Classification == 1 && Z > 1"))
    quorvel.classificationTransfer(cloud, quorvel.Cloud(xyz + [0.1, 0, 0]),
                                   quorvel.ClassificationTransferParameterBox("0.5"))
    cloud.write(str(tmp_path / "cloud.las"))
    assert np.shares_memory(cloud.xyz, xyz)
    for name, values in fields.items():
        assert np.shares_memory(cloud[name], values), name


def test_arrays_of_another_layout_or_type_are_copied_and_read_right():
    xyz, fields = lattice(), arrays()
    wide = np.zeros((len(xyz), 6))
    wide[:, ::2] = xyz
    for given in (xyz.astype(">f8"), np.asfortranarray(xyz), wide[:, ::2], xyz.astype(np.float32)):
        cloud = quorvel.Cloud(given, Intensity=fields["Intensity"].astype(">u2"),
                              Classification=fields["Classification"].astype(np.int64),
                              GpsTime=np.repeat(fields["GpsTime"], 2)[::2])
        assert not np.shares_memory(cloud.xyz, given)
        np.testing.assert_array_equal(cloud.xyz, given.astype(np.float64))
        np.testing.assert_array_equal(cloud["Intensity"], fields["Intensity"])
        np.testing.assert_array_equal(cloud["Classification"], fields["Classification"])
        np.testing.assert_array_equal(cloud["GpsTime"], fields["GpsTime"])
        assert cloud.fields["Classification"] == "uint8"


def run_in_place_algorithms(cloud, target):
    """Algorithms that write fields of their cloud in place; the fields they leave."""
    quorvel.ground_filter(cloud, quorvel.GroundFilterParameterBox())
    box = quorvel.FieldAssignmentParameterBox(where="Z > 2", set=["Classification=6",
                                                                  "Intensity=Intensity+1"])
    quorvel.assign(cloud, box)
    quorvel.classificationTransfer(cloud, target, quorvel.ClassificationTransferParameterBox("0.5"))
    quorvel.extrapolation(cloud, quorvel.ExtrapolationParameterBox(mode="constant", radius=1.5,
                                                                  maximum_iteration=2))
    quorvel.reproject(cloud, quorvel.ReprojectionParameterBox(source="EPSG:25832",
                                                              target="EPSG:25833"))
    return [cloud.xyz, target["Classification"]] + [cloud[name] for name in cloud.fields]


@pytest.mark.parametrize("fragment_points", [0, 64])
def test_algorithms_writing_in_place_leave_the_callers_arrays_as_they_were(tmp_path,
                                                                           fragment_points):
    xyz, fields = lattice(), arrays()
    xyz_before = xyz.copy()
    given = {name: values.copy() for name, values in fields.items()}
    for values in (xyz, *fields.values()):
        values.flags.writeable = False  # read-only arrays are shared as well
    cloud = quorvel.Cloud(xyz, fragment_points=fragment_points, **fields)
    target = quorvel.Cloud(xyz + [0.1, 0, 0], fragment_points=fragment_points,
                           Classification=fields["Classification"])
    earlier = cloud["Classification"]
    # The same runs on clouds of the framework's own storage (read back from bundles).
    cloud.write(str(tmp_path / "cloud.h5"))
    target.write(str(tmp_path / "target.h5"))
    owned = quorvel.read(str(tmp_path / "cloud.h5"))
    owned_target = quorvel.read(str(tmp_path / "target.h5"))

    results = run_in_place_algorithms(cloud, target)
    high = xyz[:, 2] > 2
    assert (cloud["Classification"][high] == 6).all() and (cloud["Classification"] == 2).any()
    np.testing.assert_array_equal(cloud["Intensity"],
                                  np.where(high, given["Intensity"] + 1, given["Intensity"]))
    assert np.abs(cloud.xyz - xyz_before).max() > 1000  # another UTM zone: moved far
    for shared, own in zip(results, run_in_place_algorithms(owned, owned_target)):
        np.testing.assert_array_equal(shared, own)
    # A view read before the runs keeps the values it was read with.
    np.testing.assert_array_equal(earlier, given["Classification"])
    np.testing.assert_array_equal(xyz, xyz_before)
    for name, values in fields.items():
        np.testing.assert_array_equal(values, given[name], err_msg=name)


def test_the_cloud_keeps_the_arrays_alive_and_lets_them_go_with_it():
    xyz, fields = lattice(), arrays()
    expected = {name: values.copy() for name, values in fields.items()}
    watch = [weakref.ref(xyz)] + [weakref.ref(values) for values in fields.values()]
    cloud = quorvel.Cloud(xyz, fragment_points=100, **fields)
    del xyz, fields
    gc.collect()
    assert all(w() is not None for w in watch)
    np.testing.assert_array_equal(cloud.xyz, lattice())
    for name, values in expected.items():
        np.testing.assert_array_equal(cloud[name], values)
    # A view read from a one-fragment cloud outlives the cloud; the array goes with the view.
    single = quorvel.Cloud(watch[0](), GpsTime=watch[3]())
    gps = single["GpsTime"]
    del cloud, single
    gc.collect()
    assert watch[1]() is None and watch[3]() is not None
    np.testing.assert_array_equal(gps, expected["GpsTime"])
    del gps
    gc.collect()
    assert all(w() is None for w in watch)
