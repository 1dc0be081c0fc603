// Quorvel: the raster mapping box's print() and the two height-band rules.
#include "quorvel/core/core.hpp"
#include "quorvel/geometry/geometry.hpp"
#include "quorvel/raster/detail/raster.hpp"
#include "tressel/UniformGrid.hpp"

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
  printField("constantclasses: ", constantclasses);
  printField("cellsize: ", detail::tripleText(cellsize[0], cellsize[1], cellsize[2]));
  printField("height: ", height);
  printField("step: ", step);
  printField("heightfieldname: ", heightfieldname);
  printField("unclassify: ", unclassify);
  printField("rastersize: ", std::to_string(rastersize[0]) + "x" + std::to_string(rastersize[1]) +
                                 "x" + std::to_string(rastersize[2]));
  printField("raster bbox: ", raster_bbox && !raster_bbox->empty()
                                  ? detail::cornersText(*raster_bbox)
                                  : std::string());
  Basalt::Console() << "assignment: ";
  for (const HeightBand& band : assignment)
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
