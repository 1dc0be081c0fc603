// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: LAS and LAZ files joined record by record: checked against the first, read in
// batches, their coordinates placed on the first's scale and offset; merge() on top.
#include "io/detail/copc.hpp"
#include "io/detail/las_formats.hpp"
#include "io/detail/las_record.hpp"
#include "io/tiles.hpp"
#include "quorvel/core/parallel.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace Quorvel::Las {

namespace {

std::string layoutOf(const Header& h) {
  return "point format " + std::to_string(h.pointFormat) + " with " +
         std::to_string(h.recordLength) + "-byte records";
}

std::string extraNames(const FileInfo& info) {
  std::string names;
  for (const ExtraBytes& e : info.extraBytes)
    names += (names.empty() ? "\"" : ", \"") + e.name + "\" " + typeName(e);
  return names.empty() ? "no extra bytes" : "extra bytes " + names;
}

// The records that give a coordinate system: the WKT (2112) and the GeoTIFF keys (34735 to 34737).
std::vector<const Vlr*> crsRecords(const FileInfo& info) {
  std::vector<const Vlr*> out;
  for (const auto* list : {&info.vlrs, &info.evlrs})
    for (const Vlr& v : *list)
      if (v.userId == "LASF_Projection" &&
          (v.recordId == 2112 || (v.recordId >= 34735 && v.recordId <= 34737)))
        out.push_back(&v);
  return out;
}

bool sameCrsRecords(const FileInfo& a, const FileInfo& b) {
  const auto x = crsRecords(a), y = crsRecords(b);
  if (x.size() != y.size())
    return false;
  for (std::size_t k = 0; k < x.size(); ++k)
    if (x[k]->recordId != y[k]->recordId || x[k]->data != y[k]->data)
      return false;
  return true;
}

// The bit of the global encoding that makes the WKT record the one that counts (LAS 1.4).
constexpr std::uint16_t WktBit = 16;

// Throws Error when b is of another coordinate system than a. Files whose records are equal (and
// that say alike which record counts) are of one system, and their names are not asked for:
// naming a system takes GDAL, which a merge of files of one survey then never loads.
void checkSameSystem(const Reader& a, const Reader& b, const StreamSettings& settings) {
  const FileInfo &x = a.info(), &y = b.info();
  const bool sameWktBit = ((x.header.globalEncoding ^ y.header.globalEncoding) & WktBit) == 0;
  if (sameCrsRecords(x, y) && (!settings.crsName || sameWktBit))
    return;
  if (!settings.crsName)
    throw Error(b.path() + ": its coordinate-system records differ from those of " + a.path() +
                "; the files must share one coordinate system");
  const std::string p = settings.crsName(x), q = settings.crsName(y);
  if (p != q)
    throw Error(b.path() + ": " + q + ", " + a.path() + ": " + p +
                "; the files must share one coordinate system");
}

// Throws Error when the records of b cannot join those of a in one file.
void checkAlike(const Reader& a, const Reader& b, const StreamSettings& settings) {
  const FileInfo &x = a.info(), &y = b.info();
  if (x.header.pointFormat != y.header.pointFormat ||
      x.header.recordLength != y.header.recordLength)
    throw Error(b.path() + ": " + layoutOf(y.header) + ", " + a.path() + ": " + layoutOf(x.header) +
                "; the files must share one point format (convert them first)");
  if (extraNames(x) != extraNames(y))
    throw Error(b.path() + ": " + extraNames(y) + ", " + a.path() + ": " + extraNames(x) +
                "; the files must share their extra-bytes dimensions");
  checkSameSystem(a, b, settings);
}

// Rewrites the integer coordinates of count records from the scale and offset of `from` to
// those of `to`; throws Error naming the file when one does not fit.
void requantize(std::uint8_t* records, std::size_t count, std::size_t length, const Header& from,
                const Header& to, const std::string& path) {
  for (std::size_t i = 0; i < count; ++i) {
    std::int32_t raw[3];
    std::memcpy(raw, records + i * length, 12);
    for (int a = 0; a < 3; ++a) {
      const double v = raw[a] * from.scale[a] + from.offset[a];
      const double r = std::round((v - to.offset[a]) / to.scale[a]);
      if (!(r >= -2147483648.0 && r <= 2147483647.0))
        throw Error(path + ": coordinate " + std::to_string(v) +
                    " does not fit the scale and offset of the first file");
      raw[a] = static_cast<std::int32_t>(r);
    }
    std::memcpy(records + i * length, raw, 12);
  }
}

// Sets the class of count records of length bytes from classes, one each.
template <class Record>
void setClasses(std::uint8_t* records, std::size_t count, std::size_t length,
                const std::uint8_t* classes) {
  for (std::size_t i = 0; i < count; ++i)
    Record(records + i * length).setClassification(classes[i]);
}

// body(begin, end) for blocks of [0, count) on all threads: the records of a batch copied to the
// writer in parallel, each block to its own place.
template <class Body>
void inRecordBlocks(std::size_t count, const Body& body) {
  const int threads = allThreads();
  Basalt::inBlocks(count, Basalt::blocksFor(count, threads), threads,
                   [&](std::size_t begin, std::size_t end, int) { body(begin, end); });
}

} // namespace

Sources::Sources(const std::vector<std::string>& paths, const StreamSettings& settings,
                 std::size_t reference)
    : paths_(paths), settings_(settings) {
  if (paths.empty())
    throw Error("no files to read");
  if (reference >= paths.size())
    throw Error("no file " + std::to_string(reference + 1) + " among " +
                std::to_string(paths.size()));
  const auto first = open(paths[reference]);
  first_ = first->info();
  compressed_ = first->compressed();
  for (std::size_t k = 0; k < paths.size(); ++k)
    if (k != reference)
      checkAlike(*first, *open(paths[k]), settings);
}

Sources::~Sources() = default;

std::unique_ptr<Reader> Sources::open(const std::string& path) const {
  auto reader = std::make_unique<Reader>(path, settings_.readWarnings ? settings_.readWarnings(path)
                                                                      : Warn{});
  if (settings_.box)
    reader->restrict(*settings_.box);
  return reader;
}

const FileInfo& Sources::first() const {
  return first_;
}

bool Sources::compressed() const {
  return compressed_;
}

void Sources::forEachBatch(const std::function<void(const std::uint8_t*, std::size_t)>& use) {
  forEachBatchOf(
      [&](std::size_t, const std::uint8_t* records, std::size_t count) { use(records, count); });
}

void Sources::forEachBatchOf(
    const std::function<void(std::size_t file, const std::uint8_t*, std::size_t)>& use) {
  const Header& target = first_.header;
  std::vector<std::uint8_t> moved;
  for (std::size_t file = 0; file < paths_.size(); ++file) {
    const std::string& path = paths_[file];
    const auto reader = open(path);
    const Header& h = reader->info().header;
    const bool same = h.scale == target.scale && h.offset == target.offset;
    for (Batch b = reader->next(); b.count > 0; b = reader->next()) {
      if (same) {
        use(file, b.records, b.count);
        continue;
      }
      moved.assign(b.records, b.records + b.count * h.recordLength);
      requantize(moved.data(), b.count, h.recordLength, h, target, path);
      use(file, moved.data(), b.count);
    }
  }
}

std::uint64_t merge(const std::vector<std::string>& paths, const std::string& output,
                    const StreamSettings& settings) {
  Sources sources(paths, settings);
  // COPC orders the points by an octree of them all: they are merged into a LAZ file first.
  const bool copc = Copc::isCopcPath(output);
  const std::string target = copc ? output + ".merged.laz" : output;
  std::uint64_t points = 0;
  {
    Writer out(target, sources.first());
    sources.forEachBatch([&](const std::uint8_t* records, std::size_t n) {
      out.append(records, n);
      points += n;
    });
    out.finish();
  }
  if (copc)
    Copc::rewriteAsCopc(target, output,
                        settings.writeWarnings ? settings.writeWarnings(output) : Warn{});
  return points;
}

bool copyRecords(const std::string& input, const std::vector<std::size_t>& kept,
                 std::uint64_t total, const std::string& output) {
  Reader in(input);
  const FileInfo& info = in.info();
  if (info.header.pointCount != total)
    return false;
  const std::size_t length = info.header.recordLength;
  Writer out(output, info);
  std::size_t next = 0; // the first of kept not yet written
  std::uint64_t base = 0;
  for (Batch batch = in.next(); batch.count > 0; base += batch.count, batch = in.next()) {
    std::size_t end = next;
    while (end < kept.size() && kept[end] < base + batch.count)
      ++end;
    out.append(end - next, [&](std::uint8_t* to) {
      inRecordBlocks(end - next, [&](std::size_t from, std::size_t until) {
        for (std::size_t k = next + from; k < next + until; ++k)
          std::memcpy(to + (k - next) * length, batch.records + (kept[k] - base) * length, length);
      });
    });
    next = end;
  }
  out.finish();
  return true;
}

bool copyRecordsWithClasses(const std::string& input, std::span<const std::uint8_t> classes,
                            const std::string& output) {
  Reader in(input);
  const Header& h = in.info().header;
  const bool extended = detail::format(h.pointFormat).extended;
  if (h.pointCount != classes.size() ||
      (!extended && std::any_of(classes.begin(), classes.end(), [](auto c) { return c > 31; })))
    return false;
  const std::size_t length = h.recordLength;
  Writer out(output, in.info());
  std::size_t base = 0;
  for (Batch batch = in.next(); batch.count > 0; base += batch.count, batch = in.next())
    out.append(batch.count, [&](std::uint8_t* to) {
      inRecordBlocks(batch.count, [&](std::size_t from, std::size_t until) {
        std::uint8_t* at = to + from * length;
        std::memcpy(at, batch.records + from * length, (until - from) * length);
        const std::uint8_t* set = classes.data() + base + from;
        if (extended)
          setClasses<detail::ExtendedRecordOut>(at, until - from, length, set);
        else
          setClasses<detail::LegacyRecordOut>(at, until - from, length, set);
      });
    });
  out.finish();
  return true;
}

bool hasCoordinateSystemRecords(const FileInfo& info) {
  return !crsRecords(info).empty();
}

} // namespace Quorvel::Las
