# SPDX-License-Identifier: BSD-3-Clause
"""quorvel catalog and quorvel.catalog: a survey of small generated tiles run chunk by chunk on a
local Dask cluster (loopback only), each result checked against the same pipeline run by
`quorvel pipeline` on the whole area merged into one file, point by point (GpsTime is every
point's identity). QUORVEL names the host; PYTHONPATH holds the package.
"""

import json
import os
import signal
import subprocess
import threading

import numpy as np
import pytest

import quorvel
import quorvel.catalog as qc

QUORVEL = os.environ.get("QUORVEL", "quorvel")
TILE = 40.0  # metres: a 3 x 3 survey of 120 m


def scene(seed=3):
    """Terrain with slopes, trees and houses: 9 tiles of about 1,500 points."""
    rng = np.random.default_rng(seed)
    n = 13_500
    x = rng.uniform(0, 3 * TILE, n)
    y = rng.uniform(0, 3 * TILE, n)
    ground = 100 + 0.05 * x + 3 * np.sin(y / 15)
    kind = rng.choice([2, 5, 6], n, p=[0.6, 0.3, 0.1])
    z = ground + np.where(kind == 5, rng.uniform(0, 15, n), 0) + np.where(kind == 6, 6, 0)
    z += rng.normal(0, 0.03, n)
    return np.column_stack([x, y, z]), kind.astype(np.uint8), np.arange(n, dtype=np.float64)


@pytest.fixture(scope="module")
def survey(tmp_path_factory):
    """Tiles of the scene (LAS, by `quorvel.tile`) and the whole area merged in the
    catalogue's order."""
    root = tmp_path_factory.mktemp("survey")
    xyz, classes, ids = scene()
    whole_source = str(root / "source.las")
    quorvel.Cloud(xyz, Classification=classes, GpsTime=ids).write(whole_source)
    tiles = sorted(quorvel.tile([whole_source], str(root / "tiles"), TILE))
    whole = str(root / "whole.las")
    quorvel.merge(tiles, whole)
    return root, tiles, whole


def write_pipeline(path, stages):
    path.write_text(json.dumps(stages))
    return str(path)


def whole_area(survey, pipeline, name):
    root, _, whole = survey
    stages = json.loads(open(pipeline).read())
    out = str(root / f"{name}.las")
    run = write_pipeline(root / f"{name}.json", [whole] + stages + [out])
    subprocess.run([QUORVEL, "pipeline", run, "-q"], check=True)
    return quorvel.read(out)


def by_id(cloud):
    order = np.argsort(cloud["GpsTime"])
    return {name: np.asarray(cloud[name])[order] for name in cloud.fields}


def chunk_outputs(folder):
    files = sorted(str(p) for p in folder.iterdir() if p.suffix in (".las", ".laz"))
    merged = str(folder / "all.merged")
    if not files:
        return {}
    quorvel.merge(files, merged + ".las")
    cloud = quorvel.read(merged + ".las")
    os.remove(merged + ".las")
    return by_id(cloud)


def assert_same(got, want, fields):
    np.testing.assert_array_equal(got["GpsTime"], want["GpsTime"])
    for name in fields:
        np.testing.assert_array_equal(got[name], want[name], err_msg=name)


NEIGHBOURHOODS = [
    {"command": "relheight", "half-width": 4},
    {"command": "shapefactors", "step": 1, "maxstep": 4, "linearity": True, "normals": True},
]


@pytest.mark.parametrize("chunk_size", [None, 25.0], ids=["file-chunks", "grid-chunks"])
def test_buffered_chunks_equal_the_whole_area(survey, tmp_path, chunk_size):
    root, tiles, _ = survey
    # Classes from the source moved by 30 cm: each point takes another point's class.
    transfer = {"command": "transfer", "source": str(root / "source.las"), "bands": "1",
                "offset": "0.3,0.2,0", "unclassify": True}
    pipeline = write_pipeline(tmp_path / "p.json", NEIGHBOURHOODS + [transfer])
    want = by_id(whole_area(survey, pipeline, f"whole-{chunk_size}"))
    report = qc.Catalog(tiles).run(pipeline, tmp_path / "out", buffer=8, chunk_size=chunk_size,
                                   workers=2)
    assert report.ok and not report.skipped
    got = chunk_outputs(tmp_path / "out")
    # Every point once: chunk edges belong to one chunk.
    assert_same(got, want, ["RelativeHeight", "RelativeBelows", "Linearity", "NormalVector",
                            "Classification"])
    assert (got["Classification"] != scene()[1][got["GpsTime"].astype(int)]).any()
    if chunk_size is None:
        assert sorted(report.written) == sorted(os.path.basename(t)[:-4] for t in tiles)


def cells(path):
    """A raster's heights by the centre of their cells."""
    raster = quorvel.read(path)
    xy = np.round(raster.xyz[:, :2], 6)
    height = np.asarray(raster["Height"])
    kind = np.asarray(raster["CellType"])
    return {(x, y): h for (x, y), h, k in zip(map(tuple, xy), height, kind) if k in (0, 4)}


def test_dtm_and_heights_above_it_equal_the_whole_area(survey, tmp_path):
    """A dtm stage's raster is kept beside the cloud for map; per chunk it is cut to the chunk,
    and the VRT over the pieces holds the whole area's cells."""
    root, tiles, _ = survey
    stages = [{"command": "dtm", "cell": 2, "classes": "2", "fill-rings": 2, "output": "dtm.tif"},
              {"command": "map", "raster": "dtm.tif", "height": True}]
    pipeline = write_pipeline(tmp_path / "p.json", stages)
    whole_dtm = str(tmp_path / "whole-dtm.tif")
    whole = write_pipeline(tmp_path / "w.json", [{**stages[0], "output": whole_dtm},
                                                 {**stages[1], "raster": whole_dtm}])
    want = by_id(whole_area(survey, whole, "whole-dtm"))
    report = qc.Catalog(tiles).run(pipeline, tmp_path / "out", buffer=10, chunk_size=20,
                                   workers=2)
    assert report.ok and report.mosaics == [str(tmp_path / "out" / "dtm.vrt")]
    assert_same(chunk_outputs(tmp_path / "out"), want, ["CanopyHeight", "Classification"])
    pieces = sorted((tmp_path / "out").glob("*_dtm.tif"))
    assert len(pieces) == len(report.written)
    mosaic, reference = cells(report.mosaics[0]), cells(whole_dtm)
    # The whole area's raster reaches one cell past its easternmost and northernmost points,
    # beyond every chunk's square; within the survey the cells are the same.
    inside = {c: h for c, h in reference.items() if max(c) < 3 * TILE}
    assert len(inside) < len(reference) and mosaic == inside
    # Grid chunks aligned with the cells take disjoint cells.
    assert sum(len(cells(str(p))) for p in pieces) == len(inside)


def test_without_a_buffer_edges_differ(survey, tmp_path):
    """The check above can fail: with no buffer, points near the tiles' edges see fewer
    neighbours."""
    pipeline = write_pipeline(tmp_path / "p.json", NEIGHBOURHOODS[:1])
    want = by_id(whole_area(survey, pipeline, "whole-nobuffer"))
    _, tiles, _ = survey
    qc.Catalog(tiles).run(pipeline, tmp_path / "out", buffer=0, workers=1)
    got = chunk_outputs(tmp_path / "out")
    np.testing.assert_array_equal(got["GpsTime"], want["GpsTime"])
    assert (got["RelativeHeight"] != want["RelativeHeight"]).sum() > 50


def test_one_and_two_workers_write_the_same_files(survey, tmp_path):
    pipeline = write_pipeline(tmp_path / "p.json", NEIGHBOURHOODS[:1])
    _, tiles, _ = survey
    for workers in (1, 2):
        qc.Catalog(tiles).run(pipeline, tmp_path / f"w{workers}", buffer=5, chunk_size=30,
                              workers=workers)
    names = sorted(p.name for p in (tmp_path / "w1").glob("*.las"))
    assert names and names == sorted(p.name for p in (tmp_path / "w2").glob("*.las"))
    for name in names:
        assert (tmp_path / "w1" / name).read_bytes() == (tmp_path / "w2" / name).read_bytes()


def test_reruns_skip_finished_chunks_and_redo_changed_ones(survey, tmp_path):
    root, tiles, _ = survey
    local = [str(tmp_path / os.path.basename(t)) for t in tiles]
    for src, dst in zip(tiles, local):
        with open(src, "rb") as f, open(dst, "wb") as g:
            g.write(f.read())
    pipeline = write_pipeline(tmp_path / "p.json", NEIGHBOURHOODS[:1])
    out = tmp_path / "out"
    first = qc.Catalog(local).run(pipeline, out, buffer=5, workers=1)
    assert len(first.written) == 9
    again = qc.Catalog(local).run(pipeline, out, buffer=5, workers=1)
    assert len(again.skipped) == 9 and not again.written
    # A changed file redoes its chunk and the chunks whose buffer reads it (its neighbours).
    os.utime(local[0], ns=(1, 1))
    changed = qc.Catalog(local).run(pipeline, out, buffer=5, workers=1)
    assert sorted(changed.written) == ["0_0", "0_40", "40_0", "40_40"]
    # Another pipeline or buffer redoes all; force too.
    assert len(qc.Catalog(local).run(pipeline, out, buffer=6, workers=1).written) == 9
    assert len(qc.Catalog(local).run(pipeline, out, buffer=6, workers=1, force=True).written) == 9


def test_failing_chunks_are_reported_and_the_others_written(survey, tmp_path):
    _, tiles, _ = survey
    local = []
    for k, t in enumerate(tiles):
        data = open(t, "rb").read()
        if k == 4:
            data = data[: len(data) // 2]  # a download cut in the middle of its records
        local.append(str(tmp_path / os.path.basename(t)))
        open(local[-1], "wb").write(data)
    pipeline = write_pipeline(tmp_path / "p.json", NEIGHBOURHOODS[:1])
    run = subprocess.run([QUORVEL, "catalog", pipeline, *local, "-o", str(tmp_path / "out"),
                          "--workers", "2"], capture_output=True, text=True)
    assert run.returncode == 1, run.stderr
    assert run.stderr.startswith(f"quorvel catalog: chunk 40_40: {local[4]}: point count ")
    assert "8 written, 0 skipped, 0 empty, 1 failed" in run.stderr
    written = sorted(p.name for p in (tmp_path / "out").glob("*.las"))
    assert len(written) == 8 and "40_40.las" not in written
    # A chunk whose stage fails in the worker: a raster over the first tile alone leaves the
    # chunks beyond its neighbours nothing to map onto; its neighbours, whose buffers reach it,
    # are mapped (NaN off the raster).
    dtm = str(tmp_path / "dtm.tif")
    subprocess.run([QUORVEL, "dtm", tiles[0], "-o", dtm, "--cell", "2", "-q"], check=True)
    mapping = write_pipeline(tmp_path / "m.json", [{"command": "map", "raster": dtm,
                                                    "height": True}])
    report = qc.Catalog(tiles).run(mapping, tmp_path / "mapped", workers=2)
    assert sorted(report.written) == ["0_0", "0_40", "40_0", "40_40"] and len(report.failed) == 5
    assert "does not meet the cloud" in report.failed["80_80"]
    stopped = qc.Catalog(tiles[1:]).run(mapping, tmp_path / "stopped", workers=1,
                                        stop_early=True)
    # One worker in the catalogue's order: 0_40 meets the raster, 0_80 fails and stops the rest.
    assert list(stopped.failed) == ["0_80"] and stopped.written == ["0_40"]


def test_a_killed_worker_does_not_lose_a_chunk(survey, tmp_path):
    from dask.distributed import Client, LocalCluster

    pipeline = write_pipeline(tmp_path / "p.json", NEIGHBOURHOODS)
    want = by_id(whole_area(survey, pipeline, "whole-killed"))
    _, tiles, _ = survey
    with LocalCluster(n_workers=2, threads_per_worker=1, host="127.0.0.1",
                      dashboard_address=None) as cluster, Client(cluster) as client:
        pids = list(client.run(os.getpid).values())
        killed = threading.Event()

        def kill_one(report):
            if not killed.is_set():
                killed.set()
                os.kill(pids[0], signal.SIGKILL)

        report = qc.Catalog(tiles).run(pipeline, tmp_path / "out", buffer=8, chunk_size=20,
                                       scheduler=cluster.scheduler_address, progress=kill_one)
    assert killed.is_set() and report.ok, report.failed
    assert_same(chunk_outputs(tmp_path / "out"), want, ["RelativeHeight", "Linearity"])
    # A chunk cut off by the kill left no file behind.
    assert not [p for p in (tmp_path / "out").iterdir() if ".tmp." in p.name]


def test_refusals(survey, tmp_path):
    _, tiles, _ = survey
    pipeline = write_pipeline(tmp_path / "p.json", [{"command": "relheight", "half-widht": 2}])
    with pytest.raises(quorvel.Error, match=r"p.json: element 1: relheight: unknown option "):
        qc.Catalog(tiles).run(pipeline, tmp_path / "out")
    with pytest.raises(quorvel.Error, match="no such file or folder"):
        qc.Catalog([str(tmp_path / "missing.las")])
    sample = os.path.join(os.environ.get("QUORVEL_SAMPLE_DATA", "data"),
                          "nebraska_wkt_geotiff.las")
    with pytest.raises(quorvel.Error, match=r"nebraska_wkt_geotiff.las: .*, .*0_0.las: no "
                                            "coordinate system; the files of a catalogue must "
                                            "share one coordinate system"):
        qc.Catalog([tiles[0], sample])
    run = subprocess.run([QUORVEL, "catalog", "--help"], capture_output=True, text=True)
    assert run.returncode == 0 and "--chunk-size" in run.stdout and "--scheduler" in run.stdout


def test_planning_ten_thousand_tiles_is_quick(tmp_path):
    """The index of many files (their headers) and the chunks' plan, without running."""
    boxes = [(i * 10.0, j * 10.0, i * 10.0 + 10, j * 10.0 + 10) for i in range(100)
             for j in range(100)]
    index = qc._BoxIndex(boxes)
    assert index.meeting((15, 15, 25, 25)) == [101, 102, 201, 202]
    # The half-open square [10, 20) meets the boxes that end on its lower edges, not those
    # that begin on its upper ones.
    assert index.meeting((10, 10, 20, 20), closed=False) == [0, 1, 100, 101]
