// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: planning a LAS file for a grid.
#include "io/detail/las_write_plan.hpp"

#include "io/detail/copc.hpp"
#include "io/detail/las_formats.hpp"
#include "io/detail/las_header.hpp"

#include "basalt/text.hpp"
#include "tressel/point_cloud.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <limits>

namespace Quorvel::Las::detail {

using Vantor::PhysicalSpace::point;

Layout layoutOf(const Tressel::Grid& grid) {
  auto positions = grid.CartesianPositions();
  if (!positions)
    throw Problem("the grid has no positions to write");
  Layout layout;
  positions->iterate([&](const auto& id, const auto& creator) {
    const Basalt::StrongPtr<const Tressel::MemArray<1, point>> array =
        Tressel::arrayCast<1, point>(creator ? creator->peekData() : nullptr);
    if (!array)
      throw Problem("fragment \"" + id->Name() + "\" holds no positions");
    layout.sizes.push_back(array->size());
    layout.xyz.push_back(array->data());
    layout.count += array->size();
    return true;
  });
  return layout;
}

std::optional<Source> sourceOf(const Tressel::Grid& grid, const std::string& name,
                               const Layout& layout) {
  const auto& sizes = layout.sizes;
  auto field = grid(Tressel::StandardCartesianChart3D, name);
  if (!field || !field->getElementType())
    return std::nullopt;
  Source s{name, field->getElementType()->name(), {}, -1};
  std::size_t k = 0;
  field->iterate([&](const auto&, const auto& creator) {
    const auto data = creator ? creator->peekData() : nullptr;
    if (!data || k >= sizes.size() || data->nElements() != sizes[k])
      throw Problem("field \"" + name + "\" is not laid out like the positions");
    s.fragments.push_back(static_cast<const std::uint8_t*>(data->elementBytes()));
    ++k;
    return true;
  });
  if (k != sizes.size())
    throw Problem("field \"" + name + "\" is not laid out like the positions");
  return s;
}

namespace {

// The largest value of a uint8 field (0 when absent).
unsigned maxOf(const std::optional<Source>& s, const Layout& layout) {
  unsigned most = 0;
  if (s)
    for (std::size_t k = 0; k < layout.sizes.size(); ++k)
      for (std::size_t j = 0; j < layout.sizes[k]; ++j)
        most = std::max<unsigned>(most, s->fragments[k][j]);
  return most;
}

std::string axisText(const std::array<double, 3>& v) {
  return Basalt::format("%.17g %.17g %.17g", v[0], v[1], v[2]);
}

// The file slot of each point: "PointIndex" ranks the points; without it, fragment after
// fragment (an empty result).
std::vector<std::uint64_t> fileOrder(const Tressel::Grid& grid, const Layout& layout) {
  const auto& sizes = layout.sizes;
  const std::size_t n = layout.count;
  std::vector<std::uint64_t> place;
  if (auto index = sourceOf(grid, "PointIndex", layout)) {
    if (index->type != "uint64")
      throw Problem("field \"PointIndex\" holds " + index->type + ", not uint64");
    // The usual cases first: the file order as read (nothing to place), or a permutation of it.
    bool identity = true;
    for (std::size_t k = 0, g = 0; k < sizes.size() && identity; ++k) {
      const auto* v = reinterpret_cast<const std::uint64_t*>(index->fragments[k]);
      for (std::size_t j = 0; j < sizes[k] && identity; ++j, ++g)
        identity = v[j] == g;
    }
    if (!identity) {
      std::vector<std::uint64_t> values;
      values.reserve(n);
      for (std::size_t k = 0; k < sizes.size(); ++k) {
        const auto* v = reinterpret_cast<const std::uint64_t*>(index->fragments[k]);
        values.insert(values.end(), v, v + sizes[k]);
      }
      place = filePlaces(std::move(values));
    }
  }
  return place;
}

// The extra-bytes dimensions planned so far, with the sources of their fields (as
// WritePlan::extraSources), and the names of the fields they write.
struct Extras {
  std::vector<ExtraBytes> dims;
  std::vector<std::vector<Source>> sources;
  std::set<std::string> used = recordNames();

  void add(const ExtraBytes& e, std::vector<Source> of) {
    for (const Source& s : of)
      used.insert(s.name);
    dims.push_back(e);
    sources.push_back(std::move(of));
  }
};

// Component c of a field of vectors.
Source componentOf(Source vectors, int c) {
  vectors.component = c;
  for (const std::uint8_t*& p : vectors.fragments)
    p += sizeof(double) * static_cast<std::size_t>(c);
  return vectors;
}

// The origin's dimensions whose fields the grid still has, with their descriptors. Its normals
// are the components of NormalField when the grid has that and no fields of their own names, so
// that normals read from a file are written back as they were, float64 ones too.
void keepExtras(Extras& extras, const std::vector<ExtraBytes>& origin, const Tressel::Grid& grid,
                const Layout& layout) {
  const auto normals = normalsOf(origin);
  std::optional<Source> vectors;
  if (normals && std::none_of(normals->at.begin(), normals->at.end(), [&](std::size_t i) {
        return grid(Tressel::StandardCartesianChart3D, origin[i].name) != nullptr;
      }))
    vectors = sourceOf(grid, NormalField, layout);
  if (vectors && vectors->type != "vector")
    vectors.reset();
  for (std::size_t i = 0; i < origin.size(); ++i) {
    const ExtraBytes& e = origin[i];
    const int c = vectors ? normals->component(i) : -1;
    std::vector<Source> sources;
    if (c >= 0)
      sources.push_back(componentOf(*vectors, c));
    else
      for (const ExtraField& x : extraFields(e)) {
        auto s = sourceOf(grid, x.name, layout);
        if (!s || s->type != kindName(x.kind) || extras.used.count(x.name))
          break;
        sources.push_back(std::move(*s));
      }
    if (sources.size() == extraFields(e).size())
      extras.add(e, std::move(sources));
  }
}

// The descriptor of a new dimension.
ExtraBytes newDimension(const std::string& name, Kind kind) {
  ExtraBytes e;
  e.name = name;
  e.dataType = extraType(kind);
  e.size = kindSize(kind);
  e.descriptor[2] = static_cast<std::uint8_t>(e.dataType);
  std::memcpy(e.descriptor.data() + 4, e.name.data(), std::min<std::size_t>(32, e.name.size()));
  const char comment[] = "Quorvel result";
  std::memcpy(e.descriptor.data() + 160, comment, sizeof comment - 1);
  return e;
}

// A field of vectors as three float32 dimensions, named as componentNames() says: whole names
// that no other field or dimension has.
void addVectors(Extras& extras, const Source& vectors, const Tressel::Grid& grid) {
  const auto names = componentNames(vectors.name);
  for (const std::string& name : names) {
    const bool taken = extras.used.count(name) ||
                       grid(Tressel::StandardCartesianChart3D, name) != nullptr ||
                       std::any_of(extras.dims.begin(), extras.dims.end(),
                                   [&](const ExtraBytes& e) { return e.name == name; });
    if (taken || name.size() > 32)
      throw Problem("field \"" + vectors.name + "\" cannot be written as extra-bytes " +
                    "dimension \"" + name + "\": " +
                    (taken ? "another field has that name" : "longer than the 32 bytes of a name"));
  }
  for (int c = 0; c < 3; ++c)
    extras.add(newDimension(names[static_cast<std::size_t>(c)], Kind::Float32),
               {componentOf(vectors, c)});
}

// Every field of the grid that no dimension writes yet: a number as a dimension of its kind, a
// vector as three float32 ones.
void addExtras(Extras& extras, const Tressel::Grid& grid, const Layout& layout) {
  auto rep = grid.getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  for (const auto& [id, field] : rep->snapshot()) {
    if (extras.used.count(id->Name()) || !field || !field->getElementType())
      continue;
    const std::string& type = field->getElementType()->name();
    const auto kind = kindOf(type);
    if (!kind && type != "vector")
      throw Problem("field \"" + id->Name() + "\" of " + type + " has no LAS representation");
    const Source source = *sourceOf(grid, id->Name(), layout);
    if (kind)
      extras.add(newDimension(id->Name(), *kind), {source});
    else
      addVectors(extras, source, grid);
  }
}

// Gives info the extra-bytes dimensions extras: the VLRs as they were when it keeps exactly its
// dimensions, otherwise with one extra-bytes record made anew in place of the first.
void setExtraBytes(FileInfo& info, std::vector<ExtraBytes> extras) {
  const int minor = info.header.versionMinor;
  bool sameExtras = extras.size() == info.extraBytes.size();
  for (std::size_t k = 0; k < extras.size() && sameExtras; ++k)
    sameExtras = extras[k].descriptor == info.extraBytes[k].descriptor &&
                 extras[k].described == info.extraBytes[k].described;
  // A record made anew describes every byte: bytes no descriptor covered get one of plain bytes.
  if (!sameExtras)
    for (ExtraBytes& e : extras)
      e.described = true;
  std::vector<Vlr> vlrs, evlrs;
  Vlr extraRecord;
  extraRecord.userId = "LASF_Spec";
  extraRecord.recordId = 4;
  extraRecord.description = "Extra bytes";
  for (const ExtraBytes& e : extras)
    if (e.described)
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

  info.vlrs = std::move(vlrs);
  info.evlrs = std::move(evlrs);
  info.extraBytes = std::move(extras);
}

// The info the plan starts from: the origin's, or a new one of today; records that describe
// another COPC file's layout are never carried over.
FileInfo startingInfo(const FileInfo* origin) {
  FileInfo info = origin ? *origin : FileInfo{};
  std::erase_if(info.vlrs, Copc::isCopcRecord);
  std::erase_if(info.evlrs, Copc::isCopcRecord);
  if (!origin) {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    info.header.day = static_cast<std::uint16_t>(utc.tm_yday + 1);
    info.header.year = static_cast<std::uint16_t>(utc.tm_year + 1900);
  }
  return info;
}

// What the grid needs of a format that the format had does not hold, with the reasons in words.
struct Wants {
  Needs needs;
  std::string why;

  void need(bool& flag, bool when, const std::string& reason) {
    if (when && !flag) {
      flag = true;
      why += (why.empty() ? "" : ", ") + reason;
    }
  }
};

Wants wantsOf(const Tressel::Grid& grid, const Layout& layout, int pointFormat,
              const std::optional<Source>& classes, bool rgb, bool copc) {
  const auto has = [&](const char* name) {
    return grid(Tressel::StandardCartesianChart3D, name) != nullptr;
  };
  Wants w;
  Needs& needs = w.needs;
  const Needs had = needsOf(pointFormat);
  w.need(needs.rgb, rgb && !had.rgb, "RGB");
  w.need(needs.nir, has("NIR") && !had.nir, "NIR");
  w.need(needs.gps, has("GpsTime") && !had.gps, "GpsTime");
  for (const char* wave : {"WavePacketIndex", "WaveformOffset", "WaveformSize",
                           "ReturnPointLocation", "WaveXt", "WaveYt", "WaveZt"})
    w.need(needs.wave, has(wave) && !had.wave, std::string(wave));
  if (had.extended)
    return w;
  w.need(needs.extended, copc, "COPC");
  w.need(needs.extended, has("Overlap"), "Overlap");
  w.need(needs.extended, has("ScannerChannel"), "ScannerChannel");
  w.need(needs.extended, maxOf(classes, layout) > 31, "classes above 31");
  for (const char* name : {"ReturnNumber", "NumberOfReturns"})
    if (auto s = sourceOf(grid, name, layout); s && s->type == "uint8")
      w.need(needs.extended, maxOf(s, layout) > 7, std::string(name) + " above 7");
  return w;
}

// The format (the origin's, or 6, 7 or 8 by colour and NIR; moved where a field needs it) and
// the version; a change from the origin's said to warn.
void chooseFormat(Header& h, const Wants& wants, bool fromOrigin, bool evlrs, std::size_t count,
                  bool copc, const Warn& warn) {
  const int chosen = formatFor(h.pointFormat, wants.needs);
  if (copc && chosen > 8)
    throw Problem("point format " + std::to_string(chosen) +
                  " (with waveforms) cannot be written as COPC, which holds point formats 6 to 8");
  int minor = std::max<int>(fromOrigin ? h.versionMinor : 4, format(chosen).versionMinor);
  if (evlrs || count > std::numeric_limits<std::uint32_t>::max() || copc)
    minor = 4;
  if ((chosen != h.pointFormat || (fromOrigin && minor != h.versionMinor)) && warn)
    warn("writing LAS 1." + std::to_string(minor) + " point format " + std::to_string(chosen) +
         " instead of LAS 1." + std::to_string(h.versionMinor) + " point format " +
         std::to_string(h.pointFormat) +
         (wants.why.empty() ? std::string(" (for the EVLRs or count)")
                            : " (for " + wants.why + ")"));
  h.pointFormat = static_cast<std::uint8_t>(chosen);
  h.versionMajor = 1;
  h.versionMinor = static_cast<std::uint8_t>(minor);
}

// Scale and offset: the options, else the origin's, else 0.001 and the floor of the minimum.
void placeCoordinates(Header& h, const Layout& layout, bool fromOrigin,
                      const WriteOptions& options) {
  if (options.scale)
    h.scale = *options.scale;
  else if (options.autoScale || !fromOrigin)
    h.scale = {0.001, 0.001, 0.001};
  if (options.offset)
    h.offset = *options.offset;
  else if (options.autoOffset || !fromOrigin) {
    std::array<double, 3> lo;
    lo.fill(std::numeric_limits<double>::infinity());
    for (std::size_t k = 0; k < layout.sizes.size(); ++k)
      for (std::size_t j = 0; j < layout.sizes[k]; ++j)
        for (int a = 0; a < 3; ++a)
          lo[a] = std::min(lo[a], layout.xyz[k][j][a]);
    for (int a = 0; a < 3; ++a)
      h.offset[a] = std::isfinite(lo[a]) ? std::floor(lo[a]) : 0.0;
  }
  for (int a = 0; a < 3; ++a)
    if (!(h.scale[a] > 0) || !std::isfinite(h.scale[a]) || !std::isfinite(h.offset[a]))
      throw Problem("scale " + axisText(h.scale) + " and offset " + axisText(h.offset) +
                    " cannot place coordinates (scales finite and positive, offsets finite)");
}

// Extra bytes: those of the origin that the grid still has, then every other field; the record
// length they make.
void planExtras(WritePlan& plan, const Tressel::Grid& grid, const Layout& layout) {
  FileInfo& info = plan.info;
  Extras planned;
  keepExtras(planned, info.extraBytes, grid, layout);
  addExtras(planned, grid, layout);
  std::vector<ExtraBytes> extras = std::move(planned.dims);
  plan.extraSources = std::move(planned.sources);
  std::size_t recordLength = static_cast<std::size_t>(format(info.header.pointFormat).length);
  for (const ExtraBytes& e : extras)
    recordLength += static_cast<std::size_t>(e.size);
  if (recordLength > 0xFFFF)
    throw Problem(std::to_string(extras.size()) +
                  " extra-bytes dimensions do not fit a point record");
  info.header.recordLength = static_cast<std::uint16_t>(recordLength);
  setExtraBytes(info, std::move(extras));
}

// The sources of the format's plain values and of the scan angle, each of the type the record
// needs.
void planSources(WritePlan& plan, const Tressel::Grid& grid, const Layout& layout) {
  const std::vector<Dim>& all = dims(plan.info.header.pointFormat);
  plan.standard.reserve(all.size());
  for (const Dim& d : all) {
    plan.standard.push_back(sourceOf(grid, d.name, layout));
    const auto& s = plan.standard.back();
    if (s && s->type != kindName(d.kind))
      throw Problem("field \"" + std::string(d.name) + "\" holds " + s->type +
                    ", the LAS record needs " + kindName(d.kind));
  }
  plan.scanAngle = sourceOf(grid, "ScanAngle", layout);
  if (plan.scanAngle && plan.scanAngle->type != "float32")
    throw Problem("field \"ScanAngle\" holds " + plan.scanAngle->type + ", not float32");
}

} // namespace

WritePlan planWrite(const std::string& path, const Tressel::Grid& grid, const Layout& layout,
                    const FileInfo* origin, const WriteOptions& options) {
  WritePlan plan;
  plan.place = fileOrder(grid, layout);
  plan.info = startingInfo(origin);
  Header& h = plan.info.header;
  const bool copc = Copc::isCopcPath(path);
  const auto classes = sourceOf(grid, "Classification", layout);
  plan.rgb = sourceOf(grid, "RGB", layout);
  if (plan.rgb && plan.rgb->type != "rgb16")
    throw Problem("field \"RGB\" holds " + plan.rgb->type + ", not rgb16");
  if (!origin)
    h.pointFormat = grid(Tressel::StandardCartesianChart3D, "NIR") ? 8 : (plan.rgb ? 7 : 6);
  const Wants wants = wantsOf(grid, layout, h.pointFormat, classes, plan.rgb.has_value(), copc);
  chooseFormat(h, wants, origin != nullptr, !plan.info.evlrs.empty(), layout.count, copc,
               options.warn);
  placeCoordinates(h, layout, origin != nullptr, options);
  planExtras(plan, grid, layout);
  // COPC keeps its coordinate system as WKT: the flag says so when the grid carries one.
  if (copc && std::any_of(plan.info.vlrs.begin(), plan.info.vlrs.end(), [](const Vlr& v) {
        return v.userId == "LASF_Projection" && v.recordId == 2112;
      }))
    h.globalEncoding = static_cast<std::uint16_t>(h.globalEncoding | 16);
  planSources(plan, grid, layout);
  return plan;
}

} // namespace Quorvel::Las::detail

namespace Quorvel::Las {

FileInfo withDimension(const FileInfo& info, const std::string& name, const std::string& type) {
  const auto kind = detail::kindOf(type);
  if (!kind)
    throw Error("\"" + type + "\" is no type of an extra-bytes dimension");
  FileInfo out = info;
  auto extras = out.extraBytes;
  extras.push_back(detail::newDimension(name, *kind));
  out.header.recordLength =
      static_cast<std::uint16_t>(out.header.recordLength + extras.back().size);
  detail::setExtraBytes(out, std::move(extras));
  return out;
}

std::vector<std::uint64_t> filePlaces(std::vector<std::uint64_t> indices) {
  const std::size_t n = indices.size();
  std::vector<std::uint8_t> seen(n, 0);
  bool permutation = true;
  for (std::size_t g = 0; g < n && permutation; ++g)
    permutation = indices[g] < n && !seen[indices[g]]++;
  if (permutation)
    return indices;
  // Gaps or repeats (points removed or merged): rank by the value, ties in layout order.
  std::vector<std::uint64_t> order(n);
  for (std::size_t g = 0; g < n; ++g)
    order[g] = g;
  std::stable_sort(order.begin(), order.end(),
                   [&](std::uint64_t a, std::uint64_t b) { return indices[a] < indices[b]; });
  for (std::size_t rank = 0; rank < n; ++rank)
    indices[order[rank]] = rank;
  return indices;
}

} // namespace Quorvel::Las
