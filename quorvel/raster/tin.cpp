// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: heights at pixel centres from a TIN, a Delaunay triangulation of points in x and y by
// qhull (Debian's libqhull-dev, the reentrant libqhull_r), each triangle a plane through its
// corners.
#include "quorvel/raster/detail/points.hpp"

extern "C" {
#include <libqhull_r/qhull_ra.h>
}

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>

namespace Quorvel::Raster::detail {

namespace {

using Triangle = std::array<std::size_t, 3>;

struct FileCloser {
  void operator()(std::FILE* f) const {
    if (f)
      std::fclose(f);
  }
};

// The Delaunay triangles of the points (x, y pairs) as indices of their corners; empty when
// qhull finds none (fewer than three points, all on one line).
std::vector<Triangle> delaunay(std::vector<double>& xy) {
  std::vector<Triangle> out;
  const auto n = static_cast<int>(xy.size() / 2);
  if (n < 3)
    return out;
  // qhull reports its failures on the error file; the caller sees them as no triangles.
  const std::unique_ptr<std::FILE, FileCloser> quiet(std::fopen("/dev/null", "w"));
  qhT context;
  qhT* qh = &context;
  QHULL_LIB_CHECK
  qh_zero(qh, quiet.get());
  // d: Delaunay; Qbb: scaled paraboloid; Qc: duplicates kept aside; Qz: a point at infinity for
  // cocircular input; Qt: triangles only.
  char flags[] = "qhull d Qbb Qc Qz Qt";
  if (qh_new_qhull(qh, 2, n, xy.data(), False, flags, nullptr, quiet.get()) == 0) {
    facetT* facet;
    vertexT *vertex, **vertexp;
    FORALLfacets {
      if (facet->upperdelaunay)
        continue;
      Triangle t{};
      std::size_t k = 0;
      FOREACHvertex_(facet->vertices) {
        if (k < 3)
          t[k] = static_cast<std::size_t>(qh_pointid(qh, vertex->point));
        ++k;
      }
      if (k == 3)
        out.push_back(t);
    }
  }
  qh_freeqhull(qh, !qh_ALL);
  int curlong = 0, totlong = 0;
  qh_memfreeshort(qh, &curlong, &totlong);
  return out;
}

// Sets the pixels whose centres lie in the triangle (edges included, so that a centre on an edge
// shared by two triangles takes the same height from either) to the plane through its corners.
void rasterize(const std::array<point, 3>& t, Pixels& p) {
  const double ax = t[0].x, ay = t[0].y;
  const double bx = t[1].x - ax, by = t[1].y - ay, cx = t[2].x - ax, cy = t[2].y - ay;
  const double det = bx * cy - by * cx;
  if (!(std::fabs(det) > 0))
    return;
  const double lowX = std::min({t[0].x, t[1].x, t[2].x}),
               highX = std::max({t[0].x, t[1].x, t[2].x});
  const double lowY = std::min({t[0].y, t[1].y, t[2].y}),
               highY = std::max({t[0].y, t[1].y, t[2].y});
  // Centres relative to the first centre, which the points are relative to as well.
  const auto first = [](double low, double size) {
    return std::max(0.0, std::ceil(low / size - 1e-9));
  };
  const double i0 = first(lowX, p.sizeX), j0 = first(lowY, p.sizeY);
  const double i1 = std::min(std::floor(highX / p.sizeX + 1e-9), double(p.columns) - 1);
  const double j1 = std::min(std::floor(highY / p.sizeY + 1e-9), double(p.rows) - 1);
  const double tolerance = 1e-9;
  for (double j = j0; j <= j1; ++j)
    for (double i = i0; i <= i1; ++i) {
      const double x = i * p.sizeX - ax, y = j * p.sizeY - ay;
      const double u = (x * cy - y * cx) / det, v = (bx * y - by * x) / det;
      if (u < -tolerance || v < -tolerance || u + v > 1 + tolerance)
        continue;
      const auto at = static_cast<std::size_t>(j) * p.columns + static_cast<std::size_t>(i);
      p.heights[at] = static_cast<float>(t[0].z + u * (t[1].z - t[0].z) + v * (t[2].z - t[0].z));
      p.types[at] = Measured;
    }
}

} // namespace

void tinHeights(const Basalt::ArrayVector<point>& points, Pixels& p) {
  p.heights.assign(p.columns * p.rows, std::numeric_limits<float>::quiet_NaN());
  p.types.assign(p.heights.size(), NoData);
  // Relative to the first pixel's centre: georeferenced coordinates lose precision in qhull's
  // paraboloid (x squared plus y squared).
  std::vector<double> xy(points.size() * 2);
  for (std::size_t k = 0; k < points.size(); ++k) {
    xy[2 * k] = points[k].x - p.x0;
    xy[2 * k + 1] = points[k].y - p.y0;
  }
  const std::vector<Triangle> triangles = delaunay(xy);
  for (const Triangle& t : triangles) {
    std::array<point, 3> corners;
    for (std::size_t k = 0; k < 3; ++k)
      corners[k] = point(points[t[k]].x - p.x0, points[t[k]].y - p.y0, points[t[k]].z);
    rasterize(corners, p);
  }
}

} // namespace Quorvel::Raster::detail
