// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the LAS point-format table.
#include "io/detail/las_formats.hpp"

#include <algorithm>
#include <array>

namespace Quorvel::Las::detail {

namespace {

// The kinds of the extra-bytes data types 1 to 10.
constexpr std::array<Kind, 10> ExtraKinds = {Kind::UInt8,   Kind::Int8,   Kind::UInt16, Kind::Int16,
                                             Kind::UInt32,  Kind::Int32,  Kind::UInt64, Kind::Int64,
                                             Kind::Float32, Kind::Float64};

constexpr Format Formats[FormatCount] = {
    // length, version, gps, extended, rgb, nir, wave
    {20, 0, false, false, -1, -1, -1}, {28, 0, true, false, -1, -1, -1},
    {26, 2, false, false, 20, -1, -1}, {34, 2, true, false, 28, -1, -1},
    {57, 3, true, false, -1, -1, 28},  {63, 3, true, false, 28, -1, 34},
    {30, 4, true, true, -1, -1, -1},   {36, 4, true, true, 30, -1, -1},
    {38, 4, true, true, 30, 36, -1},   {59, 4, true, true, -1, -1, 30},
    {67, 4, true, true, 30, 36, 38}};

std::vector<Dim> makeDims(int id) {
  const Format& f = Formats[id];
  std::vector<Dim> d;
  d.push_back({"Intensity", 12, Kind::UInt16});
  if (!f.extended) {
    using L = RecordLayout<false>;
    d.push_back({"ReturnNumber", L::Returns, Kind::UInt8, 0, 3});
    d.push_back({"NumberOfReturns", L::Returns, Kind::UInt8, 3, 3});
    d.push_back({"ScanDirectionFlag", L::Returns, Kind::UInt8, 6, 1});
    d.push_back({"EdgeOfFlightLine", L::Returns, Kind::UInt8, 7, 1});
    d.push_back({"Classification", L::Flags, Kind::UInt8, 0, 5});
    d.push_back({"Synthetic", L::Flags, Kind::UInt8, 5, 1});
    d.push_back({"KeyPoint", L::Flags, Kind::UInt8, 6, 1});
    d.push_back({"Withheld", L::Flags, Kind::UInt8, 7, 1});
    d.push_back({"UserData", L::UserData, Kind::UInt8});
    d.push_back({"PointSourceId", L::PointSource, Kind::UInt16});
    if (f.gps)
      d.push_back({"GpsTime", L::GpsTime, Kind::Float64});
  } else {
    using L = RecordLayout<true>;
    d.push_back({"ReturnNumber", L::Returns, Kind::UInt8, 0, 4});
    d.push_back({"NumberOfReturns", L::Returns, Kind::UInt8, 4, 4});
    d.push_back({"Synthetic", L::Flags, Kind::UInt8, 0, 1});
    d.push_back({"KeyPoint", L::Flags, Kind::UInt8, 1, 1});
    d.push_back({"Withheld", L::Flags, Kind::UInt8, 2, 1});
    d.push_back({"Overlap", L::Flags, Kind::UInt8, 3, 1});
    d.push_back({"ScannerChannel", L::Flags, Kind::UInt8, 4, 2});
    d.push_back({"ScanDirectionFlag", L::Flags, Kind::UInt8, 6, 1});
    d.push_back({"EdgeOfFlightLine", L::Flags, Kind::UInt8, 7, 1});
    d.push_back({"Classification", L::Classification, Kind::UInt8});
    d.push_back({"UserData", L::UserData, Kind::UInt8});
    d.push_back({"PointSourceId", L::PointSource, Kind::UInt16});
    d.push_back({"GpsTime", L::GpsTime, Kind::Float64});
  }
  if (f.nir >= 0)
    d.push_back({"NIR", f.nir, Kind::UInt16});
  if (f.wave >= 0) {
    d.push_back({"WavePacketIndex", f.wave, Kind::UInt8});
    d.push_back({"WaveformOffset", f.wave + 1, Kind::UInt64});
    d.push_back({"WaveformSize", f.wave + 9, Kind::UInt32});
    d.push_back({"ReturnPointLocation", f.wave + 13, Kind::Float32});
    d.push_back({"WaveXt", f.wave + 17, Kind::Float32});
    d.push_back({"WaveYt", f.wave + 21, Kind::Float32});
    d.push_back({"WaveZt", f.wave + 25, Kind::Float32});
  }
  return d;
}

} // namespace

Kind extraKind(int dataType) {
  return ExtraKinds[static_cast<std::size_t>(dataType - 1)];
}

int extraType(Kind kind) {
  return static_cast<int>(std::find(ExtraKinds.begin(), ExtraKinds.end(), kind) -
                          ExtraKinds.begin()) +
         1;
}

const Format& format(int id) {
  return Formats[id];
}

const std::vector<Dim>& dims(int id) {
  static const std::array<std::vector<Dim>, FormatCount> all = [] {
    std::array<std::vector<Dim>, FormatCount> a;
    for (int f = 0; f < FormatCount; ++f)
      a[static_cast<std::size_t>(f)] = makeDims(f);
    return a;
  }();
  return all[static_cast<std::size_t>(id)];
}

const std::set<std::string>& recordNames() {
  static const std::set<std::string> names = [] {
    std::set<std::string> s = {"Positions", "PointIndex", "LastReturn", "ScanAngle", "RGB"};
    for (int f = 0; f < FormatCount; ++f)
      for (const Dim& d : dims(f))
        s.insert(d.name);
    return s;
  }();
  return names;
}

Needs needsOf(int id) {
  const Format& f = Formats[id];
  return {f.gps, f.extended, f.rgb >= 0, f.nir >= 0, f.wave >= 0};
}

int formatFor(int id, const Needs& needs) {
  auto holds = [](int candidate, const Needs& n) {
    const Needs has = needsOf(candidate);
    return (has.gps || !n.gps) && (has.extended || !n.extended) && (has.rgb || !n.rgb) &&
           (has.nir || !n.nir) && (has.wave || !n.wave);
  };
  if (holds(id, needs))
    return id;
  const Needs had = needsOf(id);
  const Needs all{had.gps || needs.gps, had.extended || needs.extended, had.rgb || needs.rgb,
                  had.nir || needs.nir, had.wave || needs.wave};
  int best = -1;
  for (int f = 0; f < FormatCount; ++f)
    if (holds(f, all) && (best < 0 || Formats[f].length < Formats[best].length))
      best = f;
  return best;
}

} // namespace Quorvel::Las::detail
