// SPDX-License-Identifier: BSD-3-Clause
// Example host: builds a small point cloud from plain arrays, reads a class range and a class
// assignment from text, reclassifies the cloud and prints what it did.
#include <quorvel/quorvel.hpp>

#include <cstdio>
#include <vector>

int main() {
  using Vantor::PhysicalSpace::point;

  std::vector<point> xyz = {{0, 0, 0},   {1, 0, 0.5}, {0, 1, 1},
                            {10, 10, 2}, {11, 10, 3}, {10, 11, 4}};
  std::vector<unsigned char> classes = {1, 2, 2, 5, 6, 2};

  Tressel::PointCloudBuilder builder(xyz);
  builder.addField("Classification", classes);
  auto grid = builder.build(Tressel::tilePartition(xyz, 5.0));
  auto positions = grid->CartesianPositions();
  std::printf("points: %zu in %zu fragments\n", xyz.size(), positions->nFragments());

  std::vector<unsigned char> table;
  if (!Quorvel::assignClassesToClasses("2>9;5:6>3", table))
    return 1;
  const Vantor::MultiRange<double> candidates("2:6");

  Basalt::StrongPtr<Tressel::Field> classField = (*grid)["Classification"];
  for (const auto& slot : Quorvel::fragmentsOf(*classField)) {
    auto cls = Quorvel::writableFragmentArray<unsigned char>(*classField, slot);
    for (std::size_t i = 0; i < cls->size(); ++i)
      if (candidates.contains((*cls)[i], Quorvel::RangeTolerance))
        (*cls)[i] = table[(*cls)[i]];
    slot.creator->touch();
  }
  for (unsigned c : Tressel::readField<unsigned char>(*classField))
    std::printf("%u ", c);
  std::printf("\n");
  return 0;
}
