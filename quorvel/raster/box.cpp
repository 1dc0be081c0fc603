// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the raster mapping box's print() and the two height-band rules.
#include "quorvel/core/core.hpp"
#include "quorvel/geometry/geometry.hpp"
#include "quorvel/raster/detail/raster.hpp"
#include "tressel/uniform_grid.hpp"

#include <locale>
#include <sstream>

namespace Quorvel {

namespace detail {

std::string tripleText(double x, double y, double z) {
  std::ostringstream out;
  out.imbue(std::locale::classic());
  out << "(" << x << " ," << y << " ," << z << ")";
  return out.str();
}

std::string cornersText(const BoundingBox& box) {
  const point &a = box.min(), &b = box.max();
  return tripleText(a.x, a.y, a.z) + " | " + tripleText(b.x, b.y, b.z);
}

} // namespace detail

void MapRasterOnPointCloudParameterBox::print() const {
  // The order of the lines is older than the order of the fields.
  using B = MapRasterOnPointCloudParameterBox;
  printFields(*this, &B::constantclasses, &B::cellsize, &B::height, &B::step, &B::heightfieldname,
              &B::unclassify);
}

void MapRasterOnPointCloudParameterBox::printCellSize(std::string_view label,
                                                      const std::array<double, 3>& size) {
  printField(label, detail::tripleText(size[0], size[1], size[2]));
}

void MapRasterOnPointCloudParameterBox::printRasterSize(std::string_view label,
                                                        const std::array<std::uint64_t, 3>& size) {
  printField(label, std::to_string(size[0]) + "x" + std::to_string(size[1]) + "x" +
                        std::to_string(size[2]));
}

void MapRasterOnPointCloudParameterBox::printRasterBox(std::string_view label,
                                                       const StrongPtr<BoundingBox>& box) {
  printField(label, box && !box->empty() ? detail::cornersText(*box) : std::string());
}

void MapRasterOnPointCloudParameterBox::printBands(std::string_view label,
                                                   const std::vector<HeightBand>& bands) {
  Basalt::Console() << label;
  for (const HeightBand& band : bands)
    Basalt::Console() << band.low << ":" << band.high << "=" << band.cls;
}

bool takeRasterLayout(const Tressel::Grid& raster, MapRasterOnPointCloudParameterBox& box) {
  const auto view = Tressel::uniformGridView(raster);
  if (!view)
    return false;
  for (std::size_t a = 0; a < 3; ++a) {
    box.cellsize[a] = view->cellSize[static_cast<int>(a)];
    box.rastersize[a] = view->cells[a];
  }
  return true;
}

void mapClassification(const double& low, const double& high,
                       const Vantor::PhysicalSpace::vector& planeNormal,
                       const Vantor::PhysicalSpace::point& p, const double& maxGround,
                       const double& minGround, const double& groundHeight, const int& cls,
                       std::uint8_t& cls_out) {
  if (planeNormal.z < NoPlaneC) {
    const double d = computeDistanceOfPointFromPlane(planeNormal, p);
    if (low <= d && d <= high && p.z > minGround + low && high + maxGround > p.z)
      cls_out = static_cast<std::uint8_t>(cls);
  }
  // Applied even after the plane test assigned: either test accepts the band.
  if (p.z > low + groundHeight && groundHeight + high > p.z)
    cls_out = static_cast<std::uint8_t>(cls);
}

void mapClassificationStep(const double& low, const double& high,
                           const Vantor::PhysicalSpace::point& p, const double& groundHeight,
                           const int& cls, std::uint8_t& cls_out) {
  if (p.z > low + groundHeight && groundHeight + high > p.z)
    cls_out = static_cast<std::uint8_t>(cls);
}

} // namespace Quorvel
