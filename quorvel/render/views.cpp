// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: top views and profiles of clouds. Both project every point drawn onto a plane (x-y
// seen from above; distance along a line and z seen from its right) and keep in every pixel the
// point nearest the viewer, a z-buffer; the kept points' classes or values give the colours.
#include "quorvel/core/budget.hpp"
#include "quorvel/core/core.hpp"
#include "quorvel/render/detail/draw.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace Quorvel {

using namespace Render;

namespace {

// The longer side when neither a pixel size nor a size is given.
constexpr std::size_t DefaultSide = 1000;

// A point as a view sees it: across (u), up (v), and its nearness to the viewer.
struct Projected {
  double u, v, nearness;
};

// The values of a numeric per-point field of a fragment as doubles; empty for another type.
template <class... T>
std::vector<double> valuesAs(const Field& field, const FragmentSlot& slot) {
  std::vector<double> out;
  const auto take = [&](auto typed) {
    using U = decltype(typed);
    if (!out.empty())
      return;
    if (const auto a = fragmentArray<U>(field, slot)) {
      out.resize(a->size());
      for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<double>((*a)[i]);
    }
  };
  (take(T{}), ...);
  return out;
}

std::vector<double> valuesOf(const Field& field, const FragmentSlot& slot) {
  return valuesAs<unsigned char, unsigned short, unsigned int, unsigned long long, signed char,
                  short, int, long long, float, double>(field, slot);
}

// The field a box's `by` colours with (but "z", read from the positions): its name,
// "CanopyHeight" for "height", "Intensity" for "intensity", "Classification" by default.
std::string fieldOf(const std::string& by) {
  if (by.empty() || by == "classification")
    return "Classification";
  if (by == "intensity")
    return "Intensity";
  if (by == "height")
    return "CanopyHeight";
  return by;
}

bool byClass(const RenderParameterBox& box) {
  return box.by.empty() || box.by == "classification";
}

// What a pixel keeps of its nearest point; in single precision, so that the buffer of a large
// picture stays in the caches.
struct Cell {
  float nearness = -std::numeric_limits<float>::infinity(); // -infinity: no point
  float value = 0.0f;
  bool drawn() const { return nearness > -std::numeric_limits<float>::infinity(); }
};

// The pixels of a view.
struct Frame {
  Image image;
  std::vector<Cell> cells;
};

// The image's pixel size and extent from the box: pixels of box.pixel aligned at its multiples
// (top views, so that pictures of neighbouring tiles meet), or the extent fitted into the size.
void layOut(Image& image, const RenderParameterBox& box, double lowU, double lowV, double highU,
            double highV, bool aligned) {
  const double extentU = highU - lowU, extentV = highV - lowV;
  double p = box.pixel;
  if (!(p > 0)) {
    const std::size_t w = box.width == 0 && box.height == 0 ? DefaultSide : box.width;
    p = std::max(w > 0 ? extentU / static_cast<double>(w) : 0.0,
                 box.height > 0 ? extentV / static_cast<double>(box.height) : 0.0);
    p = p > 0 ? p : 1.0;
    aligned = false;
  }
  const double left = aligned ? std::floor(lowU / p) * p : lowU;
  const double top = aligned ? (std::floor(highV / p) + 1) * p : highV;
  const double columns = std::max(1.0, std::ceil((highU - left) / p - 1e-9));
  const double rows = std::max(1.0, std::ceil((top - lowV) / p - 1e-9));
  // More pixels than the budget of cells is a pixel size far too small for the cloud.
  checkCellBudget("render", columns, rows, "pixels");
  image.width = static_cast<std::size_t>(columns);
  image.height = static_cast<std::size_t>(rows);
  image.left = left;
  image.top = top;
  image.pixelX = image.pixelY = p;
}

// Calls f(fragment's points, their values or empty, their classes or empty, i) for every point.
template <class F>
void forEachPoint(const Tressel::Grid& cloud, const Field* values, const Field* classes, F&& f) {
  auto positions = cloud.CartesianPositions();
  if (!positions)
    throw std::runtime_error("render: the cloud has no positions");
  for (const FragmentSlot& slot : fragmentsOf(*positions)) {
    const auto xyz = fragmentArray<point>(*positions, slot);
    if (!xyz)
      continue;
    const std::vector<double> v = values ? valuesOf(*values, slot) : std::vector<double>();
    const std::vector<double> c = classes ? valuesOf(*classes, slot) : std::vector<double>();
    for (std::size_t i = 0; i < xyz->size(); ++i)
      f((*xyz)[i], v.size() == xyz->size() ? v[i] : 0.0, c.size() == xyz->size() ? c[i] : 0.0);
  }
}

const Field* requiredField(const Tressel::Grid& cloud, const std::string& name,
                           StrongPtr<Field>& keep) {
  auto rep = cloud.getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  keep = rep ? rep->findField(name) : nullptr;
  if (!keep)
    throw std::runtime_error(
        "render: the cloud has no field \"" + name + "\"" +
        (name == "CanopyHeight" ? " (heights above the ground: run quorvel map CLOUD DTM --height "
                                  "first)"
                                : ""));
  return keep.get();
}

// The x-y extent of the fragments' boxes; false when a fragment has none.
bool extentOfBoxes(const Tressel::Grid& cloud, double& lowX, double& lowY, double& highX,
                   double& highY) {
  auto positions = cloud.CartesianPositions();
  if (!positions)
    return false;
  for (const FragmentSlot& slot : fragmentsOf(*positions)) {
    const auto box = fragmentBBox(slot);
    if (!box || box->empty() || !std::isfinite(box->min().x) || !std::isfinite(box->max().y))
      return false;
    lowX = std::min(lowX, box->min().x), highX = std::max(highX, box->max().x);
    lowY = std::min(lowY, box->min().y), highY = std::max(highY, box->max().y);
  }
  return true;
}

// The z-buffer of the projected points of the box's classes that project() accepts.
template <class Project>
Frame zBuffer(const Tressel::Grid& cloud, const RenderParameterBox& box, Project&& project,
              bool aligned) {
  StrongPtr<Field> valueField, classField;
  // Heights come from the positions themselves.
  const bool byZ = box.by == "z";
  const Field* values = byZ ? nullptr : requiredField(cloud, fieldOf(box.by), valueField);
  const Field* classes =
      box.classes.empty() ? nullptr : requiredField(cloud, "Classification", classField);
  std::array<bool, 256> drawn{};
  for (int c = 0; c < 256; ++c)
    drawn[c] = box.classes.empty() || box.classes.contains(c, RangeTolerance);
  const auto accept = [&](const point& p, double cls, Projected& q) {
    return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z) &&
           drawn[static_cast<std::size_t>(std::clamp(cls, 0.0, 255.0))] && project(p, q);
  };
  double lowU = std::numeric_limits<double>::infinity(), lowV = lowU, highU = -lowU, highV = -lowU;
  Projected q{};
  // A top view of all points takes its extent from the fragments' boxes (the readers store
  // them), so that the points are read once.
  if (!(aligned && !classes && extentOfBoxes(cloud, lowU, lowV, highU, highV)))
    forEachPoint(cloud, nullptr, classes, [&](const point& p, double, double cls) {
      if (accept(p, cls, q)) {
        lowU = std::min(lowU, q.u), highU = std::max(highU, q.u);
        lowV = std::min(lowV, q.v), highV = std::max(highV, q.v);
      }
    });
  if (!(lowU <= highU))
    throw std::runtime_error("render: no point to draw (with finite coordinates" +
                             std::string(box.classes.empty() ? "" : ", of the classes") +
                             (box.view == "profile" ? ", in the corridor" : "") + ")");
  Frame f;
  layOut(f.image, box, lowU, lowV, highU, highV, aligned);
  const std::size_t w = f.image.width, h = f.image.height;
  f.cells.assign(w * h, Cell());
  forEachPoint(cloud, values, classes, [&](const point& p, double value, double cls) {
    if (!accept(p, cls, q))
      return;
    // Points on the far edges belong to the last pixel.
    const auto column =
        std::min(w - 1, static_cast<std::size_t>((q.u - f.image.left) / f.image.pixelX));
    const auto row =
        std::min(h - 1, static_cast<std::size_t>((f.image.top - q.v) / f.image.pixelY));
    const std::size_t at = row * w + column;
    if (static_cast<float>(q.nearness) > f.cells[at].nearness)
      f.cells[at] = {static_cast<float>(q.nearness), static_cast<float>(byZ ? p.z : value)};
  });
  return f;
}

// The 2nd and 98th percentiles of the values of the pixels with points, or the box's range.
std::pair<double, double> rampRange(const Frame& f, const RenderParameterBox& box) {
  if (box.range_low != box.range_high)
    return {box.range_low, box.range_high};
  std::vector<double> v;
  for (const Cell& c : f.cells)
    if (c.drawn())
      v.push_back(c.value);
  const auto at = [&](double share) {
    auto nth = v.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(v.size() - 1));
    std::nth_element(v.begin(), nth, v.end());
    return *nth;
  };
  return {at(0.02), at(0.98)};
}

std::array<ClassStyle, 256> paletteOf(const RenderParameterBox& box) {
  std::array<ClassStyle, 256> p = defaultPalette();
  for (const auto& [cls, style] : box.palette)
    if (cls < 256) {
      p[cls].colour = style.colour;
      p[cls].name = style.name.empty() ? p[cls].name : style.name;
    }
  return p;
}

// The 3 x 3 neighbourhood of nearness around a pixel (detail::window fills its gaps).
std::array<double, 9> window(const Frame& f, std::size_t column, std::size_t row) {
  return detail::window(
      [&](long long c, long long r) {
        const bool inside = c >= 0 && r >= 0 && c < static_cast<long long>(f.image.width) &&
                            r < static_cast<long long>(f.image.height);
        const double v =
            inside
                ? f.cells[static_cast<std::size_t>(r) * f.image.width + static_cast<std::size_t>(c)]
                      .nearness
                : std::nan("");
        return std::isfinite(v) ? v : std::nan("");
      },
      static_cast<long long>(column), static_cast<long long>(row));
}

// Colours the frame's pixels, and the legend's content.
detail::LegendContent colour(Frame& f, const RenderParameterBox& box) {
  detail::LegendContent legend;
  const auto palette = paletteOf(box);
  const bool classes = byClass(box);
  const auto [low, high] = classes ? std::pair{0.0, 0.0} : rampRange(f, box);
  std::array<bool, 256> seen{};
  f.image.pixels.assign(f.cells.size(), Rgba{0, 0, 0, 0});
  for (std::size_t row = 0; row < f.image.height; ++row)
    for (std::size_t column = 0; column < f.image.width; ++column) {
      const std::size_t at = row * f.image.width + column;
      const Cell& cell = f.cells[at];
      if (!cell.drawn())
        continue;
      const auto cls = static_cast<std::size_t>(std::clamp(cell.value, 0.0f, 255.0f));
      seen[cls] = seen[cls] || classes;
      Rgba c = classes ? palette[cls].colour
                       : rampColour(high > low ? (cell.value - low) / (high - low) : 0.5);
      if (box.shade && box.view == "top")
        c = detail::darkened(c, hillshade(window(f, column, row), f.image.pixelX, f.image.pixelY));
      f.image.pixels[at] = c;
    }
  for (int c = 0; c < 256; ++c)
    if (seen[c])
      legend.classes.emplace_back(c, palette[c]);
  legend.ramp = !classes;
  legend.low = low;
  legend.high = high;
  legend.title = box.by == "z" || box.by == "height" ? box.by + " (m)" : box.by;
  return legend;
}

void checkBox(const RenderParameterBox& box) {
  if (box.view != "top" && box.view != "profile")
    throw std::runtime_error("render: the view \"" + box.view + "\" is neither top nor profile");
  if (!std::isfinite(box.pixel) || box.pixel < 0)
    throw std::runtime_error("render: the pixel size must be a positive number");
}

} // namespace

Image renderCloud(const Tressel::Grid& cloud, const RenderParameterBox& box) {
  checkBox(box);
  Frame f;
  if (box.view == "top") {
    f = zBuffer(
        cloud, box,
        [](const point& p, Projected& q) {
          return q = {p.x, p.y, p.z}, true;
        },
        true);
    f.image.georeferenced = true;
  } else {
    const double dx = box.to_x - box.from_x, dy = box.to_y - box.from_y;
    const double length = std::hypot(dx, dy);
    if (!(length > 0) || !std::isfinite(length))
      throw std::runtime_error("render: the profile's line has no length (--from equals --to)");
    const double ux = dx / length, uy = dy / length;
    f = zBuffer(
        cloud, box,
        [&](const point& p, Projected& q) {
          const double rx = p.x - box.from_x, ry = p.y - box.from_y;
          const double along = rx * ux + ry * uy, right = rx * uy - ry * ux;
          q = {along, p.z, right};
          return along >= 0 && along <= length && std::fabs(right) <= box.corridor;
        },
        false);
  }
  const detail::LegendContent legend = colour(f, box);
  if (box.legend)
    detail::addLegend(f.image, legend);
  return std::move(f.image);
}

Image thumbnail(const Tressel::Grid& cloud, std::size_t size) {
  RenderParameterBox box;
  box.width = box.height = std::max<std::size_t>(1, size);
  return renderCloud(cloud, box);
}

} // namespace Quorvel
