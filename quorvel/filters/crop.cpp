// Quorvel: cropping a cloud to a box or to a union of polygons with holes.
#include "quorvel/filters/detail/where.hpp"
#include "quorvel/filters/filters.hpp"

#include "basalt/Text.hpp"
#include "quorvel/core/core.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Quorvel {

void CropParameterBox::print() const {
  printField("box: ", Basalt::format("(%.17g,%.17g,%.17g,%.17g)", box[0], box[1], box[2], box[3]));
  printField("inverse: ", inverse);
  printField("where: ", where);
}

namespace {

struct Edge {
  double ax, ay, bx, by;
};

// The edges of every polygon sorted into horizontal bands of equal height: a band lists each
// edge whose y extent meets it, so a point's band holds every edge that can cross its
// horizontal ray or carry it.
class BandedEdges {
public:
  explicit BandedEdges(const Polygon& polygon) {
    std::vector<Edge> edges;
    for (const Ring& ring : polygon.rings)
      for (std::size_t k = 0; k < ring.size(); ++k) {
        const auto& a = ring[k];
        const auto& b = ring[(k + 1) % ring.size()];
        if (a != b)
          edges.push_back({a[0], a[1], b[0], b[1]});
      }
    for (const Edge& e : edges) {
      lo_[0] = std::min({lo_[0], e.ax, e.bx});
      hi_[0] = std::max({hi_[0], e.ax, e.bx});
      lo_[1] = std::min({lo_[1], e.ay, e.by});
      hi_[1] = std::max({hi_[1], e.ay, e.by});
    }
    bands_.resize(std::clamp<std::size_t>(edges.size(), 1, 1 << 16));
    height_ = (hi_[1] - lo_[1]) / static_cast<double>(bands_.size());
    for (const Edge& e : edges)
      for (std::size_t b = band(std::min(e.ay, e.by)), last = band(std::max(e.ay, e.by)); b <= last;
           ++b)
        bands_[b].push_back(e);
  }

  // Inside by the even-odd rule over every ring, or on an edge.
  bool contains(double x, double y) const {
    if (!(x >= lo_[0] && x <= hi_[0] && y >= lo_[1] && y <= hi_[1]))
      return false;
    bool inside = false;
    for (const Edge& e : bands_[band(y)]) {
      const double cross = (e.bx - e.ax) * (y - e.ay) - (e.by - e.ay) * (x - e.ax);
      if (cross == 0.0 && x >= std::min(e.ax, e.bx) && x <= std::max(e.ax, e.bx) &&
          y >= std::min(e.ay, e.by) && y <= std::max(e.ay, e.by))
        return true;
      if ((e.ay > y) != (e.by > y) && x < e.ax + (y - e.ay) * (e.bx - e.ax) / (e.by - e.ay))
        inside = !inside;
    }
    return inside;
  }

private:
  std::size_t band(double y) const {
    if (!(height_ > 0))
      return 0;
    const double b = std::floor((y - lo_[1]) / height_);
    return static_cast<std::size_t>(std::clamp(b, 0.0, static_cast<double>(bands_.size() - 1)));
  }

  double lo_[2] = {std::numeric_limits<double>::infinity(),
                   std::numeric_limits<double>::infinity()};
  double hi_[2] = {-std::numeric_limits<double>::infinity(),
                   -std::numeric_limits<double>::infinity()};
  double height_ = 0.0;
  std::vector<std::vector<Edge>> bands_;
};

} // namespace

std::vector<std::uint8_t> insidePolygons(const std::vector<Polygon>& polygons, std::size_t n,
                                         const double* x, const double* y) {
  std::vector<BandedEdges> banded(polygons.begin(), polygons.end());
  std::vector<std::uint8_t> inside(n, 0);
  for (std::size_t i = 0; i < n; ++i)
    for (const BandedEdges& polygon : banded)
      if (polygon.contains(x[i], y[i])) {
        inside[i] = 1;
        break;
      }
  return inside;
}

StrongPtr<Grid> crop(const StrongPtr<Grid>& grid, CropParameterBox& box) {
  Messages log("Crop: ", &box.message);
  const auto positions = findPositions(grid, log, "ERROR: no f_vertices");
  if (!positions)
    return nullptr;
  const auto& b = box.box;
  if (box.polygons.empty() && !(b[0] <= b[2] && b[1] <= b[3])) {
    log.report("ERROR: the box is not XMIN,YMIN,XMAX,YMAX with XMIN <= XMAX and YMIN <= YMAX");
    return nullptr;
  }
  const std::vector<BandedEdges> banded(box.polygons.begin(), box.polygons.end());
  const auto slots = fragmentsOf(*positions);
  std::string problem;
  const auto tested = detail::testedPoints(grid, slots, box.where, problem);
  if (!tested) {
    log.report("ERROR: --where: " + problem);
    return nullptr;
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
      if (banded.empty())
        in = p.x >= b[0] && p.x <= b[2] && p.y >= b[1] && p.y <= b[3];
      for (std::size_t j = 0; j < banded.size() && !in; ++j)
        in = banded[j].contains(p.x, p.y);
      if (in != box.inverse)
        chosen[k].push_back(i);
    }
  }
  try {
    return subsetOf(*grid, slots, chosen, true);
  } catch (const std::exception& e) {
    log.report(std::string("ERROR: ") + e.what());
    return nullptr;
  }
}

} // namespace Quorvel
