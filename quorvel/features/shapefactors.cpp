// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: shape factors of point clouds. Per fragment: the points that the return and intensity
// filters select, a tree of them over the fragment's enlarged box, and per point one radius query
// whose ordered neighbours serve every scale.
#include "quorvel/core/core.hpp"
#include "quorvel/features/detail/shape.hpp"
#include "quorvel/features/features.hpp"
#include "quorvel/spatial/spatial.hpp"
#include "quorvel/terrain/detail/kernels.hpp"

#include "basalt/text.hpp"

#include <algorithm>

namespace Quorvel {

using Box = ShapeFactorComputationParameterBox;
using Vantor::PhysicalSpace::vector;

void ShapeFactorComputationParameterBox::print() const {
  printFields(*this);
}

namespace {

// The fields of one run, found once.
struct Fields {
  StrongPtr<Field> positions, intensity, lastReturn, returnNumber, numberOfReturns;
  StrongPtr<Field> planarity, linearity, sphericity, normal;
};

// One bit per point, bit i % 32 of word i / 32.
class Mask {
public:
  explicit Mask(std::size_t n) : words_((n + 31) / 32, ~0u) {}
  bool test(std::size_t i) const { return (words_[i / 32] >> (i % 32)) & 1u; }
  void set(std::size_t i) { words_[i / 32] |= 1u << (i % 32); }
  void clear(std::size_t i) { words_[i / 32] &= ~(1u << (i % 32)); }
  void clearAll() { std::fill(words_.begin(), words_.end(), 0u); }

private:
  std::vector<std::uint32_t> words_;
};

// The fragment's array of a field when it holds T for every point; empty otherwise.
template <class T>
StrongPtr<const MemArray<1, T>> pointArray(const StrongPtr<Field>& field, const FragmentSlot& slot,
                                           std::size_t n) {
  auto array = field ? fragmentArray<T>(*field, slot) : nullptr;
  return array && array->size() == n ? array : nullptr;
}

// Clears the bits of the points that the return filter leaves out; false (reported) when a
// filter array is missing or of another type.
bool filterReturns(const Fields& f, const FragmentSlot& slot, const Box& box, Mask& mask,
                   std::size_t n, Messages& log) {
  if (box.verbose)
    Basalt::Console() << "parameterbox.use_only_lastreturns or parameterbox.use_only_singlereturns";
  if (f.lastReturn) {
    const auto last = pointArray<unsigned char>(f.lastReturn, slot, n);
    if (!last)
      return log.report("ERROR: no m_lastreturn"), false;
    // First returns cannot be told from this field alone, so that flag has no effect here.
    for (std::size_t i = 0; i < n; ++i)
      if ((box.use_only_lastreturns && (*last)[i] == 0) ||
          (box.use_only_singlereturns && (*last)[i] <= 1))
        mask.clear(i);
    return true;
  }
  if (!f.returnNumber || !f.numberOfReturns)
    return true;
  const auto rn = pointArray<unsigned char>(f.returnNumber, slot, n);
  if (!rn)
    return log.report("ERROR: no m_returnnumber"), false;
  const auto nr = pointArray<unsigned char>(f.numberOfReturns, slot, n);
  if (!nr)
    return log.report("ERROR: no m_numberofreturns"), false;
  mask.clearAll();
  for (std::size_t i = 0; i < n; ++i)
    if ((box.use_only_lastreturns && (*rn)[i] == (*nr)[i]) ||
        (box.use_only_firstreturns && (*rn)[i] < 2) || (box.use_only_singlereturns && (*nr)[i] < 2))
      mask.set(i);
  return true;
}

// Clears the bits of the points whose intensity lies below the threshold (equal values stay).
bool filterIntensity(const Fields& f, const FragmentSlot& slot, const Box& box, Mask& mask,
                     std::size_t n, Messages& log) {
  if (box.verbose)
    Basalt::Console() << "parameterbox.intensity_threshold: " << box.intensity_threshold;
  if (!f.intensity)
    return log.report("ERROR: no f_intensity"), false;
  const auto values = pointArray<unsigned short>(f.intensity, slot, n);
  if (!values)
    return log.report("ERROR: no m_intensity"), false;
  for (std::size_t i = 0; i < n; ++i)
    if (static_cast<double>((*values)[i]) < box.intensity_threshold)
      mask.clear(i);
  return true;
}

// The fragment's box grown about its centre to 1.1 times its extent on every axis (a copy: the
// stored box stays as it is).
StrongPtr<BoundingBox> enlargedBox(const FragmentSlot& slot, const Box& box) {
  const auto stored = fragmentBBox(slot);
  if (!stored)
    return nullptr;
  auto grown = std::make_shared<BoundingBox>(*stored);
  if (!grown->empty()) {
    const point c = grown->center();
    const vector e = grown->extent();
    grown->setCorners(point(c.x - 0.55 * e.x, c.y - 0.55 * e.y, c.z - 0.55 * e.z),
                      point(c.x + 0.55 * e.x, c.y + 0.55 * e.y, c.z + 0.55 * e.z));
    grown->expand(*stored);
    grown->updateBall();
    if (box.verbose)
      for (const point& p : {grown->min(), grown->max()})
        Basalt::Console::write(Basalt::format("%.3f,%.3f,%.3f\n", p.x, p.y, p.z));
  }
  return grown;
}

// The result arrays of one fragment; arrays reused from an earlier run start from zero again.
struct Outputs {
  Outputs(const Fields& f, const Box& box, const StrongPtr<FragmentID>& id, std::size_t n,
          int threads)
      : planarity(f.planarity, id, n, 0.0f, threads),
        linearity(f.linearity, id, box.linearity ? n : 0, 0.0f, threads),
        sphericity(f.sphericity, id, box.sphericity ? n : 0, 0.0f, threads),
        normal(f.normal, id, box.normalvector ? n : 0, vector(0, 0, 0), threads) {
    zeroIfReused(planarity);
    zeroIfReused(linearity);
    zeroIfReused(sphericity);
    zeroIfReused(normal);
  }
  template <class T>
  static void zeroIfReused(FragmentOutput<T>& out) {
    if (out.reused())
      std::fill(out.data(), out.data() + out.size(), T{});
  }
  void commit(const Box& box) {
    planarity.commit();
    if (box.linearity)
      linearity.commit();
    if (box.sphericity)
      sphericity.commit();
    if (box.normalvector)
      normal.commit();
  }

  FragmentOutput<float> planarity, linearity, sphericity;
  FragmentOutput<vector> normal;
};

// The shape of the neighbourhood about p.
template <class Tree>
detail::PointShape shapeAt(const Tree& tree, const point* positions, const point& p, double radius,
                           const Box& box, detail::SortedNeighbours& neighbours) {
  tree.getEuclideanRangeSorted(p, radius, neighbours);
  return detail::shapeOfPoint(positions, p, neighbours, box.maxstep, box.step);
}

void storeShape(Outputs& out, const Box& box, std::size_t i, const detail::PointShape& s) {
  out.planarity[i] = s.planarity;
  if (box.linearity)
    out.linearity[i] = s.linearity;
  if (box.sphericity)
    out.sphericity[i] = s.sphericity;
  if (box.normalvector)
    out.normal[i] = s.normal;
}

void copyShape(Outputs& out, const Box& box, std::size_t copy, std::size_t first) {
  storeShape(out, box, copy,
             {out.planarity[first], box.linearity ? out.linearity[first] : 0.0f,
              box.sphericity ? out.sphericity[first] : 0.0f,
              box.normalvector ? out.normal[first] : vector{0, 0, 0}});
}

// Every selected point of the fragment, in runs of consecutive leaves of near-equal point counts
// computed in the tree's order, so that consecutive queries touch the same nodes and points.
// Eight runs a thread, taken one at a time, even out their costs where the density varies (a
// mobile scan on two threads: 142 to 122 ms against one run a thread). A point's shape depends
// on its position alone, so copies of a position (they share a leaf) take the first's, and no
// result depends on the threads or the runs.
template <int D>
void computePoints(const point* positions, std::size_t n, const Mask& mask, const BoundingBox& bbox,
                   const Box& box, Outputs& out, int threads) {
  constexpr unsigned Capacity = 64;
  Tarrow::OcTreeStd<unsigned, point, D> tree(bbox.min(), bbox.max(), Capacity);
  const auto positionOf = [&](unsigned i) { return positions[i]; };
  tree.insertEach(
      n, threads, [&](std::size_t i) { return mask.test(i); }, positionOf);
  const LeafRuns<unsigned> runs(tree, 8 * static_cast<std::size_t>(std::max(1, threads)));
  const double radius = static_cast<double>(box.maxstep) * box.step;
  std::vector<CopyPlan> plans(runs.runs());
  forEachItemWith(
      runs.runs(), threads, [] { return detail::SortedNeighbours(); },
      [&](detail::SortedNeighbours& neighbours, std::size_t run) {
        CopyPlan& plan = plans[run];
        for (std::size_t k = runs.cut[run]; k < runs.cut[run + 1]; ++k)
          separateCopies(runs.leaves[k].data(), runs.leaves[k].data() + runs.leaves[k].size(),
                         Capacity, positionOf, plan);
        for (const std::size_t i : plan.computing)
          storeShape(out, box, i, shapeAt(tree, positions, positions[i], radius, box, neighbours));
      });
  for (const CopyPlan& plan : plans)
    for (const auto& [copy, first] : plan.copies)
      copyShape(out, box, copy, first);
}

// One fragment: box, filters, tree, points, hand-over.
void computeFragment(const Fields& f, const FragmentSlot& slot, Box& box, Messages& log,
                     FragmentProgress& progress, int threads) {
  const auto xyz = fragmentArray<point>(*f.positions, slot);
  if (!xyz)
    return log.report("ERROR: no m_vertices");
  const std::size_t n = xyz->size();
  const auto bbox = enlargedBox(slot, box);
  if (!bbox)
    return log.report("ERROR, no fragment_bbox found");
  Mask mask(n);
  const bool returns =
      box.use_only_firstreturns || box.use_only_singlereturns || box.use_only_lastreturns;
  if (returns && !filterReturns(f, slot, box, mask, n, log))
    return;
  if (box.intensity_threshold > 0 && !filterIntensity(f, slot, box, mask, n, log))
    return;
  if (box.verbose)
    Basalt::Console() << "computePlanarity";
  Outputs out(f, box, slot.id, n, threads);
  if (box.dimension == 2)
    computePoints<2>(xyz->data(), n, mask, *bbox, box, out, threads);
  else
    computePoints<3>(xyz->data(), n, mask, *bbox, box, out, threads);
  out.commit(box);
  progress.step();
}

} // namespace

std::string shapeFactorComputation(const StrongPtr<Grid>& grid, Box& box,
                                   const StrongPtr<Basalt::LoaderProgress>&) {
  Messages log("ShapeFactorComputation: ", &box.message);
  const std::string& chart = box.chartname;
  if (!findChart(grid, log, "ERROR: no chart " + chart + " found", chart))
    return box.message;
  const auto rep =
      findRepresentation(grid, log, "ERROR: no representation " + chart + " found", chart);
  if (!rep)
    return box.message;
  Fields f;
  if (!(f.positions = findPositions(grid, log, "ERROR: no f_vertices", chart)))
    return box.message;
  f.intensity = findOptionalField(grid, "Amplitude", chart);
  if (!f.intensity)
    f.intensity = findOptionalField(grid, "Intensity", chart);
  f.returnNumber = findOptionalField(grid, "ReturnNumber", chart);
  f.numberOfReturns = findOptionalField(grid, "NumberOfReturns", chart);
  f.lastReturn = findOptionalField(grid, "LastReturn", chart);
  f.planarity = outputField<float>(*rep, "Planarity");
  if (box.linearity)
    f.linearity = outputField<float>(*rep, "Linearity");
  if (box.sphericity)
    f.sphericity = outputField<float>(*rep, "Sphericity");
  if (box.normalvector)
    f.normal = outputField<vector>(*rep, "NormalVector");
  // An output name already taken by a field of another element type ends the run.
  for (const auto& [field, name, asked] : {std::tuple{f.planarity, "Planarity", true},
                                           {f.linearity, "Linearity", box.linearity},
                                           {f.sphericity, "Sphericity", box.sphericity},
                                           {f.normal, "NormalVector", box.normalvector}})
    if (asked && !field) {
      log.report(std::string("ERROR: field ") + name + " exists with another element type");
      return box.message;
    }

  const std::vector<FragmentSlot> fragments = fragmentsOf(*f.positions);
  // Threads go to the fragments first; what one fragment's share leaves goes to its points.
  FragmentProgress progress(fragments.size(), "shapeFactorComputation: compute ", "       \r");
  forEachFragment(fragments.size(), maximumThreadsMinusOne(), log, [&](std::size_t k, int inner) {
    computeFragment(f, fragments[k], box, log, progress, inner);
  });
  return box.message;
}

} // namespace Quorvel
