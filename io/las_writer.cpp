// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: writing point-cloud grids as LAS, fragment arrays encoded straight into the records.
#include "io/detail/copc.hpp"
#include "io/detail/las_formats.hpp"
#include "io/detail/las_header.hpp"
#include "io/detail/las_output.hpp"
#include "io/detail/las_progress.hpp"
#include "io/detail/las_record.hpp"
#include "io/detail/las_write_plan.hpp"
#include "io/files.hpp"
#include "io/laz/laz.hpp"
#include "quorvel/core/parallel.hpp"

#include "basalt/text.hpp"
#include "tressel/point_cloud.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <memory>
#include <unistd.h>
#include <vector>

namespace Quorvel::Las {

using Vantor::PhysicalSpace::point;

namespace {

using namespace detail;

// The compressed point data of n records (as head.size() places it) and, for COPC, the hierarchy
// EVLR put before the others and the info record written into head, the first VLR.
std::vector<std::uint8_t> compress(bool copc, const std::uint8_t* records, std::size_t n,
                                   const Header& h, const Laz::Description& d,
                                   std::vector<std::uint8_t>& head, std::vector<Vlr>& evlrs) {
  try {
    if (!copc)
      return Laz::encode(records, n, h.recordLength, d, head.size());
    Copc::Encoded encoded = Copc::encodePoints(records, n, h.recordLength, h, d, head.size());
    encoded.info.rootPageOffset = head.size() + encoded.pointData.size() + EvlrHeaderSize;
    encoded.info.rootPageSize = encoded.page.size();
    const auto info = Copc::encodeInfo(encoded.info);
    std::copy(info.begin(), info.end(), head.begin() + Copc::InfoOffset);
    Vlr hierarchy{0, "copc", Copc::HierarchyRecordId, "COPC hierarchy", std::move(encoded.page)};
    evlrs.insert(evlrs.begin(), std::move(hierarchy));
    return std::move(encoded.pointData);
  } catch (const Error&) {
    throw;
  } catch (const std::runtime_error& e) {
    throw Problem(e.what());
  }
}

// The "copc info" record, its data filled in once the point data is written.
Vlr copcInfoRecord() {
  return {0, "copc", Copc::InfoRecordId, "COPC info", std::vector<std::uint8_t>(Copc::InfoSize, 0)};
}

// What the file holds around its records: the VLRs and EVLRs as written (with COPC's info record
// first and LAZ's "laszip encoded" record last), and how the records are compressed.
struct Framing {
  bool laz = false;  // by the name: chunks described by a "laszip encoded" VLR
  bool copc = false; // variable chunks, one per node of its octree
  Laz::Description compression;
  std::vector<Vlr> vlrs, evlrs;
};

// Points per chunk of a LAZ file written here, as LASzip writes them.
constexpr std::uint32_t LazChunkPoints = 50000;

Framing framingOf(const std::string& path, const FileInfo& info) {
  Framing f;
  f.laz = Files::isLaz(path);
  f.copc = Copc::isCopcPath(path);
  f.vlrs = info.vlrs;
  f.evlrs = info.evlrs;
  if (f.copc)
    f.vlrs.insert(f.vlrs.begin(), copcInfoRecord());
  if (f.laz) {
    const Header& h = info.header;
    try {
      f.vlrs.push_back(Laz::laszipRecord(
          h.pointFormat, h.recordLength - format(h.pointFormat).length,
          f.copc ? Laz::Description::VariableChunks : LazChunkPoints, f.compression));
    } catch (const std::runtime_error& e) {
      throw Problem(e.what());
    }
  }
  return f;
}

// The header's room and the VLRs after it; the header is written over it at the end.
std::vector<std::uint8_t> headOf(int versionMinor, const std::vector<Vlr>& vlrs) {
  std::vector<std::uint8_t> head(headerSizeFor(versionMinor), 0);
  for (const Vlr& v : vlrs) {
    if (v.data.size() > 0xFFFF)
      throw Problem("VLR \"" + v.userId + "\" " + std::to_string(v.recordId) + " of " +
                    std::to_string(v.data.size()) + " bytes is too long for a VLR");
    encodeRecord(v, false, head);
  }
  if (head.size() > std::numeric_limits<std::uint32_t>::max())
    throw Problem("the VLRs are too long");
  return head;
}

// One value of the plan encoded into the record.
struct Put {
  const Source* from;
  FieldCopy field;
};

// Every value of the format that the grid has, then the extra bytes.
std::vector<Put> putsOf(const WritePlan& plan) {
  std::vector<Put> puts;
  const int chosen = plan.info.header.pointFormat;
  const std::vector<Dim>& all = dims(chosen);
  for (std::size_t i = 0; i < all.size(); ++i)
    if (plan.standard[i])
      puts.push_back({&*plan.standard[i], fieldCopy(all[i])});
  const std::vector<ExtraBytes>& extras = plan.info.extraBytes;
  const std::vector<int> starts = extraStarts(chosen, extras);
  for (std::size_t e = 0; e < extras.size(); ++e) {
    const auto fields = extraFields(extras[e]);
    for (std::size_t i = 0; i < fields.size(); ++i) {
      const Source& s = plan.extraSources[e][i];
      const int size = kindSize(fields[i].kind);
      puts.push_back({&s, {starts[e] + fields[i].offset, s.component >= 0 ? -size : size, 0, 0}});
    }
  }
  return puts;
}

// Coordinates to the record's integers: less the offset, divided by the scale (multiplied by its
// inverse where that is exact), rounded half away from zero. A local of the encoding loop, so
// that its numbers stay in registers.
struct Quantizer {
  explicit Quantizer(const Header& h) : offset(h.offset), scale(h.scale) {
    for (std::size_t a = 0; a < 3; ++a)
      inverse[a] = 1 / scale[a];
    exactInverse =
        inverse[0] * scale[0] == 1 && inverse[1] * scale[1] == 1 && inverse[2] * scale[2] == 1;
  }

  // Coordinate c of axis a into out; false where it does not fit.
  bool fits(double c, std::size_t a, std::int32_t& out) const {
    const double shifted = c - offset[a];
    const double v = exactInverse ? shifted * inverse[a] : shifted / scale[a];
    // Rounded half away from zero once the range is known (NaN fails the test).
    if (!(v > -2147483648.5 && v < 2147483647.5))
      return false;
    out = static_cast<std::int32_t>(v + (v < 0 ? -0.5 : 0.5));
    return true;
  }

  // Coordinate c of axis a of point g.
  std::int32_t operator()(double c, std::size_t a, std::size_t g) const {
    std::int32_t out = 0;
    if (!fits(c, a, out))
      throw Problem("coordinate " + Basalt::format("%.17g", c) + " of point " + std::to_string(g) +
                    " does not fit the LAS integer coordinates (an automatic offset or another "
                    "scale may help)");
    return out;
  }

  std::array<double, 3> offset, scale, inverse;
  bool exactInverse;
};

// Encodes points into zeroed records: the positions scaled and rounded, the plain values, the
// scan angle and the colours. Throws a Problem for a value that does not fit.
class PointEncoder {
public:
  explicit PointEncoder(const WritePlan& plan)
      : h_(plan.info.header), f_(format(h_.pointFormat)), plan_(plan), puts_(putsOf(plan)) {}

  // The arrays of fragment k.
  struct Fragment {
    std::size_t k;
    const point* xyz;
    const float* angle;
    const std::uint8_t* rgb;
  };
  Fragment fragment(const Layout& layout, std::size_t k) const {
    const auto& angles = plan_.scanAngle;
    const auto& rgb = plan_.rgb;
    return {k, layout.xyz[k],
            angles ? reinterpret_cast<const float*>(angles->fragments[k]) : nullptr,
            rgb ? rgb->fragments[k] : nullptr};
  }

  // Points j0 .. j0 + count - 1 of the fragment, points g0 .. of the file, into the zeroed records
  // r[0 .. count - 1] (extended or legacy, as the format is), value by value over the run;
  // tallied. Where a value does not fit, the run is encoded again point by point, so that the
  // Problem thrown is that of the first point in file order and its first value.
  template <bool Extended>
  void encodeRun(const Quantizer& quantized, const Fragment& in, std::size_t j0, std::size_t count,
                 std::size_t g0, std::uint8_t* const* r, Tally& tally) const {
    bool fits = true;
    for (std::size_t i = 0; i < count && fits; ++i) {
      std::int32_t xyz[3];
      for (std::size_t a = 0; a < 3; ++a)
        fits = quantized.fits(in.xyz[j0 + i][a], a, xyz[a]) && fits;
      std::memcpy(r[i], xyz, 12);
    }
    for (std::size_t p = 0; p < puts_.size() && fits; ++p)
      fits = copyFieldRun<Direction::Write>(puts_[p].field, r, puts_[p].from->fragments[in.k], j0,
                                            count);
    for (std::size_t i = 0; in.angle && i < count && fits; ++i)
      fits = setScanAngle<Extended>(r[i], in.angle[j0 + i]);
    if (!fits)
      for (std::size_t i = 0; i < count; ++i) {
        std::memset(r[i], 0, h_.recordLength);
        encode<Extended>(quantized, in, j0 + i, g0 + i, r[i]);
      }
    for (std::size_t i = 0; in.rgb && i < count; ++i)
      std::memcpy(r[i] + f_.rgb, in.rgb + 6 * (j0 + i), 6);
    for (std::size_t i = 0; i < count; ++i) {
      std::int32_t xyz[3];
      std::memcpy(xyz, r[i], 12);
      tally.add(xyz, static_cast<int>(RecordView<Extended>(r[i]).returnNumber()));
    }
  }

private:
  // Point j of the fragment, point g of the file, into the zeroed record r; throws the Problem of
  // its first value that does not fit.
  template <bool Extended>
  void encode(const Quantizer& quantized, const Fragment& in, std::size_t j, std::size_t g,
              std::uint8_t* r) const {
    std::int32_t xyz[3];
    for (std::size_t a = 0; a < 3; ++a)
      xyz[a] = quantized(in.xyz[j][a], a, g);
    std::memcpy(r, xyz, 12);
    for (const Put& u : puts_)
      if (!copyField<Direction::Write>(u.field, r, u.from->fragments[in.k], j))
        misfit(u, in.k, j, g);
    if (in.angle && !setScanAngle<Extended>(r, in.angle[j]))
      throw Problem("ScanAngle " + Basalt::format("%g", in.angle[j]) + " of point " +
                    std::to_string(g) + " does not fit point format " +
                    std::to_string(h_.pointFormat));
  }

  // The scan angle in degrees into r; false where it does not fit the format's integer.
  template <bool Extended>
  static bool setScanAngle(std::uint8_t* r, float degrees) {
    const double v = Extended ? degrees / 0.006 : degrees;
    const double limit = Extended ? 32767.5 : 127.5; // int16 or int8 after rounding
    if (!(v > -limit - 1 && v < limit))
      return false;
    const auto steps = static_cast<std::int16_t>(v + (v < 0 ? -0.5 : 0.5));
    RecordView<Extended, std::uint8_t>(r).setScanAngleSteps(steps);
    return true;
  }

  // The Problem of a value that copyField found not to fit.
  [[noreturn]] void misfit(const Put& u, std::size_t k, std::size_t j, std::size_t g) const {
    const std::uint8_t* from = u.from->fragments[k];
    if (u.field.size == 0)
      throw Problem(u.from->name + " " + std::to_string(from[j]) + " of point " +
                    std::to_string(g) + " does not fit point format " +
                    std::to_string(h_.pointFormat));
    double wide;
    std::memcpy(&wide, from + 24 * j, 8);
    throw Problem(u.from->name + " " + Basalt::format("%.17g", wide) + " of point " +
                  std::to_string(g) + " does not fit float32");
  }

  const Header& h_;
  const Format& f_;
  const WritePlan& plan_;
  std::vector<Put> puts_;
};

// Encodes the points [begin, end) of the file into the records recordAt(g) and counts them;
// starts holds the first point of each fragment and one past the last. The tally is the
// caller's thread's own until it is returned: tallies side by side, counted into by several
// threads, would share cache lines at every point.
template <bool Extended, class RecordAt>
Tally encodeRange(const PointEncoder& encoder, const Quantizer& quantizer, const Layout& layout,
                  const std::vector<std::size_t>& starts, std::size_t begin, std::size_t end,
                  std::size_t recordLength, const RecordAt& recordAt) {
  Tally tally;
  auto k = static_cast<std::size_t>(std::upper_bound(starts.begin(), starts.end(), begin) -
                                    starts.begin() - 1);
  PointEncoder::Fragment in = encoder.fragment(layout, k);
  // Runs of records that stay in the first-level cache, within one fragment.
  constexpr std::size_t Run = 512;
  std::array<std::uint8_t*, Run> at;
  for (std::size_t g = begin; g < end;) {
    while (g >= starts[k + 1])
      in = encoder.fragment(layout, ++k);
    const std::size_t count = std::min({Run, end - g, starts[k + 1] - g});
    for (std::size_t i = 0; i < count; ++i) {
      at[i] = recordAt(g + i);
      std::memset(at[i], 0, recordLength);
    }
    encoder.encodeRun<Extended>(quantizer, in, g - starts[k], count, g, at.data(), tally);
    g += count;
  }
  return tally;
}

// The first point of each fragment, and one past the last.
std::vector<std::size_t> fragmentStarts(const Layout& layout) {
  std::vector<std::size_t> starts(layout.sizes.size() + 1, 0);
  for (std::size_t k = 0; k < layout.sizes.size(); ++k)
    starts[k + 1] = starts[k] + layout.sizes[k];
  return starts;
}

// The records of every point, in file order, streamed to the file in blocks of about 256 kB that
// stay in cache (file order is layout order, and not LAZ): four blocks a thread at a time, taken
// by the threads one by one (a thread that waits for a core, as when the run has more threads
// than the machine, then holds back one small block rather than a quarter of the work), then
// written in order. A value that does not fit is the first in file order whatever the threads.
template <bool Extended>
Tally streamRecords(const WritePlan& plan, const Layout& layout, TemporaryFile& out,
                    const Basalt::StrongPtr<Basalt::LoaderProgress>& progress) {
  const std::size_t n = layout.count, recordLength = plan.info.header.recordLength;
  const std::size_t blockPoints = std::max<std::size_t>(1, (std::size_t(1) << 18) / recordLength);
  const std::size_t blocks = (n + blockPoints - 1) / blockPoints;
  const int threads = allThreads();
  const std::size_t group = std::min(blocks, 4 * static_cast<std::size_t>(std::max(threads, 1)));
  // Every byte of a record is written before it goes out.
  const std::unique_ptr<std::uint8_t[]> records(
      new std::uint8_t[std::max<std::size_t>(std::min(n, group * blockPoints), 1) * recordLength]);
  const PointEncoder encoder(plan);
  const Quantizer quantizer(plan.info.header);
  const std::vector<std::size_t> starts = fragmentStarts(layout);
  std::vector<Tally> tallies(blocks);
  Percent percent(progress, n, "writing");
  for (std::size_t first = 0; first < blocks; first += group) {
    const std::size_t count = std::min(group, blocks - first);
    forEachItem(count, threads, [&](std::size_t b) {
      const std::size_t begin = (first + b) * blockPoints, end = std::min(n, begin + blockPoints);
      std::uint8_t* block = records.get() + b * blockPoints * recordLength;
      tallies[first + b] =
          encodeRange<Extended>(encoder, quantizer, layout, starts, begin, end, recordLength,
                                [&](std::size_t g) { return block + (g - begin) * recordLength; });
    });
    const std::size_t done = std::min(n, (first + count) * blockPoints);
    out.write(records.get(), (done - first * blockPoints) * recordLength);
    percent.reached(done);
  }
  percent.finish();
  return Tally::joined(tallies);
}

// The records of every point assembled whole in records, each at its place in the file, by
// blocks of points on all threads (a LAZ file's chunks are then compressed on all threads too):
// each block counts its own records, and a value that does not fit is the first in file order
// whatever the threads.
template <bool Extended>
Tally layRecords(const WritePlan& plan, const Layout& layout,
                 std::unique_ptr<std::uint8_t[]>& records,
                 const Basalt::StrongPtr<Basalt::LoaderProgress>& progress) {
  const std::size_t n = layout.count, recordLength = plan.info.header.recordLength;
  records.reset(new std::uint8_t[std::max<std::size_t>(n, 1) * recordLength]); // all written
  const PointEncoder encoder(plan);
  const Quantizer quantizer(plan.info.header);
  const std::vector<std::size_t> starts = fragmentStarts(layout);
  constexpr std::size_t BlockPoints = 1 << 16;
  std::vector<Tally> tallies((n + BlockPoints - 1) / BlockPoints);
  Percent percent(progress, n, "writing");
  forEachItem(tallies.size(), allThreads(), [&](std::size_t b) {
    const std::size_t begin = b * BlockPoints;
    tallies[b] = encodeRange<Extended>(
        encoder, quantizer, layout, starts, begin, std::min(n, begin + BlockPoints), recordLength,
        [&](std::size_t g) {
          return records.get() + (plan.place.empty() ? g : plan.place[g]) * recordLength;
        });
  });
  percent.finish();
  return Tally::joined(tallies);
}

// The point data of a LAZ file whose records lie in layout order (the chunk table's offset, the
// chunks, the chunk table), its points starting at pointOffset: each chunk's records laid out
// from the cloud's arrays into a buffer of its thread and coded there while they are in the
// cache, the chunks on all threads, so that no array of every record is made. A value that does
// not fit is the first in file order whatever the threads.
template <bool Extended>
Tally codeChunks(const WritePlan& plan, const Layout& layout, const Laz::Description& d,
                 std::uint64_t pointOffset, std::vector<std::uint8_t>& data,
                 const Basalt::StrongPtr<Basalt::LoaderProgress>& progress) {
  const std::size_t n = layout.count, recordLength = plan.info.header.recordLength;
  const std::vector<std::uint64_t> sizes = Laz::chunkSizes(n, d.chunkSize);
  const PointEncoder encoder(plan);
  const Quantizer quantizer(plan.info.header);
  const std::vector<std::size_t> starts = fragmentStarts(layout);
  std::vector<Tally> tallies(sizes.size());
  std::vector<std::vector<std::uint8_t>> coded(sizes.size());
  Percent percent(progress, n, "writing");
  forEachItemWith(
      sizes.size(), allThreads(), [] { return std::vector<std::uint8_t>(); },
      [&](std::vector<std::uint8_t>& records, std::size_t k) {
        const std::size_t begin = k * d.chunkSize, count = sizes[k];
        records.resize(count * recordLength); // every byte written below
        tallies[k] = encodeRange<Extended>(
            encoder, quantizer, layout, starts, begin, begin + count, recordLength,
            [&](std::size_t g) { return records.data() + (g - begin) * recordLength; });
        coded[k] =
            Laz::encodeChunk(records.data(), static_cast<std::uint32_t>(count), recordLength, d);
      });
  percent.finish();
  std::vector<Laz::Chunk> chunks;
  data = Laz::joinChunks(coded, sizes, d, pointOffset, chunks);
  return Tally::joined(tallies);
}

// The records of every point: streamed to out where the file takes them in layout order and
// uncompressed, else assembled whole in records.
Tally encodeRecords(const WritePlan& plan, const Layout& layout, bool streaming,
                    std::unique_ptr<std::uint8_t[]>& records, TemporaryFile& out,
                    const Basalt::StrongPtr<Basalt::LoaderProgress>& progress) {
  // Each loop made once per kind of record, so that no point asks which kind it is.
  if (format(plan.info.header.pointFormat).extended)
    return streaming ? streamRecords<true>(plan, layout, out, progress)
                     : layRecords<true>(plan, layout, records, progress);
  return streaming ? streamRecords<false>(plan, layout, out, progress)
                   : layRecords<false>(plan, layout, records, progress);
}

// Writes the point data to out after the head, and says its bytes: LAS records streamed where
// the file takes them in layout order, else assembled whole; LAZ chunks coded as their records
// are laid out where they lie in layout order and the file is not COPC, else compressed from all
// records at once.
Tally writePoints(const WritePlan& plan, const Layout& layout, Framing& frame,
                  std::vector<std::uint8_t>& head, TemporaryFile& out, std::uint64_t& pointBytes,
                  const Basalt::StrongPtr<Basalt::LoaderProgress>& progress) {
  const Header& h = plan.info.header;
  if (frame.laz && !frame.copc && plan.place.empty()) {
    std::vector<std::uint8_t> data;
    const Tally tally =
        format(h.pointFormat).extended
            ? codeChunks<true>(plan, layout, frame.compression, head.size(), data, progress)
            : codeChunks<false>(plan, layout, frame.compression, head.size(), data, progress);
    out.write(data.data(), data.size());
    pointBytes = data.size();
    return tally;
  }
  const bool streaming = plan.place.empty() && !frame.laz;
  std::unique_ptr<std::uint8_t[]> records;
  const Tally tally = encodeRecords(plan, layout, streaming, records, out, progress);
  pointBytes = layout.count * h.recordLength;
  if (frame.laz) {
    const auto data =
        compress(frame.copc, records.get(), layout.count, h, frame.compression, head, frame.evlrs);
    out.write(data.data(), data.size());
    pointBytes = data.size();
  } else if (!streaming)
    out.write(records.get(), pointBytes);
  return tally;
}

void writeGrid(const std::string& path, const Tressel::Grid& grid, const FileInfo* origin,
               const WriteOptions& options,
               const Basalt::StrongPtr<Basalt::LoaderProgress>& progress) {
  const Layout layout = layoutOf(grid);
  const WritePlan plan = planWrite(path, grid, layout, origin, options);
  const Header& h = plan.info.header;
  Framing frame = framingOf(path, plan.info);
  std::vector<std::uint8_t> head = headOf(h.versionMinor, frame.vlrs);
  TemporaryFile out(path);
  out.write(head.data(), head.size());

  // The header is written last, when the records tell the bounds and the counts per return.
  std::uint64_t pointBytes = 0;
  const Tally tally = writePoints(plan, layout, frame, head, out, pointBytes, progress);
  std::vector<std::uint8_t> tail;
  for (const Vlr& v : frame.evlrs)
    encodeRecord(v, true, tail);
  out.write(tail.data(), tail.size());

  const std::uint64_t evlrOffset = frame.evlrs.empty() ? 0 : head.size() + pointBytes;
  RawHeader raw = completed(
      h, {frame.vlrs.size(), head.size(), frame.evlrs.size(), evlrOffset, frame.laz}, tally);
  raw.header.waveformStart =
      origin && h.waveformStart != 0 && h.waveformStart == h.evlrOffset ? evlrOffset : 0;
  encodeHeader(raw, head.data());
  out.writeAt(0, head.data(), head.size()); // the VLRs too: COPC's info is known only now
  out.commit();
}

} // namespace

void write(const std::string& path, const Tressel::Grid& grid, const WriteOptions& options,
           const Basalt::StrongPtr<Basalt::LoaderProgress>& progress) {
  namingFile(path, [&] {
    std::optional<FileInfo> origin;
    try {
      origin = fileInfo(grid);
    } catch (const Error& e) {
      throw Problem(e.what());
    }
    writeGrid(path, grid, origin ? &*origin : nullptr, options, progress);
  });
}

} // namespace Quorvel::Las
