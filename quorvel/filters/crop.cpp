// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: cropping a cloud to a box or to a union of polygons with holes.
#include "quorvel/filters/detail/polygons.hpp"
#include "quorvel/filters/detail/where.hpp"
#include "quorvel/filters/filters.hpp"

#include "basalt/text.hpp"
#include "quorvel/core/core.hpp"

#include <algorithm>

namespace Quorvel {

void CropParameterBox::print() const {
  printFields(*this);
}

void CropParameterBox::printBox(std::string_view label, const std::array<double, 4>& box) {
  printField(label, Basalt::format("(%.17g,%.17g,%.17g,%.17g)", box[0], box[1], box[2], box[3]));
}

namespace {

std::optional<KeptPoints> keptByCrop(const StrongPtr<Grid>& grid, CropParameterBox& box,
                                     Messages& log) {
  const auto positions = findPositions(grid, log, "ERROR: no f_vertices");
  if (!positions)
    return std::nullopt;
  const auto& b = box.box;
  if (box.polygons.empty() && !(b[0] <= b[2] && b[1] <= b[3])) {
    log.report("ERROR: the box is not XMIN,YMIN,XMAX,YMAX with XMIN <= XMAX and YMIN <= YMAX");
    return std::nullopt;
  }
  const std::vector<detail::PolygonIndex> indexes(box.polygons.begin(), box.polygons.end());
  const auto slots = fragmentsOf(*positions);
  std::string problem;
  const auto tested = detail::testedPoints(grid, slots, box.where, problem);
  if (!tested) {
    log.report("ERROR: --where: " + problem);
    return std::nullopt;
  }
  std::vector<std::vector<std::size_t>> chosen(slots.size());
  for (std::size_t k = 0; k < slots.size(); ++k) {
    const auto xyz = fragmentArray<point>(*positions, slots[k]);
    if (!xyz)
      continue;
    for (std::size_t i = 0; i < xyz->size(); ++i) {
      const point& p = (*xyz)[i];
      if (!(*tested)[k][i]) { // not tested: kept as it is
        chosen[k].push_back(i);
        continue;
      }
      bool in = false;
      if (indexes.empty())
        in = p.x >= b[0] && p.x <= b[2] && p.y >= b[1] && p.y <= b[3];
      for (std::size_t j = 0; j < indexes.size() && !in; ++j)
        in = indexes[j].contains(p.x, p.y);
      if (in != box.inverse)
        chosen[k].push_back(i);
    }
  }
  return KeptPoints{slots, std::move(chosen)};
}

} // namespace

std::optional<KeptPoints> keptByCrop(const StrongPtr<Grid>& grid, CropParameterBox& box) {
  Messages log("Crop: ", &box.message);
  return keptByCrop(grid, box, log);
}

StrongPtr<Grid> crop(const StrongPtr<Grid>& grid, CropParameterBox& box) {
  Messages log("Crop: ", &box.message);
  return keptCloud(*grid, keptByCrop(grid, box, log), log);
}

} // namespace Quorvel
