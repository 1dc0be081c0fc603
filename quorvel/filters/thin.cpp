// Quorvel: thinning a cloud by voxels, at random or to every N-th point, in file order.
#include "quorvel/filters/filters.hpp"

#include "quorvel/core/core.hpp"
#include "quorvel/spatial/spatial.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <numeric>

namespace Quorvel {

void ThinParameterBox::print() const {
  printFields(*this);
}

namespace {

// The points of every fragment, numbered flat in layout order, and their file order.
struct Flat {
  std::vector<FragmentSlot> slots;
  std::vector<std::size_t> start;   // flat number of each fragment's first point
  std::vector<const point*> xyz;    // each fragment's positions
  std::vector<std::uint32_t> order; // flat numbers in file order
  const point& at(std::uint32_t i) const {
    const std::size_t k =
        static_cast<std::size_t>(std::upper_bound(start.begin(), start.end(), i) - start.begin()) -
        1;
    return xyz[k][i - start[k]];
  }
};

// File order is "PointIndex" where a tiled read left it, else layout order.
Flat flatten(const StrongPtr<Grid>& grid, const Field& positions) {
  Flat flat;
  flat.slots = fragmentsOf(positions);
  const auto indices = findOptionalField(grid, "PointIndex");
  std::vector<std::uint64_t> places;
  std::size_t n = 0;
  for (const FragmentSlot& slot : flat.slots) {
    const auto xyz = fragmentArray<point>(positions, slot);
    flat.start.push_back(n);
    flat.xyz.push_back(xyz ? xyz->data() : nullptr);
    const std::size_t size = xyz ? xyz->size() : 0;
    const auto index = indices ? fragmentArray<unsigned long long>(*indices, slot) : nullptr;
    if (index && index->size() == size)
      places.insert(places.end(), index->data(), index->data() + size);
    n += size;
  }
  flat.order.resize(n);
  std::iota(flat.order.begin(), flat.order.end(), 0u);
  if (places.size() == n && flat.slots.size() > 1)
    std::stable_sort(flat.order.begin(), flat.order.end(),
                     [&](std::uint32_t a, std::uint32_t b) { return places[a] < places[b]; });
  return flat;
}

// The i-th number of a SplitMix64 sequence started at seed.
std::uint64_t splitMix(std::uint64_t seed, std::uint64_t i) {
  std::uint64_t z = seed + (i + 1) * 0x9E3779B97F4A7C15ull;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// The voxel of a point, false for a point without one (not finite or too far out).
bool voxelOf(const point& p, double size, std::array<std::int64_t, 3>& c) {
  for (int a = 0; a < 3; ++a) {
    const double v = std::floor(p[a] / size);
    if (!std::isfinite(v) || std::abs(v) >= 4e18)
      return false;
    c[static_cast<std::size_t>(a)] = static_cast<std::int64_t>(v);
  }
  return true;
}

// Voxel keys when the voxels' span is too wide for one word: the rank of each point's voxel among
// all voxels serves as its key.
std::vector<std::pair<std::uint64_t, std::uint32_t>> rankedVoxels(const Flat& flat, double size) {
  std::vector<std::array<std::int64_t, 3>> cells;
  std::vector<std::uint32_t> who;
  for (const std::uint32_t i : flat.order)
    if (std::array<std::int64_t, 3> c{}; voxelOf(flat.at(i), size, c)) {
      cells.push_back(c);
      who.push_back(i);
    }
  std::vector<std::uint32_t> byCell(cells.size());
  std::iota(byCell.begin(), byCell.end(), 0u);
  std::stable_sort(byCell.begin(), byCell.end(),
                   [&](std::uint32_t a, std::uint32_t b) { return cells[a] < cells[b]; });
  std::vector<std::pair<std::uint64_t, std::uint32_t>> keyed(cells.size());
  std::uint64_t rank = 0;
  for (std::size_t j = 0; j < byCell.size(); ++j) {
    rank += j > 0 && cells[byCell[j]] != cells[byCell[j - 1]];
    keyed[j] = {rank, who[byCell[j]]};
  }
  return keyed;
}

// Voxel keys of the points in file order, as (key, flat number) sorted by key, file order kept
// among equal keys. Non-finite points get no voxel. A first pass finds the voxels' span, a second
// packs each point's voxel into one word, so no voxel is stored per point.
std::vector<std::pair<std::uint64_t, std::uint32_t>> voxelKeys(const Flat& flat, double size) {
  std::array<std::int64_t, 3> lo{}, hi{}, c{};
  lo.fill(std::numeric_limits<std::int64_t>::max());
  hi.fill(std::numeric_limits<std::int64_t>::min());
  std::size_t count = 0;
  for (const std::uint32_t i : flat.order)
    if (voxelOf(flat.at(i), size, c)) {
      ++count;
      for (std::size_t a = 0; a < 3; ++a) {
        lo[a] = std::min(lo[a], c[a]);
        hi[a] = std::max(hi[a], c[a]);
      }
    }
  int bits[3] = {0, 0, 0};
  for (std::size_t a = 0; a < 3 && count > 0; ++a)
    bits[a] = std::bit_width(static_cast<std::uint64_t>(hi[a] - lo[a]));
  if (bits[0] + bits[1] + bits[2] > 64)
    return rankedVoxels(flat, size);
  std::vector<std::pair<std::uint64_t, std::uint32_t>> keyed;
  keyed.reserve(count);
  for (const std::uint32_t i : flat.order)
    if (voxelOf(flat.at(i), size, c)) {
      std::uint64_t key = 0;
      for (std::size_t a = 0; a < 3; ++a)
        key = (bits[a] ? key << bits[a] : key) | static_cast<std::uint64_t>(c[a] - lo[a]);
      keyed.emplace_back(key, i);
    }
  sortByKey(keyed);
  return keyed;
}

enum class Keep { First, Lowest, Highest, Centre };

Keep keepOf(const std::string& keep) {
  if (keep == "lowest")
    return Keep::Lowest;
  if (keep == "highest")
    return Keep::Highest;
  return keep == "centre" ? Keep::Centre : Keep::First;
}

// How much worse a point is than another for a voxel's choice (lower wins).
double voxelScore(const point& p, Keep keep, double size) {
  switch (keep) {
  case Keep::Lowest:
    return p.z;
  case Keep::Highest:
    return -p.z;
  case Keep::Centre: {
    double s = 0.0;
    for (int a = 0; a < 3; ++a) {
      const double d = p[a] - (std::floor(p[a] / size) + 0.5) * size;
      s += d * d;
    }
    return s;
  }
  case Keep::First:
    break;
  }
  return 0.0; // the first in file order
}

std::vector<std::uint32_t> keptByVoxel(const Flat& flat, const ThinParameterBox& box) {
  const auto keyed = voxelKeys(flat, box.voxel);
  const Keep keep = keepOf(box.keep);
  std::vector<std::uint32_t> kept;
  for (std::size_t j = 0; j < keyed.size();) {
    std::size_t best = j;
    std::size_t e = j + 1;
    if (keep == Keep::First) {
      while (e < keyed.size() && keyed[e].first == keyed[j].first)
        ++e;
    } else {
      double score = voxelScore(flat.at(keyed[j].second), keep, box.voxel);
      for (; e < keyed.size() && keyed[e].first == keyed[j].first; ++e) {
        const double s = voxelScore(flat.at(keyed[e].second), keep, box.voxel);
        if (s < score) {
          score = s;
          best = e;
        }
      }
    }
    kept.push_back(keyed[best].second);
    j = e;
  }
  return kept;
}

std::vector<std::uint32_t> keptPoints(const Flat& flat, const ThinParameterBox& box) {
  std::vector<std::uint32_t> kept;
  if (box.mode == "voxel")
    return keptByVoxel(flat, box);
  if (box.mode == "random") {
    const double f = std::clamp(box.fraction, 0.0, 1.0);
    // Below 1, f * 2^64 is at most 2^64 - 2^11: it fits the word.
    const std::uint64_t below = f >= 1.0 ? 0 : static_cast<std::uint64_t>(std::ldexp(f, 64));
    for (std::size_t r = 0; r < flat.order.size(); ++r)
      if (f >= 1.0 || splitMix(box.seed, r) < below)
        kept.push_back(flat.order[r]);
    return kept;
  }
  const auto step = static_cast<std::size_t>(std::max<std::int64_t>(box.every, 1));
  for (std::size_t r = 0; r < flat.order.size(); r += step)
    kept.push_back(flat.order[r]);
  return kept;
}

} // namespace

StrongPtr<Grid> thin(const StrongPtr<Grid>& grid, ThinParameterBox& box) {
  Messages log("Thin: ", &box.message);
  const auto positions = findPositions(grid, log, "ERROR: no f_vertices");
  if (!positions)
    return nullptr;
  if (box.mode != "voxel" && box.mode != "random" && box.mode != "every") {
    log.report("ERROR: unknown mode \"" + box.mode + "\" (voxel, random or every)");
    return nullptr;
  }
  const Flat flat = flatten(grid, *positions);
  // The kept points in layout order: marks over the flat numbers, read fragment by fragment.
  std::vector<std::uint8_t> marked(flat.order.size(), 0);
  for (const std::uint32_t i : keptPoints(flat, box))
    marked[i] = 1;
  std::vector<std::vector<std::size_t>> chosen(flat.slots.size());
  for (std::size_t k = 0; k < flat.slots.size(); ++k) {
    const std::size_t end = k + 1 < flat.start.size() ? flat.start[k + 1] : marked.size();
    for (std::size_t i = flat.start[k]; i < end; ++i)
      if (marked[i])
        chosen[k].push_back(i - flat.start[k]);
  }
  try {
    return subsetOf(*grid, flat.slots, chosen, true);
  } catch (const std::exception& e) {
    log.report(std::string("ERROR: ") + e.what());
    return nullptr;
  }
}

} // namespace Quorvel
