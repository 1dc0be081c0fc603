// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: thinning a cloud by voxels, at random or to every N-th point, in file order.
#include "quorvel/filters/filters.hpp"

#include "quorvel/core/core.hpp"
#include "quorvel/spatial/spatial.hpp"

#include "basalt/radix_sort.hpp"

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
  std::size_t count = 0;            // points in all
  std::vector<std::uint32_t> order; // flat numbers in file order; empty where that is layout order
  bool inLayoutOrder() const { return order.empty(); }
  // The flat number of the point of rank r in file order.
  std::uint32_t inFile(std::size_t r) const {
    return inLayoutOrder() ? static_cast<std::uint32_t>(r) : order[r];
  }
  std::size_t size(std::size_t k) const {
    return (k + 1 < start.size() ? start[k + 1] : count) - start[k];
  }
  const point& at(std::uint32_t i) const {
    const std::size_t k =
        static_cast<std::size_t>(std::upper_bound(start.begin(), start.end(), i) - start.begin()) -
        1;
    return xyz[k][i - start[k]];
  }
};

// File order is "PointIndex" where a tiled read left it, else layout order (kept implicit: a
// cloud of one fragment needs no list of its numbers).
Flat flatten(const StrongPtr<Grid>& grid, const Field& positions) {
  Flat flat;
  flat.slots = fragmentsOf(positions);
  const auto indices = findOptionalField(grid, "PointIndex");
  std::vector<std::uint64_t> places;
  for (const FragmentSlot& slot : flat.slots) {
    const auto xyz = fragmentArray<point>(positions, slot);
    flat.start.push_back(flat.count);
    flat.xyz.push_back(xyz ? xyz->data() : nullptr);
    const std::size_t size = xyz ? xyz->size() : 0;
    const auto index = indices ? fragmentArray<unsigned long long>(*indices, slot) : nullptr;
    if (index && index->size() == size)
      places.insert(places.end(), index->data(), index->data() + size);
    flat.count += size;
  }
  if (places.size() != flat.count || flat.slots.size() <= 1)
    return flat;
  flat.order.resize(flat.count);
  std::iota(flat.order.begin(), flat.order.end(), 0u);
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
// Below 4e18 a quotient converts to a whole number exactly, so the floor is the truncation, one
// less where that rounded up (beyond 2^52 every double is whole and both agree with std::floor).
bool voxelOf(const point& p, double size, std::array<std::int64_t, 3>& c) {
  for (int a = 0; a < 3; ++a) {
    const double v = p[a] / size;
    if (!(std::abs(v) < 4e18))
      return false;
    const auto t = static_cast<std::int64_t>(v);
    c[static_cast<std::size_t>(a)] = static_cast<double>(t) > v ? t - 1 : t;
  }
  return true;
}

// Calls f(rank, flat number, position) for every point in file order; a cloud whose file order
// is its layout is walked fragment by fragment without looking fragments up.
template <class F>
void inFileOrder(const Flat& flat, const F& f) {
  if (!flat.inLayoutOrder()) {
    for (std::uint32_t r = 0; r < flat.order.size(); ++r)
      f(r, flat.order[r], flat.at(flat.order[r]));
    return;
  }
  for (std::size_t k = 0; k < flat.start.size(); ++k) {
    const auto begin = static_cast<std::uint32_t>(flat.start[k]);
    const auto end = static_cast<std::uint32_t>(begin + flat.size(k));
    for (std::uint32_t i = begin; i < end; ++i)
      f(i, i, flat.xyz[k][i - begin]);
  }
}

// The points' voxels, sorted: each item is a voxel's key above the point's rank in file order
// (rankBits low bits), sorted stably by key, so that a voxel's points lie together in file order.
struct SortedVoxels {
  Basalt::ArrayVector<std::uint64_t> items;
  int rankBits = 0;
  std::uint64_t key(std::size_t j) const { return items[j] >> rankBits; }
  std::uint32_t rank(std::size_t j) const {
    return static_cast<std::uint32_t>(items[j] & ((std::uint64_t{1} << rankBits) - 1));
  }
};

// Voxels spread too widely for their three coordinates and the rank to share one word: the rank
// of each voxel among all voxels serves as its key.
SortedVoxels rankedVoxels(const Flat& flat, double size, int rankBits) {
  std::vector<std::array<std::int64_t, 3>> cells;
  std::vector<std::uint32_t> who;
  inFileOrder(flat, [&](std::uint32_t r, std::uint32_t, const point& p) {
    if (std::array<std::int64_t, 3> c{}; voxelOf(p, size, c)) {
      cells.push_back(c);
      who.push_back(r);
    }
  });
  std::vector<std::uint32_t> byCell(cells.size());
  std::iota(byCell.begin(), byCell.end(), 0u);
  std::stable_sort(byCell.begin(), byCell.end(),
                   [&](std::uint32_t a, std::uint32_t b) { return cells[a] < cells[b]; });
  SortedVoxels sorted{Basalt::ArrayVector<std::uint64_t>(cells.size()), rankBits};
  std::uint64_t voxel = 0;
  for (std::size_t j = 0; j < byCell.size(); ++j) {
    voxel += j > 0 && cells[byCell[j]] != cells[byCell[j - 1]];
    sorted.items[j] = voxel << rankBits | who[byCell[j]];
  }
  return sorted;
}

// The box of the finite points, each fragment's on the threads.
BoundingBox finiteBounds(const Flat& flat, int threads) {
  BoundingBox box;
  for (std::size_t k = 0; k < flat.xyz.size(); ++k)
    box.expand(BoundingBox::of(flat.xyz[k], flat.size(k), threads));
  return box;
}

// The voxels of the points in file order, sorted. Non-finite points get no voxel. Floor and
// division keep the order of coordinates, so the voxels' span follows from the lowest and highest
// coordinates, and one pass packs each point's voxel and rank into one word: by blocks of each
// fragment on the threads where file order is layout order, so that the rank is the flat number.
SortedVoxels voxelKeys(const Flat& flat, double size, int threads) {
  const int rankBits = std::max(1, static_cast<int>(std::bit_width(flat.count)));
  const BoundingBox box = finiteBounds(flat, threads);
  std::array<std::int64_t, 3> lo{}, hi{};
  int bits[3] = {0, 0, 0};
  if (!box.empty() && (!voxelOf(box.min(), size, lo) || !voxelOf(box.max(), size, hi)))
    return rankedVoxels(flat, size, rankBits);
  for (std::size_t a = 0; a < 3; ++a)
    bits[a] = std::bit_width(static_cast<std::uint64_t>(hi[a] - lo[a]));
  if (bits[0] + bits[1] + bits[2] + rankBits > 64)
    return rankedVoxels(flat, size, rankBits);
  SortedVoxels sorted{{}, rankBits};
  const auto keyOf = [&](const std::array<std::int64_t, 3>& c, std::uint32_t r) {
    std::uint64_t key = 0;
    for (std::size_t a = 0; a < 3; ++a)
      key = (bits[a] ? key << bits[a] : key) | static_cast<std::uint64_t>(c[a] - lo[a]);
    return key << rankBits | r;
  };
  if (flat.inLayoutOrder()) {
    sorted.items.reserve(flat.count);
    for (std::size_t k = 0, first = 0; k < flat.xyz.size(); ++k) {
      const point* xyz = flat.xyz[k];
      first += packInBlocks(
          flat.size(k), threads,
          // Between the lowest and highest voxels, every finite point has one.
          [&](std::size_t i) { return xyz[i].isFinite(); },
          [&](std::size_t count) { sorted.items.resize(first + count); },
          [&](std::size_t i, std::size_t at) {
            std::array<std::int64_t, 3> c{};
            voxelOf(xyz[i], size, c);
            sorted.items[first + at] = keyOf(c, static_cast<std::uint32_t>(flat.start[k] + i));
          });
    }
  } else {
    inFileOrder(flat, [&](std::uint32_t r, std::uint32_t, const point& p) {
      if (std::array<std::int64_t, 3> c{}; voxelOf(p, size, c))
        sorted.items.push_back(keyOf(c, r));
    });
  }
  // Digits of 8 bits keep the 256 places a pass writes to in the first-level cache.
  Basalt::ArrayVector<std::uint64_t> buffer;
  Basalt::radixSort(
      sorted.items.data(), sorted.items.size(), rankBits, rankBits + bits[0] + bits[1] + bits[2],
      [](std::uint64_t item) { return item; }, buffer, 8, threads);
  return sorted;
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

// The end of the voxel whose items begin at j, and the item it keeps: the first in file order,
// or the lowest score, the first of equal ones.
std::pair<std::size_t, std::size_t> voxelAt(const Flat& flat, const SortedVoxels& voxels,
                                            std::size_t j, Keep keep, double size) {
  const std::size_t n = voxels.items.size();
  std::size_t best = j, e = j + 1;
  if (keep == Keep::First) {
    while (e < n && voxels.key(e) == voxels.key(j))
      ++e;
    return {e, best};
  }
  double score = voxelScore(flat.at(flat.inFile(voxels.rank(j))), keep, size);
  for (; e < n && voxels.key(e) == voxels.key(j); ++e) {
    const double s = voxelScore(flat.at(flat.inFile(voxels.rank(e))), keep, size);
    if (s < score) {
      score = s;
      best = e;
    }
  }
  return {e, best};
}

// The point each voxel keeps, voxel after voxel. Each block of the sorted items on the threads
// takes the voxels that begin in it, wherever they end.
std::vector<std::uint32_t> keptByVoxel(const Flat& flat, const ThinParameterBox& box, int threads) {
  const SortedVoxels voxels = voxelKeys(flat, box.voxel, threads);
  const Keep keep = keepOf(box.keep);
  std::vector<std::vector<std::uint32_t>> parts(static_cast<std::size_t>(std::max(threads, 1)));
  inStaticBlocks(voxels.items.size(), threads,
                 [&](std::size_t j, std::size_t last, std::size_t part) {
                   while (j > 0 && j < last && voxels.key(j) == voxels.key(j - 1))
                     ++j;
                   while (j < last) {
                     const auto [end, best] = voxelAt(flat, voxels, j, keep, box.voxel);
                     parts[part].push_back(flat.inFile(voxels.rank(best)));
                     j = end;
                   }
                 });
  std::size_t count = 0;
  for (const auto& found : parts)
    count += found.size();
  std::vector<std::uint32_t> kept;
  kept.reserve(count);
  for (const auto& found : parts)
    kept.insert(kept.end(), found.begin(), found.end());
  return kept;
}

std::vector<std::uint32_t> keptPoints(const Flat& flat, const ThinParameterBox& box, int threads) {
  if (box.mode == "voxel")
    return keptByVoxel(flat, box, threads);
  std::vector<std::uint32_t> kept;
  if (box.mode == "random") {
    const double f = std::clamp(box.fraction, 0.0, 1.0);
    // Below 1, f * 2^64 is at most 2^64 - 2^11: it fits the word.
    const std::uint64_t below = f >= 1.0 ? 0 : static_cast<std::uint64_t>(std::ldexp(f, 64));
    packInBlocks(
        flat.count, threads,
        [&](std::size_t r) { return f >= 1.0 || splitMix(box.seed, r) < below; },
        [&](std::size_t count) { kept.resize(count); },
        [&](std::size_t r, std::size_t at) { kept[at] = flat.inFile(r); });
    return kept;
  }
  const auto step = static_cast<std::size_t>(std::max<std::int64_t>(box.every, 1));
  kept.resize((flat.count + step - 1) / step);
  inStaticBlocks(kept.size(), threads, [&](std::size_t b, std::size_t e) {
    for (std::size_t j = b; j < e; ++j)
      kept[j] = flat.inFile(j * step);
  });
  return kept;
}

} // namespace

std::optional<KeptPoints> keptByThin(const StrongPtr<Grid>& grid, ThinParameterBox& box) {
  Messages log("Thin: ", &box.message);
  const auto positions = findPositions(grid, log, "ERROR: no f_vertices");
  if (!positions)
    return std::nullopt;
  if (box.mode != "voxel" && box.mode != "random" && box.mode != "every") {
    log.report("ERROR: unknown mode \"" + box.mode + "\" (voxel, random or every)");
    return std::nullopt;
  }
  const Flat flat = flatten(grid, *positions);
  // A filter of the host's reading and writing: on all the run's threads, as they are.
  const int threads = allThreads();
  const std::vector<std::uint32_t> chosen = keptPoints(flat, box, threads);
  // The kept points in layout order: marks over the flat numbers, then each fragment's marked
  // points listed in blocks on the threads.
  Basalt::ArrayVector<std::uint8_t> marked(flat.count);
  inStaticBlocks(flat.count, threads, [&](std::size_t b, std::size_t e) {
    std::fill(marked.begin() + static_cast<std::ptrdiff_t>(b),
              marked.begin() + static_cast<std::ptrdiff_t>(e), std::uint8_t{0});
  });
  inStaticBlocks(chosen.size(), threads, [&](std::size_t b, std::size_t e) {
    for (std::size_t j = b; j < e; ++j)
      marked[chosen[j]] = 1;
  });
  KeptPoints kept{flat.slots, std::vector<std::vector<std::size_t>>(flat.slots.size())};
  for (std::size_t k = 0; k < flat.slots.size(); ++k) {
    const std::uint8_t* marks = marked.data() + flat.start[k];
    auto& indices = kept.indices[k];
    packInBlocks(
        flat.size(k), threads, [&](std::size_t i) { return marks[i] != 0; },
        [&](std::size_t count) { indices.resize(count); },
        [&](std::size_t i, std::size_t at) { indices[at] = i; });
  }
  return kept;
}

StrongPtr<Grid> thin(const StrongPtr<Grid>& grid, ThinParameterBox& box) {
  auto kept = keptByThin(grid, box);
  Messages log("Thin: ", &box.message);
  return keptCloud(*grid, kept, log);
}

} // namespace Quorvel
