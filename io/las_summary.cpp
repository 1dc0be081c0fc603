// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: a LAS file summarized from its header, its records and one pass over its points.
#include "io/detail/las_file.hpp"
#include "io/detail/las_header.hpp"
#include "io/detail/las_record.hpp"

#include <algorithm>
#include <cstring>
#include <limits>
#include <mutex>

namespace Quorvel::Las {

namespace {

using namespace detail;

// What the pass over the records gathers. Tallies of separate runs of records (the chunks of a
// LAZ file) merge into the tally of them all.
class Tally {
public:
  explicit Tally(const Header& h)
      : length_(h.recordLength), extended_(format(h.pointFormat).extended),
        gps_(format(h.pointFormat).gps) {
    lo_.fill(std::numeric_limits<std::int32_t>::max());
    hi_.fill(std::numeric_limits<std::int32_t>::min());
  }

  void add(const std::uint8_t* r, std::uint64_t count) {
    if (extended_)
      addRecords<ExtendedRecord>(r, count);
    else
      addRecords<LegacyRecord>(r, count);
    points_ += count;
  }

  void merge(const Tally& other) {
    for (std::size_t k = 0; k < 3; ++k) {
      lo_[k] = std::min(lo_[k], other.lo_[k]);
      hi_[k] = std::max(hi_[k], other.hi_[k]);
    }
    for (std::size_t c = 0; c < classCounts_.size(); ++c)
      classCounts_[c] += other.classCounts_[c];
    for (std::size_t r = 0; r < returnCounts_.size(); ++r)
      returnCounts_[r] += other.returnCounts_[r];
    gpsLo_ = std::min(gpsLo_, other.gpsLo_);
    gpsHi_ = std::max(gpsHi_, other.gpsHi_);
    points_ += other.points_;
  }

  void into(Summary& s) const {
    s.classCounts = classCounts_;
    s.returnCounts = returnCounts_;
    if (points_ == 0)
      return;
    const Header& h = s.header;
    for (std::size_t k = 0; k < 3; ++k) {
      const double a = lo_[k] * h.scale[k] + h.offset[k], b = hi_[k] * h.scale[k] + h.offset[k];
      s.min[k] = std::min(a, b);
      s.max[k] = std::max(a, b);
    }
    if (gps_ && gpsLo_ <= gpsHi_)
      s.gpsTime = std::array<double, 2>{gpsLo_, gpsHi_};
  }

private:
  template <class Record>
  void addRecords(const std::uint8_t* r, std::uint64_t count) {
    for (std::uint64_t i = 0; i < count; ++i, r += length_) {
      const Record p(r);
      std::int32_t raw[3];
      p.xyz(raw);
      for (std::size_t k = 0; k < 3; ++k) {
        lo_[k] = std::min(lo_[k], raw[k]);
        hi_[k] = std::max(hi_[k], raw[k]);
      }
      ++classCounts_[p.classification()];
      ++returnCounts_[p.returnNumber()];
      if (gps_) {
        const double t = p.gpsTime();
        // NaN compares false both ways, so it never becomes a bound.
        gpsLo_ = std::min(gpsLo_, t);
        gpsHi_ = std::max(gpsHi_, t);
      }
    }
  }

  std::size_t length_;
  bool extended_, gps_;
  std::array<std::int32_t, 3> lo_{}, hi_{};
  std::array<std::uint64_t, 256> classCounts_{};
  std::array<std::uint64_t, 16> returnCounts_{};
  double gpsLo_ = std::numeric_limits<double>::infinity();
  double gpsHi_ = -std::numeric_limits<double>::infinity();
  std::uint64_t points_ = 0;
};

// The variable-length records as the file stores them (extended: the EVLRs): the opened file
// has set aside those that describe the file's layout and not the points, the "laszip encoded"
// record of a LAZ file and the COPC records.
std::vector<Vlr> storedRecords(const OpenedFile& in, const RawHeader& raw, bool extended) {
  const Header& h = raw.header;
  Findings findings;
  if (extended)
    return h.versionMinor >= 4 && h.evlrCount > 0
               ? parseRecords(in.file.data(), h.evlrOffset, in.file.size(), h.evlrCount, true,
                              findings)
               : std::vector<Vlr>{};
  return parseRecords(in.file.data(), h.headerSize, h.pointOffset, h.vlrCount, false, findings);
}

} // namespace

std::string typeName(const ExtraBytes& extra) {
  return extra.dataType >= 1 && extra.dataType <= 10 ? kindName(extraKind(extra.dataType))
                                                     : std::string("bytes");
}

Summary summarize(const std::string& path, const Warn& warn) {
  OpenedFile in(path, true, warn);
  const RawHeader raw = decodeHeader(
      in.file.data(), static_cast<std::size_t>(std::min<std::uint64_t>(in.file.size(), 375)));
  Summary s;
  s.header = in.info.header;
  s.compressed = in.laz.has_value();
  s.pointCount = in.pointCount;
  s.headerReturns = pointsByReturn(raw);
  s.vlrs = storedRecords(in, raw, false);
  s.evlrs = storedRecords(in, raw, true);
  s.extraBytes = in.info.extraBytes;
  for (const FieldPlan& f : fieldsOf(in.info, false))
    s.fields.emplace_back(f.name, f.type);
  Tally tally(s.header);
  if (in.laz) {
    // Each chunk passed over by the thread that decoded it, while its records are in the cache.
    std::mutex mutex;
    in.decoding([&] {
      in.laz->decode([&](const Laz::Chunk& c, const std::uint8_t* records) {
        Tally part(s.header);
        part.add(records, c.points);
        const std::lock_guard<std::mutex> lock(mutex);
        tally.merge(part);
      });
    });
  } else {
    tally.add(in.records, in.pointCount);
  }
  tally.into(s);
  return s;
}

} // namespace Quorvel::Las
