// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: what to do about a failed run.
#include "cli/advice.hpp"

#include "tressel/point_cloud.hpp"

#include <algorithm>
#include <array>
#include <cctype>

namespace Quorvel::Cli {

namespace {

// Fields other commands make, by the library's lower-case name of the missing input.
struct Maker {
  const char* missing; // as in "no f_<missing>"
  const char* text;
};
constexpr std::array<Maker, 5> makers{{
    {"normalvector", "it needs \"NormalVector\": run quorvel shapefactors --normals first"},
    {"planarity", "it needs \"Planarity\": run quorvel shapefactors first"},
    {"weight", "it needs \"Weights\": run quorvel weights first (after shapefactors --normals)"},
    {"intensity", "the cloud has neither \"Amplitude\" nor \"Intensity\""},
    {"classification", "the cloud has no \"Classification\""},
}};

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// The name after "no f_" or "no numeric f_" in a message, or "".
std::string missingField(const std::string& message) {
  for (const char* marker : {"no f_", "no numeric f_"}) {
    const auto at = message.find(marker);
    if (at == std::string::npos)
      continue;
    const auto begin = at + std::char_traits<char>::length(marker);
    auto end = begin;
    while (end < message.size() &&
           (std::isalnum(static_cast<unsigned char>(message[end])) || message[end] == '_'))
      ++end;
    return message.substr(begin, end - begin);
  }
  return {};
}

} // namespace

std::string fieldList(const Tressel::Grid& grid) {
  std::string names;
  if (auto rep = grid.getCartesianRepresentation(Tressel::StandardCartesianChart3D))
    for (const auto& [id, field] : rep->snapshot())
      names += (names.empty() ? "" : ", ") + id->Name();
  return names.empty() ? "none" : names;
}

std::string advice(const std::string& message, const Tressel::Grid& grid) {
  const std::string missing = lowered(missingField(message));
  if (missing.empty())
    return {};
  for (const Maker& maker : makers)
    if (missing.rfind(maker.missing, 0) == 0)
      return std::string(" (") + maker.text + "; the fields there are: " + fieldList(grid) + ")";
  return " (the fields there are: " + fieldList(grid) + ")";
}

} // namespace Quorvel::Cli
