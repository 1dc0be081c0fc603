// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: reading LAS files straight into fragment arrays.
#include "io/detail/copc.hpp"
#include "io/detail/las_file.hpp"
#include "io/detail/las_header.hpp"
#include "io/detail/las_progress.hpp"
#include "io/detail/las_record.hpp"
#include "io/laz/laz.hpp"
#include "io/stream.hpp"

#include "basalt/text.hpp"
#include "quorvel/core/core.hpp"
#include "quorvel/core/parallel.hpp"

#include "tressel/point_cloud.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <mutex>
#include <set>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Quorvel::Las {

using Vantor::PhysicalSpace::point;

namespace detail {

MappedFile::MappedFile(const std::string& path, bool sequential) {
  // Not blocking: a pipe given as input would wait for a writer; it is refused below.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0)
    throw Error(path + (errno == ENOENT ? ": no such file"
                                        : std::string(": cannot open: ") + std::strerror(errno)));
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    ::close(fd);
    throw Error(path + ": not a regular file");
  }
  size_ = static_cast<std::uint64_t>(status.st_size);
  if (size_ > 0) {
    void* m =
        ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE | (sequential ? 0 : MAP_POPULATE), fd, 0);
    if (m == MAP_FAILED) {
      ::close(fd);
      throw Error(path + ": cannot map the file");
    }
    if (sequential)
      ::madvise(m, size_, MADV_SEQUENTIAL);
    mapping_ = m;
    data_ = static_cast<const std::uint8_t*>(m);
  }
  ::close(fd);
}

void MappedFile::release(std::uint64_t from, std::uint64_t to) const {
  const auto page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
  from = (from + page - 1) / page * page;
  to = std::min(to, size_) / page * page;
  if (mapping_ && from < to)
    ::madvise(static_cast<std::uint8_t*>(mapping_) + from, to - from, MADV_DONTNEED);
}

MappedFile::~MappedFile() {
  if (mapping_)
    ::munmap(mapping_, size_);
}

OpenedFile::OpenedFile(const std::string& path, bool sequential, const Warn& warn)
    : file(path, sequential), path_(path) {
  const std::uint8_t* b = file.data();
  const std::uint64_t size = file.size();
  RawHeader raw = decodeHeader(b, static_cast<std::size_t>(std::min<std::uint64_t>(size, 375)));
  // LAZ marks its point format with bit 7 (or, in some writers, bit 6).
  const std::uint8_t compression = raw.header.pointFormat & 0xC0;
  const bool compressed = compression == 0x80 || compression == 0x40;
  if (compressed)
    raw.header.pointFormat &= 0x3F;
  Findings findings;
  validate(raw, size, findings, compressed);
  if (!findings.problems.empty())
    throw Error(describe(path, findings.problems));
  info.header = raw.header;
  const Header& h = info.header;
  info.vlrs = parseRecords(b, h.headerSize, h.pointOffset, h.vlrCount, false, findings);
  if (h.versionMinor >= 4 && h.evlrCount > 0)
    info.evlrs = parseRecords(b, h.evlrOffset, size, h.evlrCount, true, findings);
  info.extraBytes = parseExtraBytes(info, findings);
  if (!findings.problems.empty())
    throw Error(describe(path, findings.problems));
  if (warn)
    for (const std::string& warning : findings.warnings)
      warn(warning);
  pointCount = h.pointCount;
  if (compressed)
    openCompressed();
  else
    records = b + h.pointOffset;
  // A COPC file's info record and hierarchy describe its own layout only, as the "laszip
  // encoded" record does: the points read carry neither.
  std::erase_if(info.vlrs, Copc::isCopcRecord);
  std::erase_if(info.evlrs, Copc::isCopcRecord);
  info.header.vlrCount = static_cast<std::uint32_t>(info.vlrs.size());
  info.header.evlrCount = static_cast<std::uint32_t>(info.evlrs.size());
}

void OpenedFile::openCompressed() {
  const auto laszip = std::find_if(info.vlrs.begin(), info.vlrs.end(), Laz::isLaszipRecord);
  if (laszip == info.vlrs.end())
    throw Error(path_ + ": compressed point data without its \"laszip encoded\" record");
  const Header& h = info.header;
  // The point data ends where the EVLRs begin (LAS 1.4), else with the file.
  const std::uint64_t end = h.versionMinor >= 4 && h.evlrCount > 0 && h.evlrOffset > h.pointOffset
                                ? std::min<std::uint64_t>(h.evlrOffset, file.size())
                                : file.size();
  decoding([&] {
    if (pointCount > (std::uint64_t(1) << 40) / std::max<std::uint64_t>(h.recordLength, 1))
      throw std::runtime_error("point count " + std::to_string(pointCount) + " is implausible");
    const Laz::Description d = Laz::describe(*laszip);
    const std::size_t own = static_cast<std::size_t>(format(h.pointFormat).length);
    const std::string wrong =
        Laz::contradiction(d, h.pointFormat, h.recordLength > own ? h.recordLength - own : 0);
    if (!wrong.empty())
      throw std::runtime_error(wrong);
    laz.emplace(file.data(), h.pointOffset, end, file.size(), d, pointCount, h.recordLength);
  });
  info.vlrs.erase(laszip);
  info.header.vlrCount = static_cast<std::uint32_t>(info.vlrs.size());
}

void OpenedFile::decodeAll() {
  if (!laz || records)
    return;
  decoded_.resize(static_cast<std::size_t>(pointCount) * info.header.recordLength);
  decoding([&] { laz->decode(decoded_.data()); });
  records = decoded_.data();
}

std::vector<FieldPlan> fieldsOf(const FileInfo& info, bool tiled) {
  const int f = info.header.pointFormat;
  std::vector<FieldPlan> out{{Tressel::PositionsFieldName, "point"}};
  for (const Dim& d : dims(f))
    out.push_back({d.name, kindName(d.kind)});
  const auto normals = normalsOf(info.extraBytes);
  for (std::size_t i = 0; i < info.extraBytes.size(); ++i) {
    const int c = normals ? normals->component(i) : -1;
    if (c == 0)
      out.push_back({NormalField, "vector"});
    if (c >= 0)
      continue;
    for (const ExtraField& x : extraFields(info.extraBytes[i]))
      out.push_back({x.name, kindName(x.kind)});
  }
  out.push_back({"ScanAngle", "float32"});
  out.push_back({"LastReturn", "uint8"});
  if (tiled)
    out.push_back({"PointIndex", "uint64"});
  if (format(f).rgb >= 0)
    out.push_back({"RGB", "rgb16"});
  return out;
}

} // namespace detail

namespace {

using namespace detail;

// Byte pointers to the arrays of a field, skip bytes into each.
template <class T>
std::vector<std::uint8_t*> bytesOf(const std::vector<T*>& arrays, std::size_t skip = 0) {
  std::vector<std::uint8_t*> out;
  for (T* p : arrays)
    out.push_back(reinterpret_cast<std::uint8_t*>(p) + skip);
  return out;
}

// Allocates the arrays of a field of the given kind; byte pointers to them, one per fragment.
std::vector<std::uint8_t*> addOfKind(Tressel::FragmentArrays& cloud, const std::string& name,
                                     Kind kind) {
  return Tressel::withScalar(kind,
                             [&](auto v) { return bytesOf(cloud.addField<decltype(v)>(name)); });
}

// A plain value of the record and the arrays it is read into, one per fragment (for a component
// of vectors, its first double).
struct Copy {
  FieldCopy field;
  std::vector<std::uint8_t*> to;
};

// Everything the decoding loop writes, per fragment.
struct Plan {
  std::vector<Copy> copies;
  std::vector<point*> xyz;
  std::vector<float*> scanAngle;
  std::vector<unsigned char*> lastReturn;
  std::vector<unsigned long long*> pointIndex;
  std::vector<Vantor::RGB16*> rgb;
};

Plan allocate(Tressel::FragmentArrays& cloud, const FileInfo& info, bool tiled,
              const std::set<std::string>& only) {
  const auto wanted = [&only](const std::string& name) {
    return only.empty() || only.count(name) > 0;
  };
  const int f = info.header.pointFormat;
  Plan plan;
  plan.xyz = cloud.addField<point>(Tressel::PositionsFieldName);
  for (const Dim& d : dims(f))
    if (wanted(d.name))
      plan.copies.push_back({fieldCopy(d), addOfKind(cloud, d.name, d.kind)});
  const auto& extras = info.extraBytes;
  const std::vector<int> starts = extraStarts(f, extras);
  // Normals become one field of vectors, in the place of their x component.
  const auto normals = normalsOf(extras);
  for (std::size_t i = 0; i < extras.size(); ++i) {
    const int c = normals ? normals->component(i) : -1;
    if (c == 0 && wanted(NormalField)) {
      const auto vectors = cloud.addField<Vantor::PhysicalSpace::vector>(NormalField);
      for (std::size_t k = 0; k < 3; ++k) {
        const ExtraBytes& e = extras[normals->at[k]];
        plan.copies.push_back(
            {{starts[normals->at[k]], -e.size, 0, 0}, bytesOf(vectors, sizeof(double) * k)});
      }
    }
    if (c >= 0)
      continue;
    for (const ExtraField& x : extraFields(extras[i]))
      if (wanted(x.name))
        plan.copies.push_back(
            {{starts[i] + x.offset, kindSize(x.kind), 0, 0}, addOfKind(cloud, x.name, x.kind)});
  }
  if (wanted("ScanAngle"))
    plan.scanAngle = cloud.addField<float>("ScanAngle");
  if (wanted("LastReturn"))
    plan.lastReturn = cloud.addField<unsigned char>("LastReturn");
  if (tiled)
    plan.pointIndex = cloud.addField<unsigned long long>("PointIndex");
  if (format(f).rgb >= 0 && wanted("RGB"))
    plan.rgb = cloud.addField<Vantor::RGB16>("RGB");
  return plan;
}

// The values the reader derives from a record: the scan angle in degrees and whether the point
// is the last of its pulse.
template <class Record>
inline void derived(Record r, float* angle, unsigned char* last, std::size_t j) {
  if (angle)
    angle[j] = r.scanAngle();
  if (last)
    last[j] = r.lastReturn() ? 1 : 0;
}

// Decodes the records index(j) of records, for j in [from, to), into slot j of fragment k's
// arrays.
template <class Index>
void decode(const Plan& plan, const Header& h, const std::uint8_t* records, std::size_t k,
            std::size_t from, std::size_t to, Index index) {
  const std::size_t length = h.recordLength;
  const bool extended = format(h.pointFormat).extended;
  const int rgbAt = format(h.pointFormat).rgb;
  const double sx = h.scale[0], sy = h.scale[1], sz = h.scale[2];
  const double ox = h.offset[0], oy = h.offset[1], oz = h.offset[2];
  point* xyz = plan.xyz[k];
  float* angle = plan.scanAngle.empty() ? nullptr : plan.scanAngle[k];
  unsigned char* last = plan.lastReturn.empty() ? nullptr : plan.lastReturn[k];
  unsigned long long* place = plan.pointIndex.empty() ? nullptr : plan.pointIndex[k];
  Vantor::RGB16* rgb = plan.rgb.empty() ? nullptr : plan.rgb[k];
  // This fragment's destinations beside their sources, so the loop reads one small array.
  struct Op {
    FieldCopy field;
    std::uint8_t* out;
  };
  std::vector<Op> ops;
  ops.reserve(plan.copies.size());
  for (const Copy& c : plan.copies)
    ops.push_back({c.field, c.to[k]});
  // Runs of records that stay in the first-level cache: the positions and what derives from
  // them record by record, then each plain value over the whole run.
  constexpr std::size_t Run = 512;
  std::array<const std::uint8_t*, Run> at;
  for (std::size_t j0 = from; j0 < to; j0 += Run) {
    const std::size_t count = std::min(Run, to - j0);
    for (std::size_t j = j0; j < j0 + count; ++j) {
      const std::uint64_t i = index(j);
      const std::uint8_t* r = at[j - j0] = records + i * length;
      std::int32_t raw[3];
      std::memcpy(raw, r, 12);
      xyz[j] = point(raw[0] * sx + ox, raw[1] * sy + oy, raw[2] * sz + oz);
      if (extended)
        derived(ExtendedRecord(r), angle, last, j);
      else
        derived(LegacyRecord(r), angle, last, j);
      if (place)
        place[j] = i;
      if (rgb)
        std::memcpy(&rgb[j], r + rgbAt, 6);
    }
    for (const Op& c : ops)
      copyFieldRun<Direction::Read>(c.field, at.data(), c.out, j0, count);
  }
}

// Calls step(from, to) over [0, count) in blocks of about a percent of the points.
template <class Step>
void inBlocks(std::size_t count, std::size_t done, Percent& percent, Step step) {
  for (std::size_t from = 0; from < count;) {
    const std::size_t to = count - from > percent.step() ? from + percent.step() : count;
    step(from, to);
    percent.reached(done + to);
    from = to;
  }
}

// Points outside the header's bounds (by more than one scale step) were written with another
// scale or offset than the header gives, so every coordinate read is wrong. A header without
// bounds (all zero, as some writers leave it) says nothing.
void checkBounds(const Tressel::Grid& grid, const Header& h, const Warn& warn) {
  const auto zero = [](const std::array<double, 3>& a) {
    return a[0] == 0 && a[1] == 0 && a[2] == 0;
  };
  const auto positions = grid.CartesianPositions();
  if (!warn || !positions || (zero(h.min) && zero(h.max)))
    return;
  std::array<double, 3> low, high;
  low.fill(std::numeric_limits<double>::infinity());
  high.fill(-std::numeric_limits<double>::infinity());
  for (const FragmentSlot& slot : fragmentsOf(*positions))
    if (const auto box = fragmentBBox(slot))
      for (int k = 0; k < 3; ++k) {
        low[k] = std::min(low[k], box->min()[k]);
        high[k] = std::max(high[k], box->max()[k]);
      }
  for (int k = 0; k < 3; ++k) {
    const double step = std::fabs(h.scale[k]) * 1.001;
    if (low[k] <= high[k] && (low[k] < h.min[k] - step || high[k] > h.max[k] + step)) {
      warn(Basalt::format("the points' %c runs from %.10g to %.10g, outside the header's bounds "
                          "%.10g to %.10g: the scale (%g) or offset (%.10g) of %c is likely not "
                          "the one the points were written with",
                          "xyz"[k], low[k], high[k], h.min[k], h.max[k], h.scale[k], h.offset[k],
                          "xyz"[k]));
      return;
    }
  }
}

using Progress = Basalt::StrongPtr<Basalt::LoaderProgress>;

// A LAZ file's points in one fragment: each chunk decoded by its thread and its records placed in
// the arrays while they are still in the cache.
Tressel::FragmentArrays readCompressed(OpenedFile& in, const Progress& progress,
                                       const std::set<std::string>& only) {
  const std::size_t n = static_cast<std::size_t>(in.pointCount);
  Tressel::FragmentArrays cloud({n});
  const Plan plan = allocate(cloud, in.info, false, only);
  Percent percent(progress, n, "reading");
  std::mutex mutex;
  std::size_t done = 0;
  in.decoding([&] {
    in.laz->decode([&](const Laz::Chunk& c, const std::uint8_t* records) {
      decode(plan, in.info.header, records, 0, c.firstPoint, c.firstPoint + c.points,
             [&c](std::size_t j) { return j - c.firstPoint; });
      const std::lock_guard<std::mutex> lock(mutex);
      done += c.points;
      percent.reached(done);
    });
  });
  percent.finish();
  return cloud;
}

// A LAS file's points in one fragment, in file order, decoded by blocks of points on all threads
// (a point's values depend on its record alone).
Tressel::FragmentArrays readRecords(const OpenedFile& in, const Progress& progress,
                                    const std::set<std::string>& only) {
  const std::size_t n = static_cast<std::size_t>(in.pointCount);
  Tressel::FragmentArrays cloud({n});
  const Plan plan = allocate(cloud, in.info, false, only);
  Percent percent(progress, n, "reading");
  constexpr std::size_t BlockPoints = 1 << 16;
  std::mutex mutex;
  std::size_t done = 0;
  forEachItem((n + BlockPoints - 1) / BlockPoints, allThreads(), [&](std::size_t b) {
    const std::size_t from = b * BlockPoints, to = std::min(n, from + BlockPoints);
    decode(plan, in.info.header, in.records, 0, from, to, [](std::size_t j) { return j; });
    const std::lock_guard<std::mutex> lock(mutex);
    done += to - from;
    percent.reached(done);
  });
  percent.finish();
  return cloud;
}

// The points in x-y tiles of about fragmentPoints: tiles from x and y first, then each tile's
// records decoded into its own arrays.
Tressel::FragmentArrays readTiles(OpenedFile& in, std::size_t fragmentPoints,
                                  const Progress& progress, const std::set<std::string>& only) {
  in.decodeAll();
  const Header& h = in.info.header;
  const std::size_t n = static_cast<std::size_t>(in.pointCount);
  std::vector<point> xy(n);
  for (std::size_t i = 0; i < n; ++i) {
    std::int32_t raw[3]; // the positions lie alike in both records
    LegacyRecord(in.records + i * h.recordLength).xyz(raw);
    xy[i] = point(raw[0] * h.scale[0] + h.offset[0], raw[1] * h.scale[1] + h.offset[1], 0.0);
  }
  const Tressel::Partition tiles = Tressel::tilePartitionByCount(xy, fragmentPoints);
  xy = {};
  std::vector<std::size_t> sizes;
  for (const auto& tile : tiles)
    sizes.push_back(tile.size());
  Tressel::FragmentArrays cloud(sizes);
  const Plan plan = allocate(cloud, in.info, true, only);
  std::size_t done = 0;
  Percent percent(progress, n, "reading");
  for (std::size_t k = 0; k < tiles.size(); ++k) {
    const auto& tile = tiles[k];
    inBlocks(tile.size(), done, percent, [&](std::size_t from, std::size_t to) {
      decode(plan, h, in.records, k, from, to, [&tile](std::size_t j) { return tile[j]; });
    });
    done += tile.size();
  }
  percent.finish();
  return cloud;
}

ReadResult readAll(const std::string& path, std::size_t fragmentPoints, const Progress& progress,
                   const std::set<std::string>& only, const Warn& warn) {
  OpenedFile in(path, false, warn);
  const std::size_t n = static_cast<std::size_t>(in.pointCount);
  const bool whole = fragmentPoints == 0 || fragmentPoints >= n;
  Tressel::FragmentArrays cloud = whole && in.laz ? readCompressed(in, progress, only)
                                  : whole         ? readRecords(in, progress, only)
                                                  : readTiles(in, fragmentPoints, progress, only);
  ReadResult result;
  result.info = in.info;
  result.grid = cloud.build(std::filesystem::path(path).stem().string(), allThreads());
  checkBounds(*result.grid, in.info.header, warn);
  setFileInfo(*result.grid, in.info);
  return result;
}

ReadResult readInBox(const std::string& path, const Box& box, const Warn& warn) {
  Reader reader(path, warn);
  reader.restrict(box);
  const FileInfo& info = reader.info();
  const std::size_t length = info.header.recordLength;
  std::vector<std::uint8_t> kept;
  for (Batch b = reader.next(); b.count > 0; b = reader.next())
    kept.insert(kept.end(), b.records, b.records + b.count * length);
  const std::size_t n = kept.size() / length;
  Tressel::FragmentArrays cloud({n});
  const Plan plan = allocate(cloud, info, false, {});
  decode(plan, info.header, kept.data(), 0, 0, n, [](std::size_t j) { return j; });
  ReadResult result;
  result.info = info;
  result.grid = cloud.build(std::filesystem::path(path).stem().string());
  checkBounds(*result.grid, info.header, warn);
  setFileInfo(*result.grid, info);
  return result;
}

} // namespace

void outOfMemory(const std::string& path, const std::string& what) {
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  throw Error(path + ": out of memory while reading " + what +
              (error ? std::string() : " (the file holds " + std::to_string(size) + " bytes)"));
}

ReadResult read(const std::string& path, std::size_t fragmentPoints,
                const Basalt::StrongPtr<Basalt::LoaderProgress>& progress,
                const std::set<std::string>& only, const Warn& warn) {
  return reading(path, "its points",
                 [&] { return readAll(path, fragmentPoints, progress, only, warn); });
}

ReadResult read(const std::string& path, const Box& box, const Warn& warn) {
  return reading(path, "its points in the box", [&] { return readInBox(path, box, warn); });
}

} // namespace Quorvel::Las
