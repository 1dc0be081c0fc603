// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: LAS and LAZ point records read in batches, the pages and chunks passed let go.
#include "io/detail/chunk_bounds.hpp"
#include "io/detail/copc.hpp"
#include "io/detail/las_file.hpp"
#include "io/detail/las_output.hpp"
#include "io/stream.hpp"
#include "quorvel/core/parallel.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <set>
#include <stdexcept>

namespace Quorvel::Las {

namespace {

// Bytes of records a batch holds: large enough that the per-batch work is lost in the records'
// own, small enough to stay far below any file's size.
constexpr std::size_t BatchBytes = std::size_t(8) << 20;

} // namespace

Box boxOf(const std::vector<double>& v) {
  if (v.size() != 4 && v.size() != 6)
    throw std::invalid_argument("takes X0,Y0,X1,Y1 or X0,Y0,X1,Y1,Z0,Z1, not " +
                                std::to_string(v.size()) + " numbers");
  if (!std::all_of(v.begin(), v.end(), [](double x) { return std::isfinite(x); }))
    throw std::invalid_argument("takes finite numbers");
  if (v[0] > v[2] || v[1] > v[3] || (v.size() == 6 && v[4] > v[5]))
    throw std::invalid_argument("needs each lower edge at or below the upper one");
  Box box{v[0], v[1], v[2], v[3], std::nullopt};
  if (v.size() == 6)
    box.z = std::array<double, 2>{v[4], v[5]};
  return box;
}

struct Reader::Impl {
  Impl(const std::string& p, const Warn& warn)
      : in(p, true, warn), path(p), key(detail::FileKey::of(p)) {
    if (in.laz)
      for (std::size_t k = 0; k < in.laz->chunks().size(); ++k)
        order.push_back(k);
  }

  detail::OpenedFile in;
  std::string path;
  std::optional<detail::FileKey> key;
  std::optional<Box> box;
  std::uint64_t nextPoint = 0;    // LAS: the first record of the next batch
  std::size_t nextChunk = 0;      // LAZ: the place in order of the next chunk to decode
  std::vector<std::size_t> order; // LAZ: the chunks to decode, in file order
  detail::Bytes decoded, kept;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> passed; // file bytes of the last batch

  Batch records();
  Batch chunks();
  Batch inBox(Batch all);
  void noteBounds(const std::vector<std::size_t>& group);
  bool fromKnownBounds(const Box& box);
};

Batch Reader::Impl::records() {
  const std::size_t length = in.info.header.recordLength;
  const std::uint64_t left = in.pointCount - nextPoint;
  const std::size_t count = static_cast<std::size_t>(
      std::min<std::uint64_t>(left, std::max<std::size_t>(BatchBytes / length, 1)));
  const std::uint64_t from = in.info.header.pointOffset + nextPoint * length;
  passed.assign(1, {from, from + count * length});
  const Batch batch{in.records + nextPoint * length, count};
  nextPoint += count;
  return batch;
}

Batch Reader::Impl::chunks() {
  const std::size_t length = in.info.header.recordLength;
  const auto& all = in.laz->chunks();
  std::vector<std::size_t> group;
  std::uint64_t points = 0;
  // At least a chunk per thread, so that every thread decodes.
  const auto threads = static_cast<std::size_t>(allThreads());
  while (nextChunk < order.size() && (group.size() < threads || points * length < BatchBytes)) {
    group.push_back(order[nextChunk++]);
    points += all[group.back()].points;
  }
  passed.clear();
  for (const std::size_t k : group)
    passed.emplace_back(all[k].start, all[k].start + all[k].bytes);
  decoded.resize(static_cast<std::size_t>(points) * length);
  in.decoding([&] { in.laz->decode(group, decoded.data()); });
  noteBounds(group);
  return {decoded.data(), static_cast<std::size_t>(points)};
}

// Notes the bounds of the chunks just decoded, for later box reads of the file.
void Reader::Impl::noteBounds(const std::vector<std::size_t>& group) {
  if (!key)
    return;
  const Header& h = in.info.header;
  const std::size_t length = h.recordLength;
  const auto& all = in.laz->chunks();
  std::vector<std::pair<std::size_t, detail::Bounds>> bounds;
  const std::uint8_t* r = decoded.data();
  for (const std::size_t k : group) {
    detail::Bounds b{HUGE_VAL, HUGE_VAL, HUGE_VAL, -HUGE_VAL, -HUGE_VAL, -HUGE_VAL};
    for (std::uint64_t i = 0; i < all[k].points; ++i, r += length) {
      std::int32_t raw[3];
      std::memcpy(raw, r, 12);
      for (int a = 0; a < 3; ++a) { // as the box test computes them
        const double v = raw[a] * h.scale[a] + h.offset[a];
        b[a] = std::min(b[a], v);
        b[a + 3] = std::max(b[a + 3], v);
      }
    }
    bounds.emplace_back(k, b);
  }
  detail::noteBounds(*key, all.size(), bounds);
}

// Keeps only the chunks that can meet the box when an earlier read noted the bounds of all.
bool Reader::Impl::fromKnownBounds(const Box& box) {
  const auto bounds = key ? detail::knownBounds(*key, in.laz->chunks().size()) : std::nullopt;
  if (!bounds)
    return false;
  order.clear();
  for (std::size_t k = 0; k < bounds->size(); ++k) {
    const detail::Bounds& b = (*bounds)[k];
    if (b[0] <= box.x1 && b[3] >= box.x0 && b[1] <= box.y1 && b[4] >= box.y0 &&
        (!box.z || (b[2] <= (*box.z)[1] && b[5] >= (*box.z)[0])))
      order.push_back(k);
  }
  return true;
}

Batch Reader::Impl::inBox(Batch all) {
  const Header& h = in.info.header;
  const std::size_t length = h.recordLength;
  kept.resize(all.count * length);
  std::size_t n = 0;
  for (std::size_t i = 0; i < all.count; ++i) {
    const std::uint8_t* r = all.records + i * length;
    std::int32_t raw[3];
    std::memcpy(raw, r, 12);
    if (box->contains(raw[0] * h.scale[0] + h.offset[0], raw[1] * h.scale[1] + h.offset[1],
                      raw[2] * h.scale[2] + h.offset[2]))
      std::memcpy(kept.data() + n++ * length, r, length);
  }
  return {kept.data(), n};
}

Reader::Reader(const std::string& path, const Warn& warn)
    : impl_(std::make_unique<Impl>(path, warn)) {}

Reader::~Reader() = default;

const std::string& Reader::path() const {
  return impl_->path;
}

const FileInfo& Reader::info() const {
  return impl_->in.info;
}

bool Reader::compressed() const {
  return impl_->in.laz.has_value();
}

void Reader::restrict(const Box& box) {
  Impl& m = *impl_;
  m.box = box;
  if (!m.in.laz)
    return;
  const auto hierarchy =
      Copc::copcHierarchy(m.path, m.in.file.size(), [&m](std::uint64_t offset, std::uint64_t size) {
        return std::vector<std::uint8_t>(m.in.file.data() + offset,
                                         m.in.file.data() + offset + size);
      });
  if (!hierarchy) {
    m.fromKnownBounds(box);
    return;
  }
  // Only the chunks of the nodes that meet the box, grown by a step of the integer coordinates
  // so that a point on a node's face is never lost to the rounding of the node's cube.
  const auto& scale = m.in.info.header.scale;
  Copc::Box wanted;
  wanted.min = {box.x0 - scale[0], box.y0 - scale[1], box.z ? (*box.z)[0] - scale[2] : -HUGE_VAL};
  wanted.max = {box.x1 + scale[0], box.y1 + scale[1], box.z ? (*box.z)[1] + scale[2] : HUGE_VAL};
  std::set<std::uint64_t> starts;
  for (const Copc::Node& node : Copc::nodesMeeting(*hierarchy, wanted))
    starts.insert(node.offset);
  m.order.clear();
  const auto& chunks = m.in.laz->chunks();
  for (std::size_t k = 0; k < chunks.size(); ++k)
    if (starts.count(chunks[k].start))
      m.order.push_back(k);
}

Batch Reader::next() {
  Impl& m = *impl_;
  for (const auto& [from, to] : m.passed)
    m.in.file.release(from, to);
  m.passed.clear();
  for (;;) {
    const bool more = m.in.laz ? m.nextChunk < m.order.size() : m.nextPoint < m.in.pointCount;
    if (!more) { // a reader read to its end keeps no memory while others go on
      m.decoded = {};
      m.kept = {};
      return {};
    }
    const Batch all =
        m.in.laz ? reading(m.path, "its points", [&m] { return m.chunks(); }) : m.records();
    if (!m.box)
      return all;
    const Batch some = m.inBox(all);
    if (some.count > 0)
      return some;
    for (const auto& [from, to] : m.passed)
      m.in.file.release(from, to);
  }
}

} // namespace Quorvel::Las
