# SPDX-License-Identifier: BSD-3-Clause
"""The filters from Python: crop by polygons given as plain rings, thinning, outliers and
reprojection, checked against numpy."""
import numpy as np
import pytest

import quorvel


@pytest.fixture
def cloud():
    xyz = np.mgrid[0:20:0.5, 0:20:0.5, 0:1].reshape(3, -1).T
    return quorvel.Cloud(xyz, classification=np.ones(len(xyz), np.uint8))


def test_crop_by_rings_with_a_hole_and_boundaries_inside(cloud):
    outer = [(2, 2), (12, 2), (12, 12), (2, 12)]
    hole = [(5, 5), (9, 5), (9, 9), (5, 9)]
    box = quorvel.CropParameterBox(polygons=[[outer, hole]])
    x, y = cloud.xyz[:, 0], cloud.xyz[:, 1]
    in_outer = (x >= 2) & (x <= 12) & (y >= 2) & (y <= 12)
    in_hole = (x > 5) & (x < 9) & (y > 5) & (y < 9)
    kept = quorvel.crop(cloud, box)
    assert len(kept) == (in_outer & ~in_hole).sum()
    box.inverse = True
    assert len(quorvel.crop(cloud, box)) == len(cloud) - len(kept)


def test_thin_outliers_and_their_checks(cloud):
    assert np.array_equal(quorvel.thin(cloud, quorvel.ThinParameterBox(mode="every", every=4)).xyz,
                          cloud.xyz[::4])
    with pytest.raises(ValueError, match="fraction"):
        quorvel.thin(cloud, quorvel.ThinParameterBox(mode="random", fraction=1.5))
    box = quorvel.OutlierParameterBox(method="radius", radius=0.5, minPoints=5)
    quorvel.outliers(cloud, box)
    # On a 0.5 m lattice a corner has 2 neighbours within 0.5 m, an edge 3, the rest 4.
    assert box.outliers == len(cloud) and (cloud["Classification"] == 7).all()


def test_reproject_from_python():
    cloud = quorvel.Cloud(np.array([[12.0, 55.0, 0.0]]))
    box = quorvel.ReprojectionParameterBox(source="EPSG:4258", target="EPSG:25832")
    quorvel.reproject(cloud, box)
    assert np.allclose(cloud.xyz[0, :2], [691875.63, 6098907.83], atol=0.01)


def test_reproject_interpolated_and_exact_agree_within_the_tolerance():
    rng = np.random.default_rng(3)
    xyz = np.column_stack([rng.uniform(500000, 503000, 4000), rng.uniform(5.4e6, 5.403e6, 4000),
                           rng.uniform(0, 100, 4000)])
    results = []
    for exact in (False, True):
        cloud = quorvel.Cloud(xyz.copy())
        box = quorvel.ReprojectionParameterBox(source="EPSG:32633", target="EPSG:4326",
                                               inputScale=(0.01, 0.01, 0.01), exact=exact)
        quorvel.reproject(cloud, box)
        results.append(np.asarray(cloud.xyz))
    assert box.exact and box.scale[0] == 1e-9
    assert np.abs(results[0] - results[1]).max(axis=0)[:2].max() <= 1e-11
