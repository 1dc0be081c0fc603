// Quorvel: writing point-cloud grids as LAS, fragment arrays encoded straight into the records.
#include "io/detail/LasFormats.hpp"
#include "io/detail/LasHeader.hpp"

#include "basalt/Text.hpp"
#include "tressel/PointCloud.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <iostream>
#include <limits>
#include <memory>
#include <unistd.h>

namespace Quorvel::Las {

using Vantor::PhysicalSpace::point;

namespace {

using namespace detail;

// A field's arrays, one per fragment of the positions' layout, as raw element pointers.
struct Source {
  std::string name;
  std::string type;
  std::vector<const std::uint8_t*> fragments;
};

std::optional<Source> sourceOf(const Tressel::Grid& grid, const std::string& name,
                               const std::vector<std::size_t>& sizes, const std::string& path) {
  auto field = grid(Tressel::StandardCartesianChart3D, name);
  if (!field || !field->getElementType())
    return std::nullopt;
  Source s{name, field->getElementType()->name(), {}};
  std::size_t k = 0;
  field->iterate([&](const auto&, const auto& creator) {
    const auto data = creator ? creator->peekData() : nullptr;
    if (!data || k >= sizes.size() || data->nElements() != sizes[k])
      throw Error(path + ": field \"" + name + "\" is not laid out like the positions");
    s.fragments.push_back(static_cast<const std::uint8_t*>(data->myChunk()->rawData()));
    ++k;
    return true;
  });
  if (k != sizes.size())
    throw Error(path + ": field \"" + name + "\" is not laid out like the positions");
  return s;
}

// One value encoded into the record: a whole number of bytes, or bits of a byte.
struct Put {
  const Source* from;
  int to;    // offset in the record
  int size;  // bytes; 0 for bits
  int shift; // bits: position
  std::uint8_t mask;
};

// The largest value of a uint8 field (0 when absent).
unsigned maxOf(const std::optional<Source>& s, const std::vector<std::size_t>& sizes) {
  unsigned most = 0;
  if (s)
    for (std::size_t k = 0; k < sizes.size(); ++k)
      for (std::size_t j = 0; j < sizes[k]; ++j)
        most = std::max<unsigned>(most, s->fragments[k][j]);
  return most;
}

std::string axisText(const std::array<double, 3>& v) {
  return Basalt::format("%.17g %.17g %.17g", v[0], v[1], v[2]);
}

// A temporary file beside the target, renamed over it by commit() only when complete; removed
// when dropped before, so a failed write leaves an earlier file as it was.
class TemporaryFile {
public:
  explicit TemporaryFile(const std::string& path)
      : path_(path), temporary_(path + ".tmp." + std::to_string(::getpid())) {
    fd_ = ::open(temporary_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd_ < 0)
      throw Error(path + ": cannot create " + temporary_);
  }
  ~TemporaryFile() {
    if (fd_ >= 0)
      ::close(fd_);
    if (!committed_)
      ::unlink(temporary_.c_str());
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  void write(const std::uint8_t* data, std::size_t size) {
    for (std::size_t done = 0; done < size;) {
      const ssize_t wrote = ::write(fd_, data + done, std::min<std::size_t>(size - done, 1u << 30));
      if (wrote <= 0)
        throw Error(path_ + ": cannot write the file");
      done += static_cast<std::size_t>(wrote);
    }
  }
  void writeAt(std::uint64_t at, const std::uint8_t* data, std::size_t size) {
    if (::pwrite(fd_, data, size, static_cast<off_t>(at)) != static_cast<ssize_t>(size))
      throw Error(path_ + ": cannot write the file");
  }
  void commit() {
    const int fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0 || std::rename(temporary_.c_str(), path_.c_str()) != 0)
      throw Error(path_ + ": cannot write the file");
    committed_ = true;
  }

private:
  std::string path_, temporary_;
  int fd_ = -1;
  bool committed_ = false;
};

void writeGrid(const std::string& path, const Tressel::Grid& grid, const FileInfo* origin,
               const WriteOptions& options,
               const Basalt::StrongPtr<Basalt::LoaderProgress>& progress) {
  auto positionsField = grid.CartesianPositions();
  if (!positionsField)
    throw Error(path + ": the grid has no positions to write");
  std::vector<std::size_t> sizes;
  std::vector<const point*> xyz;
  positionsField->iterate([&](const auto& id, const auto& creator) {
    const auto array = Tressel::arrayCast<1, point>(creator ? creator->peekData() : nullptr);
    if (!array)
      throw Error(path + ": fragment \"" + id->Name() + "\" holds no positions");
    sizes.push_back(array->size());
    xyz.push_back(array->data());
    return true;
  });
  std::size_t n = 0;
  for (std::size_t s : sizes)
    n += s;

  // File order: "PointIndex" ranks the points; without it, fragment after fragment.
  std::vector<std::uint64_t> place;
  if (auto index = sourceOf(grid, "PointIndex", sizes, path)) {
    if (index->type != "uint64")
      throw Error(path + ": field \"PointIndex\" holds " + index->type + ", not uint64");
    // The usual cases first: the file order as read (nothing to place), or a permutation of it.
    bool identity = true;
    for (std::size_t k = 0, g = 0; k < sizes.size() && identity; ++k) {
      const auto* v = reinterpret_cast<const std::uint64_t*>(index->fragments[k]);
      for (std::size_t j = 0; j < sizes[k] && identity; ++j, ++g)
        identity = v[j] == g;
    }
    std::vector<std::uint64_t> values;
    bool permutation = true;
    if (!identity) {
      values.reserve(n);
      for (std::size_t k = 0; k < sizes.size(); ++k) {
        const auto* v = reinterpret_cast<const std::uint64_t*>(index->fragments[k]);
        values.insert(values.end(), v, v + sizes[k]);
      }
      std::vector<std::uint8_t> seen(n, 0);
      for (std::size_t g = 0; g < n && permutation; ++g)
        permutation = values[g] < n && !seen[values[g]]++;
    }
    if (!identity && !permutation) {
      // Gaps or repeats (points removed or merged): rank by the value, ties in layout order.
      std::vector<std::uint64_t> order(n);
      for (std::size_t g = 0; g < n; ++g)
        order[g] = g;
      std::stable_sort(order.begin(), order.end(),
                       [&](std::uint64_t a, std::uint64_t b) { return values[a] < values[b]; });
      for (std::size_t rank = 0; rank < n; ++rank)
        values[order[rank]] = rank;
    }
    if (!identity)
      place = std::move(values);
  }

  // The format: the origin's, or 6, 7 or 8 by colour and NIR; moved where a field needs it.
  FileInfo info = origin ? *origin : FileInfo{};
  Header& h = info.header;
  const auto classes = sourceOf(grid, "Classification", sizes, path);
  const auto rgbSource = sourceOf(grid, "RGB", sizes, path);
  if (rgbSource && rgbSource->type != "rgb16")
    throw Error(path + ": field \"RGB\" holds " + rgbSource->type + ", not rgb16");
  auto has = [&](const char* name) {
    return grid(Tressel::StandardCartesianChart3D, name) != nullptr;
  };
  if (!origin) {
    h.pointFormat = has("NIR") ? 8 : (rgbSource ? 7 : 6);
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    h.day = static_cast<std::uint16_t>(utc.tm_yday + 1);
    h.year = static_cast<std::uint16_t>(utc.tm_year + 1900);
  }
  Needs needs;
  std::string why;
  auto need = [&](bool& flag, bool when, const std::string& reason) {
    if (when && !flag) {
      flag = true;
      why += (why.empty() ? "" : ", ") + reason;
    }
  };
  const Needs had = needsOf(h.pointFormat);
  need(needs.rgb, rgbSource && !had.rgb, "RGB");
  need(needs.nir, has("NIR") && !had.nir, "NIR");
  need(needs.gps, has("GpsTime") && !had.gps, "GpsTime");
  for (const char* wave : {"WavePacketIndex", "WaveformOffset", "WaveformSize",
                           "ReturnPointLocation", "WaveXt", "WaveYt", "WaveZt"})
    need(needs.wave, has(wave) && !had.wave, std::string(wave));
  if (!had.extended) {
    need(needs.extended, has("Overlap"), "Overlap");
    need(needs.extended, has("ScannerChannel"), "ScannerChannel");
    need(needs.extended, maxOf(classes, sizes) > 31, "classes above 31");
    for (const char* name : {"ReturnNumber", "NumberOfReturns"})
      if (auto s = sourceOf(grid, name, sizes, path); s && s->type == "uint8")
        need(needs.extended, maxOf(s, sizes) > 7, std::string(name) + " above 7");
  }
  const int chosen = formatFor(h.pointFormat, needs);
  int minor = std::max<int>(origin ? h.versionMinor : 4, format(chosen).versionMinor);
  if (!info.evlrs.empty() || n > std::numeric_limits<std::uint32_t>::max())
    minor = 4;
  if (chosen != h.pointFormat || (origin && minor != h.versionMinor))
    std::cerr << path << ": writing LAS 1." << minor << " point format " << chosen
              << " instead of LAS 1." << int(h.versionMinor) << " point format "
              << int(h.pointFormat)
              << (why.empty() ? std::string(" (for the EVLRs or count)") : " (for " + why + ")")
              << "\n";
  h.pointFormat = static_cast<std::uint8_t>(chosen);
  h.versionMajor = 1;
  h.versionMinor = static_cast<std::uint8_t>(minor);
  const Format& f = format(chosen);

  // Scale and offset: the options, else the origin's, else 0.001 and the floor of the minimum.
  if (options.scale)
    h.scale = *options.scale;
  else if (options.autoScale || !origin)
    h.scale = {0.001, 0.001, 0.001};
  if (options.offset)
    h.offset = *options.offset;
  else if (options.autoOffset || !origin) {
    std::array<double, 3> lo;
    lo.fill(std::numeric_limits<double>::infinity());
    for (std::size_t k = 0; k < sizes.size(); ++k)
      for (std::size_t j = 0; j < sizes[k]; ++j)
        for (int a = 0; a < 3; ++a)
          lo[a] = std::min(lo[a], xyz[k][j][a]);
    for (int a = 0; a < 3; ++a)
      h.offset[a] = std::isfinite(lo[a]) ? std::floor(lo[a]) : 0.0;
  }
  for (int a = 0; a < 3; ++a)
    if (!(h.scale[a] > 0) || !std::isfinite(h.scale[a]) || !std::isfinite(h.offset[a]))
      throw Error(path + ": scale " + axisText(h.scale) + " and offset " + axisText(h.offset) +
                  " cannot place coordinates (scales finite and positive, offsets finite)");

  // Extra bytes: those of the origin that the grid still has, then every other scalar field.
  std::vector<ExtraBytes> extras;
  std::vector<Source> extraSources;
  std::set<std::string> used = recordNames();
  for (const ExtraBytes& e : info.extraBytes) {
    if (e.dataType == 0)
      continue;
    auto s = sourceOf(grid, e.name, sizes, path);
    if (s && s->type == kindName(extraKind(e.dataType)) && used.insert(e.name).second) {
      extras.push_back(e);
      extraSources.push_back(std::move(*s));
    }
  }
  auto rep = grid.getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  for (const auto& [id, field] : rep->snapshot()) {
    if (used.count(id->Name()) || !field || !field->getElementType())
      continue;
    const auto kind = kindOf(field->getElementType()->name());
    if (!kind)
      throw Error(path + ": field \"" + id->Name() + "\" of " + field->getElementType()->name() +
                  " has no LAS representation");
    ExtraBytes e;
    e.name = id->Name();
    e.dataType = extraType(*kind);
    e.size = kindSize(*kind);
    e.descriptor[2] = static_cast<std::uint8_t>(e.dataType);
    std::memcpy(e.descriptor.data() + 4, e.name.data(), std::min<std::size_t>(32, e.name.size()));
    const char comment[] = "Quorvel result";
    std::memcpy(e.descriptor.data() + 160, comment, sizeof comment - 1);
    extras.push_back(e);
    extraSources.push_back(*sourceOf(grid, e.name, sizes, path));
    used.insert(e.name);
  }
  std::size_t recordLength = static_cast<std::size_t>(f.length);
  for (const ExtraBytes& e : extras)
    recordLength += static_cast<std::size_t>(e.size);
  if (recordLength > 0xFFFF)
    throw Error(path + ": " + std::to_string(extras.size()) +
                " extra-bytes dimensions do not fit a point record");
  h.recordLength = static_cast<std::uint16_t>(recordLength);

  // VLRs: the origin's as they were when the grid keeps exactly its extra-bytes dimensions,
  // otherwise with one extra-bytes record made anew in place of the first.
  std::size_t described = 0;
  for (const ExtraBytes& e : info.extraBytes)
    described += e.dataType != 0 ? 1 : 0;
  bool sameExtras = described == info.extraBytes.size() && extras.size() == described;
  for (std::size_t k = 0; k < extras.size() && sameExtras; ++k)
    sameExtras = extras[k].descriptor == info.extraBytes[k].descriptor;
  std::vector<Vlr> vlrs, evlrs;
  Vlr extraRecord;
  extraRecord.userId = "LASF_Spec";
  extraRecord.recordId = 4;
  extraRecord.description = "Extra bytes";
  for (const ExtraBytes& e : extras)
    extraRecord.data.insert(extraRecord.data.end(), e.descriptor.begin(), e.descriptor.end());
  bool extraPlaced = extras.empty();
  for (const Vlr& v : info.vlrs) {
    if (!isExtraBytesRecord(v) || sameExtras)
      vlrs.push_back(v);
    else if (!extraPlaced) {
      vlrs.push_back(extraRecord);
      extraPlaced = true;
    }
  }
  for (const Vlr& v : info.evlrs)
    if (!isExtraBytesRecord(v) || sameExtras)
      evlrs.push_back(v);
    else if (!extraPlaced && minor >= 4) {
      evlrs.push_back(extraRecord);
      extraPlaced = true;
    }
  if (!extraPlaced && !sameExtras)
    vlrs.push_back(extraRecord);

  // Puts: every value of the format that the grid has, then the extra bytes.
  std::vector<std::optional<Source>> standard;
  std::vector<Put> puts;
  standard.reserve(dims(chosen).size());
  for (const Dim& d : dims(chosen)) {
    standard.push_back(sourceOf(grid, d.name, sizes, path));
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
    puts.push_back({&extraSources[e], at, extras[e].size, 0, 0});
    at += extras[e].size;
  }
  const auto angles = sourceOf(grid, "ScanAngle", sizes, path);
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
  std::vector<std::uint8_t> tail;
  for (const Vlr& v : evlrs)
    encodeRecord(v, true, tail);
  const std::size_t recordBytes = n * recordLength;

  // Records in file order go out in blocks of about 1 MB that stay in cache; placed ones (after
  // "PointIndex") are assembled whole. The header is written last, when the bounds are known.
  const bool streaming = place.empty();
  const std::size_t blockPoints =
      streaming ? std::max<std::size_t>(1, (std::size_t(1) << 20) / recordLength) : n;
  std::unique_ptr<std::uint8_t[]> records( // every byte of a record is written below
      new std::uint8_t[std::max<std::size_t>(std::min(n, blockPoints), 1) * recordLength]);
  std::size_t filled = 0;
  TemporaryFile out(path);
  out.write(head.data(), head.size());

  std::array<std::int32_t, 3> lo, hi;
  lo.fill(std::numeric_limits<std::int32_t>::max());
  hi.fill(std::numeric_limits<std::int32_t>::min());
  std::array<std::uint64_t, 15> byReturn{};
  const double inverse[3] = {1 / h.scale[0], 1 / h.scale[1], 1 / h.scale[2]};
  const bool exactInverse =
      inverse[0] * h.scale[0] == 1 && inverse[1] * h.scale[1] == 1 && inverse[2] * h.scale[2] == 1;
  const int returnBits = f.extended ? 15 : 7;
  std::size_t g0 = 0;
  for (std::size_t k = 0; k < sizes.size(); ++k) {
    const point* p = xyz[k];
    const float* angle = angles ? reinterpret_cast<const float*>(angles->fragments[k]) : nullptr;
    const std::uint8_t* rgb = rgbSource ? rgbSource->fragments[k] : nullptr;
    for (std::size_t j = 0; j < sizes[k]; ++j) {
      const std::size_t g = g0 + j;
      std::uint8_t* r = records.get() + (streaming ? filled++ : place[g]) * recordLength;
      std::memset(r, 0, recordLength);
      for (int a = 0; a < 3; ++a) {
        const double shifted = p[j][a] - h.offset[a];
        const double v = exactInverse ? shifted * inverse[a] : shifted / h.scale[a];
        // Rounded half away from zero once the range is known (NaN fails the test).
        if (!(v > -2147483648.5 && v < 2147483647.5))
          throw Error(path + ": coordinate " + Basalt::format("%.17g", p[j][a]) + " of point " +
                      std::to_string(g) +
                      " does not fit the LAS integer coordinates (an automatic offset or another "
                      "scale may help)");
        const auto i = static_cast<std::int32_t>(v + (v < 0 ? -0.5 : 0.5));
        std::memcpy(r + 4 * a, &i, 4);
        lo[a] = std::min(lo[a], i);
        hi[a] = std::max(hi[a], i);
      }
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
        default:
          std::memcpy(r + u.to, from + 8 * j, 8);
          break;
        }
      }
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
      const int returnNumber = r[14] & returnBits;
      if (returnNumber >= 1)
        ++byReturn[static_cast<std::size_t>(returnNumber - 1)];
      if (streaming && filled == blockPoints) {
        out.write(records.get(), filled * recordLength);
        filled = 0;
      }
    }
    g0 += sizes[k];
    if (progress)
      progress->progress(static_cast<double>(g0) / static_cast<double>(std::max<std::size_t>(n, 1)),
                         "writing");
  }

  out.write(records.get(), (streaming ? filled : n) * recordLength);
  out.write(tail.data(), tail.size());

  // The header, now that the records tell the bounds and the counts per return.
  RawHeader raw;
  raw.header = h;
  Header& o = raw.header;
  o.headerSize = static_cast<std::uint16_t>(headerSizeFor(minor));
  o.vlrCount = static_cast<std::uint32_t>(vlrs.size());
  o.pointOffset = static_cast<std::uint32_t>(head.size());
  o.pointCount = n;
  o.evlrCount = static_cast<std::uint32_t>(evlrs.size());
  const std::uint64_t evlrOffset = evlrs.empty() ? 0 : head.size() + recordBytes;
  o.waveformStart =
      origin && h.waveformStart != 0 && h.waveformStart == h.evlrOffset ? evlrOffset : 0;
  o.evlrOffset = evlrOffset;
  for (int a = 0; a < 3; ++a) {
    const double x = n ? lo[a] * h.scale[a] + h.offset[a] : 0.0;
    const double y = n ? hi[a] * h.scale[a] + h.offset[a] : 0.0;
    o.min[a] = std::min(x, y);
    o.max[a] = std::max(x, y);
  }
  const bool legacy = !f.extended && n <= std::numeric_limits<std::uint32_t>::max();
  raw.legacyPointCount = legacy ? static_cast<std::uint32_t>(n) : 0;
  for (std::size_t k = 0; k < 5; ++k)
    raw.legacyByReturn[k] = legacy ? static_cast<std::uint32_t>(byReturn[k]) : 0;
  raw.pointCount = n;
  raw.byReturn = byReturn;
  encodeHeader(raw, head.data());
  out.writeAt(0, head.data(), o.headerSize);
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

void write(const std::string& path, const Tressel::Grid& grid, const FileInfo* info) {
  if (!info)
    write(path, grid);
  else
    writeGrid(path, grid, info, {}, {});
}

} // namespace Quorvel::Las
