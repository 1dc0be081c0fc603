// Quorvel: thinning a point cloud by its "Weights" into a new grid and a new file.
#include "quorvel/core/core.hpp"
#include "quorvel/features/features.hpp"

#include "basalt/Text.hpp"
#include "io/files.hpp"
#include "tressel/PointCloud.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>

namespace Quorvel {

using Box = PointCloudSizeReductionParameterBox;

void PointCloudSizeReductionParameterBox::print() const {
  printField("keep: ", keep);
  printField("threshold: ", threshold);
  printField("keep unweighted: ", keep_unweighted);
}

namespace {

// The indices, ascending, of the points of one fragment that the box keeps.
std::vector<std::size_t> keptPoints(const float* w, std::size_t n, const Box& box) {
  std::vector<std::size_t> kept;
  const auto unweighted = [&](std::size_t i) { return box.keep_unweighted && w[i] < 0; };
  if (!std::isnan(box.threshold)) {
    for (std::size_t i = 0; i < n; ++i)
      if (w[i] >= box.threshold || unweighted(i))
        kept.push_back(i);
    return kept;
  }
  // The share of the fragment's points, highest weights first (earlier points first on ties),
  // among the points with a weight.
  std::vector<std::size_t> weighted;
  for (std::size_t i = 0; i < n; ++i)
    if (w[i] >= 0)
      weighted.push_back(i);
  const auto wanted =
      std::min(weighted.size(), static_cast<std::size_t>(std::llround(box.keep * double(n))));
  const auto heavier = [&](std::size_t a, std::size_t b) {
    return w[a] > w[b] || (w[a] == w[b] && a < b);
  };
  std::nth_element(weighted.begin(), weighted.begin() + static_cast<std::ptrdiff_t>(wanted),
                   weighted.end(), heavier);
  weighted.resize(wanted);
  for (std::size_t i = 0; i < n; ++i)
    if (unweighted(i))
      weighted.push_back(i);
  std::sort(weighted.begin(), weighted.end());
  return weighted;
}

// Copies the kept elements of every fragment of a field into the new cloud's arrays.
void copyField(const Field& field, const std::vector<FragmentSlot>& slots,
               const std::vector<std::vector<std::size_t>>& kept, Tressel::FragmentArrays& out,
               const std::string& name) {
  const auto& type = *field.getElementType();
  const std::size_t size = type.size();
  const std::vector<std::uint8_t*> to = out.addField(name, type.name());
  for (std::size_t k = 0; k < slots.size(); ++k) {
    const auto data = field.getData(*slots[k].id);
    if (!data)
      throw std::runtime_error("field " + name + " has no values in a fragment");
    const auto* from = static_cast<const std::uint8_t*>(data->myChunk()->rawData());
    for (std::size_t j = 0; j < kept[k].size(); ++j)
      std::memcpy(to[k] + j * size, from + kept[k][j] * size, size);
  }
}

// A tiled read numbers the points by their place in the file; the kept ones are numbered again,
// 0 up in the same order, so that the file order survives and has no gaps.
void renumber(Tressel::Grid& grid) {
  auto field = grid(Tressel::StandardCartesianChart3D, "PointIndex");
  if (!field || field->getElementType() != &Tressel::TresselType<unsigned long long>())
    return;
  std::vector<unsigned long long*> arrays;
  std::vector<std::size_t> sizes;
  std::vector<unsigned long long> all;
  for (const FragmentSlot& slot : fragmentsOf(*field))
    if (auto a = fragmentArray<unsigned long long>(*field, slot)) {
      arrays.push_back(a->data());
      sizes.push_back(a->size());
      all.insert(all.end(), a->data(), a->data() + a->size());
    }
  std::sort(all.begin(), all.end());
  for (std::size_t k = 0; k < arrays.size(); ++k)
    for (std::size_t j = 0; j < sizes[k]; ++j)
      arrays[k][j] = static_cast<unsigned long long>(
          std::lower_bound(all.begin(), all.end(), arrays[k][j]) - all.begin());
}

} // namespace

StrongPtr<Grid> reducedPointCloud(const StrongPtr<Grid>& grid, Box& box) {
  Messages log("reduceSizeOfPointCloud: ", &box.message);
  const auto positions = findPositions(grid, log, "ERROR: no f_vertices");
  const auto weights = positions ? findField(grid, "Weights", log, "ERROR: no f_weights") : nullptr;
  if (!weights)
    return nullptr;
  if (std::isnan(box.threshold) && !(box.keep >= 0 && box.keep <= 1)) {
    log.report("ERROR: keep must lie between 0 and 1");
    return nullptr;
  }
  const std::vector<FragmentSlot> slots = fragmentsOf(*positions);
  std::vector<std::vector<std::size_t>> kept;
  std::vector<std::size_t> sizes;
  for (const FragmentSlot& slot : slots) {
    const auto xyz = fragmentArray<point>(*positions, slot);
    const auto w = fragmentArray<float>(*weights, slot);
    if (!xyz || !w || w->size() != xyz->size()) {
      log.report("ERROR: no m_weights of every point");
      return nullptr;
    }
    kept.push_back(keptPoints(w->data(), w->size(), box));
    sizes.push_back(kept.back().size());
  }
  Tressel::FragmentArrays cloud(sizes);
  const auto rep = grid->getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  copyField(*positions, slots, kept, cloud, Tressel::PositionsFieldName);
  for (const auto& [id, field] : rep->snapshot())
    if (field && field->getElementType() && id->Name() != Tressel::PositionsFieldName)
      copyField(*field, slots, kept, cloud, id->Name());
  auto reduced = cloud.build(grid->Name());
  reduced->attributes() = grid->attributes();
  renumber(*reduced);
  return reduced;
}

std::string reduceSizeOfPointCloud(const StrongPtr<Grid>& grid, Box& box, const std::string& path) {
  Messages log("reduceSizeOfPointCloud: ", &box.message);
  try {
    const auto reduced = reducedPointCloud(grid, box);
    if (!reduced)
      return box.message;
    Files::save(path, reduced);
    std::size_t in = 0, out = 0;
    for (const auto& slot : fragmentsOf(*grid->CartesianPositions()))
      in += slot.creator && slot.creator->peekData() ? slot.creator->peekData()->nElements() : 0;
    for (const auto& slot : fragmentsOf(*reduced->CartesianPositions()))
      out += slot.creator->peekData()->nElements();
    return "reduced " + std::to_string(in) + " points to " + std::to_string(out) + " (" +
           Basalt::format("%.1f", in > 0 ? 100.0 * double(out) / double(in) : 0.0) + "%)";
  } catch (const std::exception& e) {
    log.report(std::string("ERROR: ") + e.what());
    return std::string("ERROR: ") + e.what();
  }
}

} // namespace Quorvel
