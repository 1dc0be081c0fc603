// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the parameter box of the classification transfer.
#include "quorvel/classification/classification.hpp"
#include "quorvel/core/core.hpp"

#include "basalt/console.hpp"
#include "basalt/text.hpp"

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
  printFields(*this);
}

void ClassificationTransferParameterBox::printBands(std::string_view label,
                                                    const std::map<double, std::int32_t>& bands) {
  Basalt::Console() << label;
  for (const auto& [key, cls] : bands)
    Basalt::Console() << "	" << std::sqrt(key) << " --> " << cls;
}

} // namespace Quorvel
