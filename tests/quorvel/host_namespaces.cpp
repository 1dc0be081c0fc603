// SPDX-License-Identifier: BSD-3-Clause
// A host that opens both the standard namespace and the library's must still be able to name the
// standard containers unqualified: no public header may declare a name in Quorvel that collides
// with one of std. Compiling this file is the test.
#include "quorvel/quorvel.hpp"

#include <map>
#include <string>
#include <vector>

using namespace std;
using namespace Quorvel;

namespace {

[[maybe_unused]] size_t hostUsingBothNamespaces() {
  vector<int> counts{1, 2, 3};
  string name = "Classification";
  map<string, vector<point>> byName;
  byName[name].push_back(point{1.0, 2.0, 3.0});
  ClassificationTransferParameterBox box("1");
  return counts.size() + byName.size() + box.assignment.size();
}

} // namespace
