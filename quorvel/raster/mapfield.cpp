// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: carrying a field of one grid onto the points of another by horizontal position. The
// source points go into one 2-D tree (x and y) with their values beside it; every target point
// takes the value of the nearest source point within the radius.
#include "quorvel/raster/detail/raster.hpp"
#include "quorvel/spatial/spatial.hpp"

#include "tressel/uniform_grid.hpp"

#include <limits>

namespace Quorvel {

namespace {

using Tree = Tarrow::OcTreeStd<std::uint32_t, point, 2>;

// Appends the values of one source fragment as floats; false when they cannot be read.
bool appendValues(const Tressel::MemBase& data, std::size_t count, std::vector<float>& out) {
  const auto kind = data.elementType().scalar();
  if (data.elementType().components() != 1 || kind == Tressel::ScalarKind::Opaque ||
      data.nElements() != count)
    return false;
  const void* raw = data.elementBytes();
  Tressel::withScalar(kind, [&](auto zero) {
    const auto* v = static_cast<const decltype(zero)*>(raw);
    for (std::size_t i = 0; i < count; ++i)
      out.push_back(static_cast<float>(v[i]));
    return true;
  });
  return true;
}

// The source points of every fragment (of any rank) with their values, in fragment order.
struct SourcePoints {
  std::vector<point> points;
  std::vector<float> values;
};

SourcePoints collectSource(const Field& positions, const Field& values) {
  SourcePoints out;
  if (positions.nFragments() == 0)
    Basalt::Console() << "\tsource: NonFragmented";
  positions.iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>&) {
    auto xyz = positions.getData(id);
    auto data = values.getData(id);
    if (!xyz || &xyz->elementType() != &Tressel::TresselType<point>() || !data ||
        !appendValues(*data, xyz->nElements(), out.values)) {
      Basalt::Console() << "Can not read mem array for source height";
      return true;
    }
    const auto* p = static_cast<const point*>(xyz->elementBytes());
    out.points.insert(out.points.end(), p, p + xyz->nElements());
    return true;
  });
  return out;
}

// Fills the target field's array of one fragment of 3-D positions.
void mapFragment(const Tree& tree, const SourcePoints& source, const Field& positions,
                 Field& target, const StrongPtr<FragmentID>& id, double radius) {
  auto data = positions.getData(id);
  if (!data) {
    Basalt::Console() << "No target chunk points!?!";
    return;
  }
  auto xyz = Tressel::arrayCast<3, point>(data);
  if (!xyz) {
    Basalt::Console() << "Dimension of Positions: " << data->rank()
                      << " and TargetHeightF: 3 are not equal!";
    return;
  }
  const std::size_t n = xyz->size();
  auto out =
      MemArray<3, float>::filled(xyz->multiExtents(), std::numeric_limits<float>::quiet_NaN());
  const point* p = xyz->data();
  float* v = out->data();
  forEachPoint(n, maximumThreadsMinusOne(), SearchPointGrain, [&](std::size_t i) {
    std::uint32_t k = 0;
    double squared = 0;
    if (tree.findNearest(p[i], radius, k, squared))
      v[i] = source.values[k];
  });
  target.setPersistentData(out, id);
}

} // namespace

std::string mapSourceToTarget(const Grid& source, std::string sourceFieldName, Grid& target,
                              std::string targetFieldName, double radius) {
  auto targetRep = target.getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  if (!targetRep)
    return "mapSourceToTarget::No target rep";
  auto targetPositions = targetRep->findField(Tressel::PositionsFieldName);
  if (!targetPositions)
    return "mapSourceToTarget::No target field: TRESSEL_POSITIONS";
  auto out = targetRep->makeField(targetRep->makeFieldID(targetFieldName),
                                  targetRep->fragmentLayout(), &Tressel::TresselType<float>(), 3);
  auto sourceRep = source.getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  if (!sourceRep)
    return "mapSourceToTarget:No source rep";
  auto sourcePositions = sourceRep->findField(Tressel::PositionsFieldName);
  if (!sourcePositions)
    return "mapSourceToTarget::No source field: TRESSEL_POSITIONS";
  auto values = sourceRep->findField(sourceFieldName);
  if (!values)
    return "mapSourceToTarget: No source field: " + sourceFieldName;
  if (!out)
    return "mapSourceToTarget: target field " + targetFieldName + " holds another type";
  if (values->getElementType() && values->getElementType()->components() == 1)
    Basalt::Console() << "\tHave a scalar source height field";
  if (!Tressel::uniformGridView(source))
    Basalt::Console() << "but grid is not uniform";

  StrongPtr<BoundingBox> bbox;
  Tressel::expandBoundingBox(bbox, *sourcePositions);
  const SourcePoints points = collectSource(*sourcePositions, *values);
  Tree tree(bbox ? bbox->min() : point(), bbox ? bbox->max() : point(), 32);
  for (std::size_t k = 0; k < points.points.size(); ++k)
    tree.insert(points.points[k], static_cast<std::uint32_t>(k));
  targetPositions->iterate(
      [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>&) {
        mapFragment(tree, points, *targetPositions, *out, id, radius);
        return true;
      });
  return "";
}

} // namespace Quorvel
