// Quorvel: writing point-cloud grids as LAS, fragment arrays encoded straight into the records.
#include "io/detail/Copc.hpp"
#include "io/detail/LasFormats.hpp"
#include "io/detail/LasHeader.hpp"
#include "io/detail/LasOutput.hpp"
#include "io/detail/LasProgress.hpp"
#include "io/detail/LasWritePlan.hpp"
#include "io/files.hpp"
#include "io/laz/Laz.hpp"

#include "basalt/Text.hpp"
#include "tressel/PointCloud.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <memory>
#include <unistd.h>

namespace Quorvel::Las {

using Vantor::PhysicalSpace::point;

namespace {

using namespace detail;

// Points per chunk of a LAZ file written here, as LASzip writes them.
constexpr std::uint32_t LazChunkPoints = 50000;

// The compressed point data of n records (as head.size() places it) and, for COPC, the hierarchy
// EVLR put before the others and the info record written into head, the first VLR.
std::vector<std::uint8_t> compress(const std::string& path, const std::uint8_t* records,
                                   std::size_t n, const Header& h, const Laz::Description& d,
                                   std::vector<std::uint8_t>& head, std::vector<Vlr>& evlrs) {
  try {
    if (!Copc::isCopcPath(path))
      return Laz::encode(records, n, h.recordLength, d, head.size());
    Copc::Encoded copc = Copc::encodePoints(records, n, h.recordLength, h, d, head.size());
    copc.info.rootPageOffset = head.size() + copc.pointData.size() + EvlrHeaderSize;
    copc.info.rootPageSize = copc.page.size();
    const auto info = Copc::encodeInfo(copc.info);
    std::copy(info.begin(), info.end(), head.begin() + Copc::InfoOffset);
    Vlr hierarchy{0, "copc", Copc::HierarchyRecordId, "COPC hierarchy", std::move(copc.page)};
    evlrs.insert(evlrs.begin(), std::move(hierarchy));
    return std::move(copc.pointData);
  } catch (const Error&) {
    throw;
  } catch (const std::runtime_error& e) {
    throw Error(path + ": " + e.what());
  }
}

// The "copc info" record, its data filled in once the point data is written.
Vlr copcInfoRecord() {
  return {0, "copc", Copc::InfoRecordId, "COPC info", std::vector<std::uint8_t>(Copc::InfoSize, 0)};
}

// One value encoded into the record: a whole number of bytes, or bits of a byte.
struct Put {
  const Source* from;
  int to;    // offset in the record
  int size;  // bytes; 0 for bits; -4 or -8 for a vector component as float32 or float64
  int shift; // bits: position
  std::uint8_t mask;
};

// Encodes the values of point j of fragment k (point g of the file) into its record r.
inline void encode(const std::vector<Put>& puts, std::size_t k, std::size_t j, std::size_t g,
                   std::uint8_t* r, const std::string& path, int chosen) {
  for (const Put& u : puts) {
    const std::uint8_t* from = u.from->fragments[k];
    if (u.size == 0) {
      const std::uint8_t v = from[j];
      if (v > u.mask)
        throw Error(path + ": " + u.from->name + " " + std::to_string(v) + " of point " +
                    std::to_string(g) + " does not fit point format " + std::to_string(chosen));
      r[u.to] = static_cast<std::uint8_t>(r[u.to] | (v << u.shift));
      continue;
    }
    // Fixed sizes, so that each copy is one move rather than a library call.
    switch (u.size) {
    case 1:
      r[u.to] = from[j];
      break;
    case 2:
      std::memcpy(r + u.to, from + 2 * j, 2);
      break;
    case 4:
      std::memcpy(r + u.to, from + 4 * j, 4);
      break;
    case 8:
      std::memcpy(r + u.to, from + 8 * j, 8);
      break;
    case -4: { // a vector component of three doubles
      double wide;
      std::memcpy(&wide, from + 24 * j, 8);
      const auto value = static_cast<float>(wide);
      if (std::isinf(value) && std::isfinite(wide))
        throw Error(path + ": " + u.from->name + " " + Basalt::format("%.17g", wide) +
                    " of point " + std::to_string(g) + " does not fit float32");
      std::memcpy(r + u.to, &value, 4);
      break;
    }
    default:
      std::memcpy(r + u.to, from + 24 * j, 8);
      break;
    }
  }
}

void writeGrid(const std::string& path, const Tressel::Grid& grid, const FileInfo* origin,
               const WriteOptions& options,
               const Basalt::StrongPtr<Basalt::LoaderProgress>& progress) {
  const Layout layout = layoutOf(grid, path);
  const std::vector<std::size_t>& sizes = layout.sizes;
  const std::size_t n = layout.count;
  const WritePlan plan = planWrite(path, grid, layout, origin, options);
  const std::vector<std::uint64_t>& place = plan.place;
  const Header& h = plan.info.header;
  const int chosen = h.pointFormat;
  const int minor = h.versionMinor;
  const Format& f = format(chosen);
  const std::vector<ExtraBytes>& extras = plan.info.extraBytes;
  // LAZ by the name: the records are compressed in chunks, described by a "laszip encoded" VLR.
  const bool laz = Files::isLaz(path);
  // COPC: variable chunks, one per node of its octree, and its info record first of all.
  const bool copc = Copc::isCopcPath(path);
  Laz::Description compression;
  std::vector<Vlr> vlrs = plan.info.vlrs;
  if (copc)
    vlrs.insert(vlrs.begin(), copcInfoRecord());
  if (laz) {
    try {
      vlrs.push_back(Laz::laszipRecord(chosen, h.recordLength - f.length,
                                       copc ? Laz::Description::VariableChunks : LazChunkPoints,
                                       compression));
    } catch (const std::runtime_error& e) {
      throw Error(path + ": " + e.what());
    }
  }
  std::vector<Vlr> evlrs = plan.info.evlrs;
  const std::size_t recordLength = h.recordLength;
  const auto rgbSource = sourceOf(grid, "RGB", layout, path);

  // Puts: every value of the format that the grid has, then the extra bytes.
  std::vector<std::optional<Source>> standard;
  std::vector<Put> puts;
  standard.reserve(dims(chosen).size());
  for (const Dim& d : dims(chosen)) {
    standard.push_back(sourceOf(grid, d.name, layout, path));
    if (!standard.back())
      continue;
    if (standard.back()->type != kindName(d.kind))
      throw Error(path + ": field \"" + std::string(d.name) + "\" holds " + standard.back()->type +
                  ", the LAS record needs " + kindName(d.kind));
    puts.push_back({&*standard.back(), d.offset, d.bits > 0 ? 0 : kindSize(d.kind), d.shift,
                    static_cast<std::uint8_t>((1 << d.bits) - 1)});
  }
  int at = f.length;
  for (std::size_t e = 0; e < extras.size(); ++e) {
    const auto fields = extraFields(extras[e]);
    for (std::size_t i = 0; i < fields.size(); ++i) {
      const Source& s = plan.extraSources[e][i];
      const int size = kindSize(fields[i].kind);
      puts.push_back({&s, at + fields[i].offset, s.component >= 0 ? -size : size, 0, 0});
    }
    at += extras[e].size;
  }
  const auto angles = sourceOf(grid, "ScanAngle", layout, path);
  if (angles && angles->type != "float32")
    throw Error(path + ": field \"ScanAngle\" holds " + angles->type + ", not float32");

  // The whole file in one buffer: header, VLRs, records, EVLRs.
  std::vector<std::uint8_t> head(headerSizeFor(minor), 0);
  for (const Vlr& v : vlrs) {
    if (v.data.size() > 0xFFFF)
      throw Error(path + ": VLR \"" + v.userId + "\" " + std::to_string(v.recordId) + " of " +
                  std::to_string(v.data.size()) + " bytes is too long for a VLR");
    encodeRecord(v, false, head);
  }
  if (head.size() > std::numeric_limits<std::uint32_t>::max())
    throw Error(path + ": the VLRs are too long");
  const std::size_t recordBytes = n * recordLength;

  // Records in file order go out in blocks of about 1 MB that stay in cache; placed ones (after
  // "PointIndex") are assembled whole. The header is written last, when the bounds are known.
  const bool streaming = place.empty() && !laz; // LAZ compresses all records at once
  const std::size_t blockPoints =
      streaming ? std::max<std::size_t>(1, (std::size_t(1) << 20) / recordLength) : n;
  std::unique_ptr<std::uint8_t[]> records( // every byte of a record is written below
      new std::uint8_t[std::max<std::size_t>(std::min(n, blockPoints), 1) * recordLength]);
  std::size_t filled = 0;
  TemporaryFile out(path);
  out.write(head.data(), head.size());

  Tally tally;
  const double inverse[3] = {1 / h.scale[0], 1 / h.scale[1], 1 / h.scale[2]};
  const bool exactInverse =
      inverse[0] * h.scale[0] == 1 && inverse[1] * h.scale[1] == 1 && inverse[2] * h.scale[2] == 1;
  const int returnBits = f.extended ? 15 : 7;
  std::size_t g0 = 0;
  Percent percent(progress, n, "writing");
  for (std::size_t k = 0; k < sizes.size(); ++k) {
    const point* p = layout.xyz[k];
    const float* angle = angles ? reinterpret_cast<const float*>(angles->fragments[k]) : nullptr;
    const std::uint8_t* rgb = rgbSource ? rgbSource->fragments[k] : nullptr;
    for (std::size_t j = 0; j < sizes[k]; ++j) {
      const std::size_t g = g0 + j;
      const std::size_t slot = streaming ? filled++ : place.empty() ? g : place[g];
      std::uint8_t* r = records.get() + slot * recordLength;
      std::memset(r, 0, recordLength);
      std::int32_t xyz[3];
      for (int a = 0; a < 3; ++a) {
        const double shifted = p[j][a] - h.offset[a];
        const double v = exactInverse ? shifted * inverse[a] : shifted / h.scale[a];
        // Rounded half away from zero once the range is known (NaN fails the test).
        if (!(v > -2147483648.5 && v < 2147483647.5))
          throw Error(path + ": coordinate " + Basalt::format("%.17g", p[j][a]) + " of point " +
                      std::to_string(g) +
                      " does not fit the LAS integer coordinates (an automatic offset or another "
                      "scale may help)");
        xyz[a] = static_cast<std::int32_t>(v + (v < 0 ? -0.5 : 0.5));
      }
      std::memcpy(r, xyz, 12);
      encode(puts, k, j, g, r, path, chosen);
      if (angle) {
        const double v = f.extended ? angle[j] / 0.006 : angle[j];
        const double limit = f.extended ? 32767.5 : 127.5; // int16 or int8 after rounding
        if (!(v > -limit - 1 && v < limit))
          throw Error(path + ": ScanAngle " + Basalt::format("%g", angle[j]) + " of point " +
                      std::to_string(g) + " does not fit point format " + std::to_string(chosen));
        const auto a = static_cast<std::int16_t>(v + (v < 0 ? -0.5 : 0.5));
        if (f.extended)
          std::memcpy(r + 18, &a, 2);
        else
          r[16] = static_cast<std::uint8_t>(static_cast<std::int8_t>(a));
      }
      if (rgb)
        std::memcpy(r + f.rgb, rgb + 6 * j, 6);
      tally.add(xyz, r[14] & returnBits);
      if (streaming && filled == blockPoints) {
        out.write(records.get(), filled * recordLength);
        filled = 0;
        percent.reached(g + 1);
      }
    }
    g0 += sizes[k];
    percent.reached(g0);
  }

  percent.finish();
  std::uint64_t pointBytes = recordBytes;
  if (laz) {
    const auto data = compress(path, records.get(), n, h, compression, head, evlrs);
    out.write(data.data(), data.size());
    pointBytes = data.size();
  } else
    out.write(records.get(), (streaming ? filled : n) * recordLength);
  std::vector<std::uint8_t> tail;
  for (const Vlr& v : evlrs)
    encodeRecord(v, true, tail);
  out.write(tail.data(), tail.size());

  // The header, now that the records tell the bounds and the counts per return.
  const std::uint64_t evlrOffset = evlrs.empty() ? 0 : head.size() + pointBytes;
  RawHeader raw = completed(h, {vlrs.size(), head.size(), evlrs.size(), evlrOffset, laz}, tally);
  raw.header.waveformStart =
      origin && h.waveformStart != 0 && h.waveformStart == h.evlrOffset ? evlrOffset : 0;
  encodeHeader(raw, head.data());
  out.writeAt(0, head.data(), head.size()); // the VLRs too: COPC's info is known only now
  out.commit();
}

} // namespace

void write(const std::string& path, const Tressel::Grid& grid, const WriteOptions& options,
           const Basalt::StrongPtr<Basalt::LoaderProgress>& progress) {
  std::optional<FileInfo> origin;
  try {
    origin = fileInfo(grid);
  } catch (const Error& e) {
    throw Error(path + ": " + e.what());
  }
  writeGrid(path, grid, origin ? &*origin : nullptr, options, progress);
}

} // namespace Quorvel::Las
