// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: mapping a prepared raster onto a point cloud. Each fragment is handled in two passes
// over its points: the first finds every point's raster cell (and resets its class when asked),
// the second reads the cell and assigns classes by the bands or writes the height above ground.
// Both passes treat every point on its own, so they run in parallel over the points.
#include "quorvel/geometry/geometry.hpp"
#include "quorvel/raster/detail/cells.hpp"

#include <algorithm>
#include <array>
#include <limits>
#include <mutex>
#include <set>

namespace Quorvel {

namespace {

using namespace detail;

// The classes the bands may change: all 8-bit classes, or those of the class-conditional bands
// (intervals merged), each step printed.
MultiRange<double> computingClasses(const MapRasterOnPointCloudParameterBox& box) {
  MultiRange<double> computing("0:255");
  Basalt::Console() << "computing classes: " << computing.to_string();
  if (box.class_assignment.empty())
    return computing;
  std::vector<std::pair<double, double>> spans;
  for (const ClassConditionalBand& band : box.class_assignment) {
    Basalt::Console() << "--- " << band.classFrom << " | " << band.classTo;
    spans.emplace_back(std::min(band.classFrom, band.classTo),
                       std::max(band.classFrom, band.classTo));
  }
  std::sort(spans.begin(), spans.end());
  std::string text;
  for (std::size_t k = 0; k < spans.size();) {
    double low = spans[k].first, high = spans[k].second;
    for (++k; k < spans.size() && spans[k].first <= high; ++k)
      high = std::max(high, spans[k].second);
    if (!text.empty())
      text += ',';
    text += Basalt::format("%.17g:%.17g", low, high);
  }
  computing = MultiRange<double>(text);
  Basalt::Console() << "computing classes: " << computing.to_string();
  return computing;
}

// Membership of every 8-bit class, decided once.
struct ClassTable {
  std::array<bool, 256> constant{}, computing{};

  ClassTable(const MultiRange<double>& constantClasses, const MultiRange<double>& computingSet) {
    for (int c = 0; c < 256; ++c) {
      constant[c] = constantClasses.contains(c, RangeTolerance);
      computing[c] = computingSet.contains(c, RangeTolerance);
    }
  }

  // Whether a point of class c is mapped; a class both constant and computing is reported.
  bool mapped(unsigned char c, Messages& log, const char* error) const {
    if (constant[c]) {
      if (computing[c])
        log.report(std::string(error) + std::to_string(c));
      return false;
    }
    return computing[c];
  }
};

// Everything one run shares between fragments.
struct Run {
  const MapRasterOnPointCloudParameterBox& box;
  const RasterCells& raster;
  const ClassTable& classes;
  StrongPtr<Field> positions, classification, canopy;
  bool classesCreated;
  Messages& log;
};

// The bands of the box applied to one point over a ground cell.
void assignBands(const MapRasterOnPointCloudParameterBox& box, const PreparedCells& cells,
                 std::uint32_t k, const point& p, unsigned char& cls) {
  const Vantor::PhysicalSpace::vector& plane = (*cells.planes)[k];
  const double ground = cells.heights[k];
  const double highest = static_cast<double>((*cells.maxGround)[k]);
  const double lowest = static_cast<double>((*cells.minGround)[k]);
  auto apply = [&](double low, double high, int target) {
    if (box.step)
      mapClassificationStep(low, high, p, ground, target, cls);
    else
      mapClassification(low, high, plane, p, highest, lowest, ground, target, cls);
  };
  for (const HeightBand& band : box.assignment)
    apply(band.low, band.high, static_cast<int>(band.cls));
  for (const ClassConditionalBand& band : box.class_assignment)
    if (band.classFrom <= cls && cls <= band.classTo)
      apply(band.low, band.high, static_cast<int>(band.cls));
}

// Reports a missing raster array once per cloud fragment and raster fragment.
class MissingReports {
public:
  void report(Messages& log, std::uint32_t fragment, const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (reported_.insert(fragment).second)
      log.report(text);
  }

private:
  std::mutex mutex_;
  std::set<std::uint32_t> reported_;
};

// How many points ahead the second pass fetches the cells.
constexpr long long Ahead = 64;

void prefetch(const Run& run, const CellPlace& place) {
  if (place.fragment >= CellPlace::NoFragment)
    return;
  const PreparedCells& cells = run.raster[place.fragment];
  if (!cells.missing.empty())
    return;
  __builtin_prefetch(cells.planes->data() + place.cell);
  if (!run.box.height)
    __builtin_prefetch(cells.types->data() + place.cell);
}

// The second pass over one point: the class tested again, then the bands or the height.
struct SecondPass {
  const Run& run;
  const CellPlace* places;
  const point* p;
  unsigned char* classes;
  float* heights;
  MissingReports& missing;

  void operator()(std::size_t i) const {
    const CellPlace place = places[i];
    if (place.fragment == CellPlace::Unmapped ||
        !run.classes.mapped(classes[i], run.log,
                            "ERROR CRC: constant class ... but still computing !? - class: "))
      return;
    if (place.fragment == CellPlace::NoFragment)
      return missing.report(run.log, place.fragment, "!raster");
    const PreparedCells& cells = run.raster[place.fragment];
    if (!cells.missing.empty())
      return missing.report(run.log, place.fragment, cells.missing);
    if (run.box.height)
      heights[i] = computeHeight(cells.planes->data()[place.cell], p[i]);
    else if (groundCell(cells.types->data()[place.cell]))
      assignBands(run.box, cells, place.cell, p[i], classes[i]);
  }
};

void secondPass(const SecondPass& pass, std::size_t n) {
  inStaticBlocks(n, maximumThreadsMinusOne(), [&](std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
      // The cells of points a little ahead (known from the first pass) are fetched while this
      // one is worked on.
      if (i + Ahead < end)
        prefetch(pass.run, pass.places[i + Ahead]);
      pass(i);
    }
  });
}

bool outsideRaster(const Run& run, const FragmentSlot& slot) {
  auto box = fragmentBBox(slot);
  if (!box || !run.box.raster_bbox)
    return false;
  const auto& r = *run.box.raster_bbox;
  const auto& c = run.box.cellsize;
  // The raster's cells reach half a cell beyond its outer centres on every side.
  const BoundingBox cells(point(r.min().x - c[0] / 2, r.min().y - c[1] / 2, r.min().z),
                          point(r.max().x + c[0] / 2, r.max().y + c[1] / 2, r.max().z));
  return !cells.inside(*box, Vantor::BoundingBox::IntersectsPlanar);
}

// Both passes over the n points p of a fragment whose outputs are classes and heights.
void mapPoints(const Run& run, const point* p, std::size_t n, unsigned char* classes,
               float* heights, std::vector<CellPlace>& buffer) {
  buffer.assign(n, CellPlace());
  CellPlace* places = buffer.data();
  forEachPoint(n, maximumThreadsMinusOne(), CheapPointGrain, [&](std::size_t i) {
    if (!run.classes.mapped(classes[i], run.log,
                            "ERROR: constant class ... but still computing !? - class: ") ||
        !run.raster.locate(p[i], places[i]))
      return;
    if (run.box.unclassify)
      classes[i] = 0;
  });
  MissingReports missing;
  secondPass({run, places, p, classes, heights, missing}, n);
}

// A fragment off the raster keeps its classes and gets NaN heights: its outputs are committed
// all the same, so that every field stays laid out like the positions.
void mapFragment(const Run& run, const FragmentSlot& slot, std::vector<CellPlace>& buffer) {
  auto xyz = fragmentArray<point>(*run.positions, slot);
  if (!xyz)
    return run.log.report("ERROR, no m_vertices");
  const std::size_t n = xyz->size();
  if (!run.classesCreated && !fragmentArray<unsigned char>(*run.classification, slot))
    return run.log.report("ERROR, no m_classification");
  FragmentOutput<unsigned char> cls(run.classification, slot.id, n);
  FragmentOutput<float> canopy(run.canopy, slot.id, run.canopy ? n : 0,
                               std::numeric_limits<float>::quiet_NaN());
  if (outsideRaster(run, slot))
    run.log.note("INFO, skip: a fragment off the raster");
  else
    mapPoints(run, xyz->data(), n, cls.data(), canopy.data(), buffer);
  cls.commit();
  if (run.canopy)
    canopy.commit();
}

void printRaster(const RasterCells& raster, const MapRasterOnPointCloudParameterBox& box) {
  const auto& f = raster.fragments();
  Basalt::Console() << "# of raster fragments: " << f[0] << "x" << f[1] << "x" << f[2];
  Basalt::Console() << "multi index of raster: " << box.rastersize[0] << "x" << box.rastersize[1]
                    << "x" << box.rastersize[2];
}

} // namespace

bool mapData(const StrongPtr<Grid>& pointCloud, const StrongPtr<Grid>& raster,
             const MapRasterOnPointCloudParameterBox& box) {
  Messages log(RasterTag);
  const ClassTable classes(box.constantclasses, computingClasses(box));
  if (!findChart(pointCloud, log, "ERROR: no world chart"))
    return false;
  auto positions = findPositions(pointCloud, log, "ERROR: no f_vertices found");
  if (!positions)
    return false;
  const auto fragments = fragmentsOf(*positions);
  std::size_t points = 0;
  for (const FragmentSlot& slot : fragments)
    if (auto xyz = fragmentArray<point>(*positions, slot))
      points += xyz->size();
  if (points == 0)
    return log.report("ERROR: pointcloud grid empty"), false;
  const bool created = !findOptionalField(pointCloud, "Classification");
  auto classification = outputField<unsigned char>(pointCloud, "Classification");
  if (!classification || !raster)
    return log.report(!raster ? "!raster" : "ERROR: no f_classification"), false;
  const RasterCells cells(*raster, box);
  printRaster(cells, box);
  const Run run{box,
                cells,
                classes,
                positions,
                classification,
                box.height ? outputField<float>(pointCloud, "CanopyHeight") : nullptr,
                created,
                log};
  std::vector<CellPlace> places; // kept between fragments, so that none allocates
  for (std::size_t k = 0; k < fragments.size(); ++k) {
    Basalt::Console::write("mapData: " + std::to_string(k + 1) + " / " +
                           std::to_string(fragments.size()) + "            \r");
    mapFragment(run, fragments[k], places);
  }
  return true;
}

} // namespace Quorvel
