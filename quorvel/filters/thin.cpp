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

// Voxel keys of the points in file order, as (key, flat number) sorted by key, file order kept
// among equal keys. Non-finite points get no voxel.
std::vector<std::pair<std::uint64_t, std::uint32_t>> voxelKeys(const Flat& flat, double size,
                                                               bool& fits) {
  std::vector<std::array<std::int64_t, 3>> cells;
  std::vector<std::uint32_t> who;
  std::array<std::int64_t, 3> lo{}, hi{};
  lo.fill(std::numeric_limits<std::int64_t>::max());
  hi.fill(std::numeric_limits<std::int64_t>::min());
  for (const std::uint32_t i : flat.order) {
    const point& p = flat.at(i);
    std::array<std::int64_t, 3> c{};
    bool finite = true;
    for (int a = 0; a < 3; ++a) {
      const double v = std::floor(p[a] / size);
      finite = finite && std::isfinite(v) && std::abs(v) < 4e18;
      c[static_cast<std::size_t>(a)] = finite ? static_cast<std::int64_t>(v) : 0;
    }
    if (!finite)
      continue;
    for (std::size_t a = 0; a < 3; ++a) {
      lo[a] = std::min(lo[a], c[a]);
      hi[a] = std::max(hi[a], c[a]);
    }
    cells.push_back(c);
    who.push_back(i);
  }
  int bits[3] = {0, 0, 0};
  for (std::size_t a = 0; a < 3 && !cells.empty(); ++a)
    bits[a] = std::bit_width(static_cast<std::uint64_t>(hi[a] - lo[a]));
  fits = bits[0] + bits[1] + bits[2] <= 64;
  std::vector<std::pair<std::uint64_t, std::uint32_t>> keyed(cells.size());
  if (fits) {
    for (std::size_t j = 0; j < cells.size(); ++j) {
      std::uint64_t key = 0;
      for (std::size_t a = 0; a < 3; ++a)
        key = (bits[a] ? key << bits[a] : key) | static_cast<std::uint64_t>(cells[j][a] - lo[a]);
      keyed[j] = {key, who[j]};
    }
    sortByKey(keyed);
    return keyed;
  }
  // Too wide for one word: the rank of the cell among all cells serves as its key.
  std::vector<std::uint32_t> byCell(cells.size());
  std::iota(byCell.begin(), byCell.end(), 0u);
  std::stable_sort(byCell.begin(), byCell.end(),
                   [&](std::uint32_t a, std::uint32_t b) { return cells[a] < cells[b]; });
  std::uint64_t rank = 0;
  for (std::size_t j = 0; j < byCell.size(); ++j) {
    rank += j > 0 && cells[byCell[j]] != cells[byCell[j - 1]];
    keyed[j] = {rank, who[byCell[j]]};
  }
  fits = true;
  return keyed;
}

// How much worse a point is than another for a voxel's choice (lower wins).
double voxelScore(const point& p, const std::string& keep, double size) {
  if (keep == "lowest")
    return p.z;
  if (keep == "highest")
    return -p.z;
  if (keep == "centre") {
    double s = 0.0;
    for (int a = 0; a < 3; ++a) {
      const double d = p[a] - (std::floor(p[a] / size) + 0.5) * size;
      s += d * d;
    }
    return s;
  }
  return 0.0; // first: the first in file order
}

std::vector<std::uint32_t> keptByVoxel(const Flat& flat, const ThinParameterBox& box) {
  bool fits = false;
  const auto keyed = voxelKeys(flat, box.voxel, fits);
  std::vector<std::uint32_t> kept;
  for (std::size_t j = 0; j < keyed.size();) {
    std::size_t best = j;
    double score = voxelScore(flat.at(keyed[j].second), box.keep, box.voxel);
    std::size_t e = j + 1;
    for (; e < keyed.size() && keyed[e].first == keyed[j].first; ++e)
      if (box.keep != "first") {
        const double s = voxelScore(flat.at(keyed[e].second), box.keep, box.voxel);
        if (s < score) {
          score = s;
          best = e;
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
  std::vector<std::uint32_t> kept = keptPoints(flat, box);
  std::sort(kept.begin(), kept.end());
  std::vector<std::vector<std::size_t>> chosen(flat.slots.size());
  std::size_t k = 0;
  for (const std::uint32_t i : kept) {
    while (k + 1 < flat.start.size() && flat.start[k + 1] <= i)
      ++k;
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
