// quorvel host: LAS and LAZ inputs joined or split record by record.
#include "cli/commands/las_inputs.hpp"

#include "cli/host.hpp"
#include "io/raster.hpp"

#include <cmath>
#include <cstring>

namespace Quorvel::Cli {

namespace {

std::string layout(const Las::Header& h) {
  return "point format " + std::to_string(h.pointFormat) + " with " +
         std::to_string(h.recordLength) + "-byte records";
}

std::string extraNames(const Las::FileInfo& info) {
  std::string names;
  for (const Las::ExtraBytes& e : info.extraBytes)
    names += (names.empty() ? "\"" : ", \"") + e.name + "\" " + Las::typeName(e);
  return names.empty() ? "no extra bytes" : "extra bytes " + names;
}

std::string crsName(const std::optional<Raster::CoordinateSystem>& cs) {
  if (!cs)
    return "no coordinate system";
  return cs->epsg ? "EPSG:" + std::to_string(cs->epsg) + " (" + cs->name + ")" : cs->name;
}

// Throws Error when the records of b cannot join those of a in one file.
void checkAlike(const Las::Reader& a, const Las::Reader& b) {
  const Las::FileInfo &x = a.info(), &y = b.info();
  if (x.header.pointFormat != y.header.pointFormat ||
      x.header.recordLength != y.header.recordLength)
    throw Error(b.path() + ": " + layout(y.header) + ", " + a.path() + ": " + layout(x.header) +
                "; the inputs must share one point format (convert them first)");
  if (extraNames(x) != extraNames(y))
    throw Error(b.path() + ": " + extraNames(y) + ", " + a.path() + ": " + extraNames(x) +
                "; the inputs must share their extra-bytes dimensions");
  const auto p = Raster::coordinateSystemOf(x.header, x.vlrs, x.evlrs);
  const auto q = Raster::coordinateSystemOf(y.header, y.vlrs, y.evlrs);
  const bool same = p && q ? (p->epsg && p->epsg == q->epsg) || p->wkt == q->wkt : !p && !q;
  if (!same)
    throw Error(b.path() + ": " + crsName(q) + ", " + a.path() + ": " + crsName(p) +
                "; the inputs must share one coordinate system");
}

// Rewrites the integer coordinates of count records from the scale and offset of `from` to
// those of `to`; throws Error naming the file when one does not fit.
void requantize(std::uint8_t* records, std::size_t count, std::size_t length,
                const Las::Header& from, const Las::Header& to, const std::string& path) {
  for (std::size_t i = 0; i < count; ++i) {
    std::int32_t raw[3];
    std::memcpy(raw, records + i * length, 12);
    for (int a = 0; a < 3; ++a) {
      const double v = raw[a] * from.scale[a] + from.offset[a];
      const double r = std::round((v - to.offset[a]) / to.scale[a]);
      if (!(r >= -2147483648.0 && r <= 2147483647.0))
        throw Error(path + ": coordinate " + std::to_string(v) +
                    " does not fit the scale and offset of the first input");
      raw[a] = static_cast<std::int32_t>(r);
    }
    std::memcpy(records + i * length, raw, 12);
  }
}

} // namespace

LasInputs::LasInputs(const std::vector<std::string>& paths, const std::optional<Las::Box>& box) {
  for (const std::string& path : paths) {
    try {
      readers_.push_back(std::make_unique<Las::Reader>(path, readWarnings(path)));
      if (box)
        readers_.back()->restrict(*box);
    } catch (const Las::Error& e) {
      throw Error(e.what());
    }
    checkAlike(*readers_.front(), *readers_.back());
  }
}

std::uint64_t LasInputs::pointCount() const {
  std::uint64_t n = 0;
  for (const auto& r : readers_)
    n += r->info().header.pointCount;
  return n;
}

void LasInputs::forEachBatch(
    const std::function<void(const std::string&, const std::uint8_t*, std::size_t)>& use) {
  const Las::Header& target = first().header;
  std::vector<std::uint8_t> moved;
  for (const auto& reader : readers_) {
    const Las::Header& h = reader->info().header;
    const bool same = h.scale == target.scale && h.offset == target.offset;
    try {
      for (Las::Batch b = reader->next(); b.count > 0; b = reader->next()) {
        if (same) {
          use(reader->path(), b.records, b.count);
          continue;
        }
        moved.assign(b.records, b.records + b.count * h.recordLength);
        requantize(moved.data(), b.count, h.recordLength, h, target, reader->path());
        use(reader->path(), moved.data(), b.count);
      }
    } catch (const Las::Error& e) {
      throw Error(e.what());
    }
  }
}

std::string withFormat(const std::string& stem, const std::string& format) {
  return stem + (format == "copc" ? ".copc.laz" : "." + format);
}

} // namespace Quorvel::Cli
