# SPDX-License-Identifier: BSD-3-Clause
# Type stubs of the quorvel package, so that editors complete names and arguments.
from contextlib import AbstractContextManager
from typing import Any, Dict, List, Optional, Sequence, Tuple, overload

import numpy as np
import numpy.typing as npt

class Error(Exception): ...

# A Cloud reads the numpy arrays it is built from without copying them (C-contiguous, native
# byte order, the field's type; others are converted once) and copies a field on its first
# write, so the arrays never change; fields read back are read-only views keeping their values.
class Cloud:
    def __init__(self, xyz: npt.ArrayLike, fragment_points: int = 0, **fields: npt.ArrayLike) -> None: ...
    @staticmethod
    def from_dict(fields: Dict[str, npt.ArrayLike], fragment_points: int = 0) -> "Cloud": ...
    def __getitem__(self, name: str) -> np.ndarray: ...
    def __len__(self) -> int: ...
    @property
    def xyz(self) -> np.ndarray: ...
    @property
    def fragments(self) -> int: ...
    @property
    def fields(self) -> Dict[str, str]: ...
    def write(self, path: str, height_field: str = "Height") -> None: ...

def read(path: str, fragment_points: int = 0, box: Optional[Sequence[float]] = None, grid: Optional[str] = None) -> Cloud: ...
def tile(paths: Sequence[str], folder: str, size: float, origin: Tuple[float, float] = (0.0, 0.0), buffer: float = 0.0, format: str = "", box: Optional[Sequence[float]] = None) -> List[str]: ...
def merge(paths: Sequence[str], output: str, box: Optional[Sequence[float]] = None) -> int: ...
def set_verbose(on: bool) -> bool: ...
def is_verbose() -> bool: ...
def verbose(on: bool = True) -> AbstractContextManager[None]: ...

ALIASES: Dict[str, str]
FIELD_KEYWORDS: Dict[str, str]

class ShapeFactorComputationParameterBox:
    maxstep: int
    step: float
    dimension: int
    use_only_firstreturns: bool
    use_only_singlereturns: bool
    use_only_lastreturns: bool
    intensity_threshold: float
    verbose: bool
    chartname: str
    normalvector: bool
    linearity: bool
    sphericity: bool
    message: str
    def __init__(self, **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...

class PointCloudReductionParameterBox:
    message: str
    radius: float
    neighbours: int
    fragmentMaxWeights: List[float]
    fragmentMedianWeights: List[float]
    def __init__(self, **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...

class PointCloudSizeReductionParameterBox:
    keep: float
    threshold: float
    keep_unweighted: bool
    message: str
    def __init__(self, **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...

class SelectionParameterBox:
    fieldname: str
    selection: str
    where: str
    inverse: bool
    coordinate: int
    columns: List[str]
    columnNames: List[str]
    message: str
    def __init__(self, **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...

class FieldAssignmentParameterBox:
    where: str
    set: List[str]
    create: List[str]
    message: str
    def __init__(self, **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...

class CropParameterBox:
    box: Tuple[float, float, float, float]
    polygons: List[List[List[Tuple[float, float]]]]
    inverse: bool
    where: str
    message: str
    def __init__(self, **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...

class OutlierParameterBox:
    method: str
    neighbours: int
    multiplier: float
    radius: float
    minPoints: int
    classify: int
    remove: bool
    where: str
    threads: int
    outliers: int
    mean: float
    deviation: float
    message: str
    def __init__(self, **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...

class ThinParameterBox:
    mode: str
    voxel: float
    keep: str
    fraction: float
    seed: int
    every: int
    message: str
    def __init__(self, **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...

class ReprojectionParameterBox:
    target: str
    source: str
    inputScale: Tuple[float, float, float]
    exact: bool
    tolerance: float
    threads: int
    scale: Tuple[float, float, float]
    offset: Tuple[float, float, float]
    message: str
    def __init__(self, **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...

class PlanarRegressionParameterBox:
    range: str
    source: str
    additional: str
    working_range: str
    radius: float
    target: int
    maximum_iteration: int
    reset: int
    quantile: int
    dimension: str
    fieldname: str
    message: str
    def __init__(self, **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...

class ExtrapolationParameterBox:
    mode: str
    extrapolation_class: int
    source: str
    target: str
    radius: float
    maximum_iteration: int
    dimension: str
    range: str
    quantile: int
    threshold: float
    message: str
    def __init__(self, **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...

class GroundFilterParameterBox:
    method: str
    cell_size: float
    slope: float
    window: float
    threshold: float
    scalar: float
    ignore: str
    reset: bool
    message: str
    def __init__(self, **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...

class ClassificationTransferParameterBox:
    radius: float
    assignment: Dict[float, int]
    hasAssignment: bool
    maxradius: float
    dimension: int
    fieldname: str
    onetree: bool
    positions: bool
    expand: bool
    unclassify: bool
    source: str
    target: str
    offset: Tuple[float, float, float]
    sourcefilename: str
    message: str
    threads: int
    def __init__(self, text: str = "", **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...

class MapRasterOnPointCloudParameterBox:
    step: bool
    unclassify: bool
    height: bool
    heightfieldname: str
    cellsize: List[float]
    rastersize: List[int]
    constantclasses: str
    raster_bbox: Optional[Tuple[Tuple[float, float, float], Tuple[float, float, float]]]
    assignment: List[Tuple[float, float, int]]
    class_assignment: List[Tuple[int, float, float, float, float]]
    def __init__(self, **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...

class GroundRasterParameterBox:
    cell_size: float
    classes: str
    method: str
    fill_rings: int
    fragment_cells: int
    height_field: str
    def __init__(self, **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...

class SurfaceParameterBox:
    cell_size: float
    classes: str
    first_returns: bool
    fill_rings: int
    pit_depth: float
    fragment_cells: int
    height_field: str
    ground_field: str
    def __init__(self, **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...

class ComputeNeighboursParameterBox:
    radius: float
    mode: str
    stripwise: bool
    def __init__(self, **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...
    def different(self, other: "ComputeNeighboursParameterBox") -> bool: ...

def shapeFactorComputation(cloud: Cloud, box: ShapeFactorComputationParameterBox) -> str: ...
def computePointCloudReductionWeights(cloud: Cloud, box: PointCloudReductionParameterBox) -> str: ...
def reducedPointCloud(cloud: Cloud, box: PointCloudSizeReductionParameterBox) -> Cloud: ...
def reduceSizeOfPointCloud(cloud: Cloud, box: PointCloudSizeReductionParameterBox, path: str) -> str: ...
def computeSelection(cloud: Cloud, box: SelectionParameterBox) -> Cloud: ...
def array2D(cloud: Cloud, box: SelectionParameterBox) -> np.ndarray: ...
def assignFields(cloud: Cloud, box: FieldAssignmentParameterBox) -> str: ...
def crop(cloud: Cloud, box: CropParameterBox) -> Cloud: ...
def readPolygons(path: str, layer: str = "", feature_filter: str = "",
                 crs: str = "") -> List[List[List[Tuple[float, float]]]]: ...
def filterOutliers(cloud: Cloud, box: OutlierParameterBox) -> Cloud: ...
def thin(cloud: Cloud, box: ThinParameterBox) -> Cloud: ...
def reproject(cloud: Cloud, box: ReprojectionParameterBox) -> None: ...
def planarRegressionOfGrid(cloud: Cloud, box: PlanarRegressionParameterBox) -> str: ...
def extrapolation(cloud: Cloud, box: ExtrapolationParameterBox) -> str: ...
def groundFilter(cloud: Cloud, box: GroundFilterParameterBox) -> int: ...
def classificationTransfer(source: Cloud, target: Cloud, box: ClassificationTransferParameterBox) -> str: ...
def setCellSize(cloud: Cloud) -> str: ...
def classificationTransferOLD(source: Cloud, target: Cloud, box: ClassificationTransferParameterBox) -> str: ...
def relativeHeightAndBelows(cloud: Cloud, squareHalfWidth: float, classes: Optional[str] = None) -> None: ...
def raster(height: npt.ArrayLike, cell_type: Optional[npt.ArrayLike] = None,
           origin: Sequence[float] = (0.0, 0.0, 0.0), cell_size: float = 1.0,
           fragment_cells: int = 256, height_field: str = "Height") -> Cloud: ...
def cells(raster: Cloud, name: str) -> np.ndarray: ...
class RenderParameterBox:
    by: str
    view: str
    pixel: float
    width: int
    height: int
    classes: str
    range_low: float
    range_high: float
    legend: bool
    shade: bool
    hillshade: bool
    from_x: float
    from_y: float
    to_x: float
    to_y: float
    corridor: float
    palette: Dict[int, Any]
    message: str
    def __init__(self, **fields: Any) -> None: ...
    def print(self) -> None: ...
    def __str__(self) -> str: ...

def render(cloud: Cloud, path: str, by: str = "", view: str = "top", pixel: float = 0.0,
           size: Optional[Sequence[int]] = None, classes: str = "",
           range: Optional[Tuple[float, float]] = None, legend: bool = False, shade: bool = False,
           hillshade: bool = False,
           line: Optional[Tuple[Tuple[float, float], Tuple[float, float]]] = None,
           width: float = 1.0, palette: Dict[int, Any] = ...,
           height_field: str = "Height") -> None: ...
def render_array(cloud: Cloud, by: str = "", view: str = "top", pixel: float = 0.0,
                 size: Optional[Sequence[int]] = None, classes: str = "",
                 range: Optional[Tuple[float, float]] = None, legend: bool = False,
                 shade: bool = False, hillshade: bool = False,
                 line: Optional[Tuple[Tuple[float, float], Tuple[float, float]]] = None,
                 width: float = 1.0, palette: Dict[int, Any] = ...,
                 height_field: str = "Height") -> np.ndarray: ...
def write_thumbnail(cloud: Cloud, path: str, size: int = 256) -> None: ...
def groundRaster(cloud: Cloud, cell_size: float, classes: str = "2", fill_rings: int = 5,
                 fragment_cells: int = 256, height_field: str = "Height",
                 method: str = "lowest") -> Cloud: ...
def surfaceRaster(cloud: Cloud, box: SurfaceParameterBox) -> Cloud: ...
def densityRaster(cloud: Cloud, box: SurfaceParameterBox) -> Cloud: ...
def canopyRaster(cloud: Cloud, ground: Cloud, box: SurfaceParameterBox) -> Cloud: ...
def takeRasterLayout(raster: Cloud, box: MapRasterOnPointCloudParameterBox) -> bool: ...
@overload
def prepareRaster(path: str, box: MapRasterOnPointCloudParameterBox) -> Cloud: ...
@overload
def prepareRaster(raster: Cloud, box: MapRasterOnPointCloudParameterBox) -> bool: ...
@overload
def mapData(cloud: Cloud, raster: Cloud, box: MapRasterOnPointCloudParameterBox) -> bool: ...
@overload
def mapData(files: List[str], rasterFile: str, box: MapRasterOnPointCloudParameterBox) -> bool: ...
def mapClassification(
    low: float, high: float, plane: Sequence[float], p: Sequence[float], maxGround: float,
    minGround: float, groundHeight: float, cls: int, cls_out: int) -> int: ...
def mapClassificationStep(
    low: float, high: float, p: Sequence[float], groundHeight: float, cls: int, cls_out: int) -> int: ...
def mapSourceToTarget(source: Cloud, sourceField: str, target: Cloud, targetField: str,
                      radius: float) -> None: ...

class MultiRange:
    intervals: List[Tuple[float, float]]
    def __init__(self, text: str = ...) -> None: ...
    def contains(self, x: float, tolerance: float = 1e-9) -> bool: ...
    def to_string(self) -> str: ...
    def empty(self) -> bool: ...

def assignClassesToClasses(text: str) -> Tuple[bool, List[int]]: ...
def assignRangesToClasses(text: str) -> Tuple[bool, List[Tuple[Tuple[float, float], int]]]: ...
def reclassificationAccordingToRange(
    text: str,
) -> Tuple[bool, List[Tuple[Tuple[float, float], Tuple[float, float], int]]]: ...
def planarRegression(points: npt.ArrayLike, percent: int = 0) -> Tuple[bool, Tuple[float, float, float]]: ...
def weightedMean(points: npt.ArrayLike, weights: Sequence[float]) -> Tuple[bool, Tuple[float, float, float]]: ...
def weightedMedian(
    points: npt.ArrayLike, weights: Sequence[float], tolerance: float
) -> Tuple[bool, Tuple[float, float, float]]: ...
def sphCubic(r: float, h: float = 1.0) -> float: ...

class Chronometry:
    def __init__(self, file_name: str) -> None: ...
    def print(self) -> None: ...
    def ddmmyy(self, sep: str = ".") -> str: ...
    def ddmmyyyy(self, sep: str = ".") -> str: ...
    def yyyymmdd(self, sep: str = ".") -> str: ...
    def yymmdd(self, sep: str = ".") -> str: ...
    year: int
    month: int
    day: int
    hour: int
    minute: int
    second: int
    day_of_week: int
    gps_week: int

def compute_gps_week(day: int, month: int, year: int) -> int: ...
def current_date_and_time(sep: str = " ") -> str: ...

# Snake-case names: the same objects as the names above.
shape_factors = shapeFactorComputation
reduction_weights = computePointCloudReductionWeights
reduced_cloud = reducedPointCloud
write_reduced_cloud = reduceSizeOfPointCloud
select = computeSelection
selection_table = array2D
assign = assignFields
outliers = filterOutliers
read_polygons = readPolygons
planar_regression = planarRegressionOfGrid
extrapolate = extrapolation
ground_filter = groundFilter
relative_height_and_belows = relativeHeightAndBelows
classification_transfer = classificationTransfer
classification_transfer_old = classificationTransferOLD
cell_size = setCellSize
ground_raster = groundRaster
surface_raster = surfaceRaster
density_raster = densityRaster
canopy_raster = canopyRaster
take_raster_layout = takeRasterLayout
prepare_raster = prepareRaster
map_raster = mapData
map_classification = mapClassification
map_classification_step = mapClassificationStep
map_field = mapSourceToTarget
assign_classes_to_classes = assignClassesToClasses
assign_ranges_to_classes = assignRangesToClasses
reclassification_by_range = reclassificationAccordingToRange
fit_plane = planarRegression
weighted_mean = weightedMean
weighted_median = weightedMedian
cubic_kernel = sphCubic
