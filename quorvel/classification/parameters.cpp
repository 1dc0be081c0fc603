// Quorvel: the parameter box of the classification transfer.
#include "quorvel/classification/classification.hpp"

#include "basalt/Console.hpp"
#include "basalt/Text.hpp"

#include <cmath>

namespace Quorvel {

ClassificationTransferParameterBox::ClassificationTransferParameterBox(const std::string& input) {
  const std::string_view text = Basalt::beforeNul(input);
  if (text.empty()) {
    assignment.emplace(1e-06, -1);
  } else {
    for (std::string_view token : Basalt::splitAt(text, ",;")) {
      if (token.empty())
        continue;
      const auto parts = Basalt::splitAt(token, "=");
      if (parts.size() == 2) {
        const double r = Basalt::cAtof(parts[0]);
        assignment.emplace(r * r, Basalt::cAtoi(parts[1]));
        hasAssignment = true;
      } else if (parts.size() == 1) {
        const double r = Basalt::cAtof(parts[0]);
        assignment.clear();
        assignment.emplace(r * r, -1);
        break;
      }
    }
  }
  if (!assignment.empty())
    radius = std::sqrt(assignment.rbegin()->first);
}

void ClassificationTransferParameterBox::print() const {
  Basalt::Console() << "radius: " << radius;
  Basalt::Console() << "\nassignment:";
  for (const auto& [key, cls] : assignment)
    Basalt::Console() << "\t" << std::sqrt(key) << " --> " << cls;
  Basalt::Console() << "has assignment: " << hasAssignment;
  Basalt::Console() << "maxradius: " << maxradius;
  Basalt::Console() << "dimension: " << dimension;
  Basalt::Console() << "fieldname: " << fieldname;
  Basalt::Console() << "onetree: " << onetree;
  Basalt::Console() << "positions: " << positions;
  Basalt::Console() << "expand: " << expand;
  Basalt::Console() << "unclassify: " << unclassify;
  Basalt::Console() << "source: " << source.to_string();
  Basalt::Console() << "target: " << target.to_string();
  Basalt::Console() << "sourcefilename: " << sourcefilename;
  Basalt::Console() << "threads: " << threads;
}

} // namespace Quorvel
