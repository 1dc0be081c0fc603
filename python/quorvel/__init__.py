# SPDX-License-Identifier: BSD-3-Clause
"""Quorvel: point-cloud algorithms for airborne and terrestrial LIDAR.

Clouds are built from numpy arrays (``Cloud(xyz, classification=c)``) or read from LAS, LAZ and
bundle files (``read("a.las")``); every field comes back as a numpy array (``cloud["Planarity"]``,
``cloud.xyz``). Every algorithm takes its parameter box; boxes accept their fields as keywords
(``ShapeFactorComputationParameterBox(normalvector=True)``), and every run checks the box first
(``ValueError`` naming the field, with the words of the ``quorvel`` command). A run that reports
an error raises ``Error`` with its message. Units: positions, radii and heights in metres (the
units of the file's coordinates), classes as LAS class numbers, counts in points.

Field keywords of ``Cloud`` take the framework's names (``Classification``, ``GpsTime``) or the
lower-case names laspy uses (``classification``, ``gps_time``, ``return_number``,
``number_of_returns``, ``point_source_id``, ``scan_angle``, ``user_data``, ``nir``, ...);
``red``, ``green`` and ``blue`` together make ``RGB``. Other names make custom fields of that
very name (they become extra-bytes dimensions in a LAS file).

The library's own lines (progress, reports) are hidden; ``set_verbose(True)`` shows them on
standard error.

Snake-case names, each the same object as the library's name:

==============================  =====================================
shape_factors                   shapeFactorComputation
reduction_weights               computePointCloudReductionWeights
reduced_cloud                   reducedPointCloud
write_reduced_cloud             reduceSizeOfPointCloud
select                          computeSelection
selection_table                 array2D
assign                          assignFields
planar_regression               planarRegressionOfGrid
extrapolate                     extrapolation
ground_filter                   groundFilter
relative_height_and_belows      relativeHeightAndBelows
classification_transfer         classificationTransfer
classification_transfer_old     classificationTransferOLD
cell_size                       setCellSize
ground_raster                   groundRaster
surface_raster                  surfaceRaster
density_raster                  densityRaster
canopy_raster                   canopyRaster
take_raster_layout              takeRasterLayout
prepare_raster                  prepareRaster
map_raster                      mapData
map_classification              mapClassification
map_classification_step         mapClassificationStep
map_field                       mapSourceToTarget
assign_classes_to_classes       assignClassesToClasses
assign_ranges_to_classes        assignRangesToClasses
reclassification_by_range       reclassificationAccordingToRange
fit_plane                       planarRegression
weighted_mean                   weightedMean
weighted_median                 weightedMedian
cubic_kernel                    sphCubic
outliers                        filterOutliers
read_polygons                   readPolygons
==============================  =====================================
"""
import re as _re
from contextlib import contextmanager as _contextmanager

import numpy as _np

from ._quorvel import *  # noqa: F401,F403
from ._quorvel import Cloud, Error, is_verbose, set_verbose  # noqa: F401
from . import _quorvel

ALIASES = {
    "shape_factors": "shapeFactorComputation",
    "reduction_weights": "computePointCloudReductionWeights",
    "reduced_cloud": "reducedPointCloud",
    "write_reduced_cloud": "reduceSizeOfPointCloud",
    "select": "computeSelection",
    "selection_table": "array2D",
    "assign": "assignFields",
    "planar_regression": "planarRegressionOfGrid",
    "extrapolate": "extrapolation",
    "ground_filter": "groundFilter",
    "relative_height_and_belows": "relativeHeightAndBelows",
    "classification_transfer": "classificationTransfer",
    "classification_transfer_old": "classificationTransferOLD",
    "cell_size": "setCellSize",
    "ground_raster": "groundRaster",
    "surface_raster": "surfaceRaster",
    "density_raster": "densityRaster",
    "canopy_raster": "canopyRaster",
    "take_raster_layout": "takeRasterLayout",
    "prepare_raster": "prepareRaster",
    "map_raster": "mapData",
    "map_classification": "mapClassification",
    "map_classification_step": "mapClassificationStep",
    "map_field": "mapSourceToTarget",
    "assign_classes_to_classes": "assignClassesToClasses",
    "assign_ranges_to_classes": "assignRangesToClasses",
    "reclassification_by_range": "reclassificationAccordingToRange",
    "fit_plane": "planarRegression",
    "weighted_mean": "weightedMean",
    "weighted_median": "weightedMedian",
    "cubic_kernel": "sphCubic",
    "outliers": "filterOutliers",
    "read_polygons": "readPolygons",
}
for _snake, _camel in ALIASES.items():
    globals()[_snake] = getattr(_quorvel, _camel)


@_contextmanager
def verbose(on=True):
    """Shows (or hides) the library's own lines inside a ``with`` block, then restores the
    setting before.

    Parameters:
        on: True to show the lines on standard error, False to hide them
    """
    before = set_verbose(on)
    try:
        yield
    finally:
        set_verbose(before)


# ---- Parameter boxes: keywords and repr -------------------------------------------------------


def _keyword_init(cls):
    plain = cls.__init__

    def __init__(self, *args, **fields):
        plain(self, *args)
        for name, value in fields.items():
            if name not in cls._fields:
                raise TypeError(f"{cls.__name__} has no field {name!r}")
            setattr(self, name, value)

    def __repr__(self):
        values = ", ".join(f"{name}={getattr(self, name)!r}" for name in cls._fields)
        return f"{cls.__name__}({values})"

    __init__.__doc__ = cls.__doc__
    cls.__init__ = __init__
    cls.__repr__ = __repr__


for _name in dir(_quorvel):
    _cls = getattr(_quorvel, _name)
    if _name.endswith("ParameterBox") and hasattr(_cls, "_fields"):
        _keyword_init(_cls)


# ---- Clouds: field names and element types ----------------------------------------------------

# {name: (dtype, components)} of the LAS record fields.
_LAS = {name: (_np.dtype(code), n) for name, (code, n) in _quorvel._las_fields().items()}


def _snake_case(name):
    return _re.sub(r"(?<=[a-z0-9])(?=[A-Z])|(?<=[A-Z])(?=[A-Z][a-z])", "_", name).lower()


# Keyword -> field: the snake-case form of every LAS field, and laspy's own names where they
# differ ("scan_angle_rank" of formats 0 to 5, the wave-packet names).
FIELD_KEYWORDS = {_snake_case(name): name for name in _LAS}
FIELD_KEYWORDS.update({
    "scan_angle_rank": "ScanAngle",
    "wavepacket_index": "WavePacketIndex",
    "wavepacket_offset": "WaveformOffset",
    "wavepacket_size": "WaveformSize",
    "return_point_wave_location": "ReturnPointLocation",
    "x_t": "WaveXt",
    "y_t": "WaveYt",
    "z_t": "WaveZt",
})
_COLOURS = ("red", "green", "blue")


def _numbers(name, values):
    a = _np.asarray(values)
    if a.dtype.kind not in "biuf":
        raise TypeError(f'field "{name}": an array of numbers is needed, not {a.dtype}')
    return a


def _as_type(name, a, dtype):
    """a as dtype when every value survives the conversion; ValueError naming the field and the
    first value that does not."""
    if a.dtype == dtype:
        return a
    if dtype.kind in "iu" and a.size:
        if a.dtype.kind == "f":
            bad = ~_np.isfinite(a) | (a != _np.floor(a))
            if bad.any():
                raise ValueError(f'field "{name}": {a[bad].flat[0]!r} is not a whole number')
        info = _np.iinfo(dtype)
        low, high = a.min(), a.max()
        if low < info.min or high > info.max:
            value = low if low < info.min else high
            raise ValueError(f'field "{name}": {value!r} does not fit {dtype.name} '
                             f'({info.min} to {info.max})')
    return a.astype(dtype)


def _field(name, values):
    """The array the extension takes for a field: the LAS type for a LAS field; otherwise the
    given numeric type (bool as uint8, float16 as float32, n x 3 as float64 vectors), always in
    the machine's byte order and C-contiguous."""
    a = _numbers(name, values)
    if name in _LAS:
        a = _as_type(name, a, _LAS[name][0])
    elif a.ndim == 2:
        a = _as_type(name, a, _np.dtype(_np.float64))
    elif a.dtype.kind == "b":
        a = a.astype(_np.uint8)
    elif a.dtype == _np.float16:
        a = a.astype(_np.float32)
    return _np.ascontiguousarray(a, dtype=a.dtype.newbyteorder("="))


def _fields(keywords):
    """Field keywords as {field name: array}: LAS names in either spelling, red/green/blue as
    RGB, other names as they are."""
    out, given = {}, {}
    colours = {c: keywords.pop(c) for c in _COLOURS if c in keywords}
    if colours:
        if len(colours) != 3:
            raise TypeError("red, green and blue make \"RGB\" together; "
                            f"given only {', '.join(colours)}")
        out["RGB"] = _field("RGB", _np.column_stack([_numbers(c, colours[c]) for c in _COLOURS]))
        given["RGB"] = "red, green, blue"
    for key, values in keywords.items():
        name = FIELD_KEYWORDS.get(key, key)
        if name in given:
            raise TypeError(f'field "{name}" given twice ({given[name]} and {key})')
        given[name] = key
        out[name] = _field(name, values)
    return out


def _positions(xyz):
    return _np.ascontiguousarray(_numbers("xyz", xyz), dtype=_np.float64)


_plain_cloud_init = Cloud.__init__
_plain_from_dict = Cloud.from_dict


def _cloud_init(self, xyz, fragment_points=0, **fields):
    """A cloud of n x 3 positions and per-point fields.

    The cloud reads the arrays' memory without copying it and keeps the arrays alive, where an
    array is C-contiguous, in the machine's byte order and of the field's type (xyz: float64; a
    LAS field: its LAS type; vectors: n x 3 float64); other arrays are converted once, a copy.
    Algorithms never change the arrays: the first write to a field copies its values into the
    cloud. Fields read back (cloud[name], cloud.xyz) are read-only views where the cloud is one
    fragment; a view keeps the values it was read with when an algorithm writes the field later.

    Parameters:
        xyz: n x 3 finite positions in metres, any numeric type (converted to float64 once)
        fragment_points: points of a fragment (consecutive points); 0: one fragment
        fields: per-point arrays of n values (n x 3 for vectors) by field name: the framework's
            names (Classification, Intensity, GpsTime, ...), laspy's (classification,
            intensity, gps_time, red/green/blue, ...) or a name of your own
    """
    _plain_cloud_init(self, _positions(xyz), fragment_points, **_fields(dict(fields)))


def _cloud_from_dict(fields, fragment_points=0):
    """A cloud of a dict of arrays: "Positions" (or "xyz") and per-point fields as for Cloud().

    Parameters:
        fields: {name: array}; "Positions" or "xyz" holds the n x 3 positions in metres
        fragment_points: points of a fragment (consecutive points); 0: one fragment
    """
    rest = dict(fields)
    xyz = rest.pop("Positions", None)
    if xyz is None:
        xyz = rest.pop("xyz", None)
    if xyz is None:
        raise Error('the dict has no "Positions"')
    return _plain_from_dict({"Positions": _positions(xyz), **_fields(rest)}, fragment_points)


Cloud.__init__ = _cloud_init
Cloud.from_dict = staticmethod(_cloud_from_dict)


def __getattr__(name):
    # quorvel.catalog (catalogues on Dask) is imported when first used, so that `python3 -m
    # quorvel.catalog` finds it unimported.
    if name == "catalog":
        import importlib

        return importlib.import_module(".catalog", __name__)
    raise AttributeError(f"module 'quorvel' has no attribute '{name}'")
