// SPDX-License-Identifier: BSD-3-Clause
// Tests of selection: the type-list walker, both typed families over every element type of the
// table against a direct loop over MultiRange::contains (contiguous and strided), the tolerance,
// inverse, 64-bit values, components; selection grids (small, and large on several threads) and
// tables against the selection.
#include "quorvel/core/core.hpp"
#include "quorvel/selection/selection.hpp"

#include "tressel/bounding_boxes.hpp"
#include "tressel/point_cloud.hpp"

#include <gtest/gtest.h>

#include <omp.h>

#include <cstdlib>
#include <numeric>
#include <random>

namespace {

using namespace Quorvel;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Vantor::PhysicalSpace::bivector;
using Vantor::PhysicalSpace::point;
using Vantor::PhysicalSpace::vector;
using Box = SelectionParameterBox;

// ---- The walker ------------------------------------------------------------------------------

// Records the members offered, and stops at the type named stopAt.
struct Recorder {
  struct Context {
    std::vector<std::string> offered;
    std::string stopAt;
  };
  template <class T>
  struct exec {
    static bool Break(Context& c) {
      c.offered.push_back(Tressel::TresselType<T>().name());
      return c.offered.back() == c.stopAt;
    }
  };
};

TEST(SelectionWalker, OffersInOrderStopsAtTheFirstTrueAndSaysWhetherItRanThrough) {
  using Walk =
      META::FOREACH<Recorder, unsigned long long,
                    META::LIST<signed char, short, int, long long, point, vector, bivector>>;
  Recorder::Context all{{}, "none"};
  EXPECT_TRUE(Walk::exec(all));
  EXPECT_EQ(all.offered, (std::vector<std::string>{"uint64", "int8", "int16", "int32", "int64",
                                                   "point", "vector", "bivector"}));
  Recorder::Context stopped{{}, "int32"};
  EXPECT_FALSE(Walk::exec(stopped));
  EXPECT_EQ(stopped.offered, (std::vector<std::string>{"uint64", "int8", "int16", "int32"}));
  Recorder::Context one{{}, "float32"};
  EXPECT_FALSE((META::FOREACH<Recorder, float, META::LIST<>>::exec(one)));
}

// ---- Typed families ------------------------------------------------------------------------

template <class T>
T element(double v) {
  if constexpr (std::is_arithmetic_v<T>)
    return static_cast<T>(v);
  else
    return T(v + 100, v - 100, v); // only z (component 2) lies near the ranges
}

// Values around the bounds of "2:5,9" (and beyond) as element type T.
template <class T>
std::vector<T> samples() {
  std::vector<T> out;
  for (double v : {0.0, 1.0, 2.0, 3.0, 5.0, 6.0, 9.0, 10.0, 100.0, 4.0, 2.0})
    out.push_back(element<T>(v));
  return out;
}

template <class T>
void checkType(const Box& box) {
  const auto array = std::make_shared<Tressel::MemArray<1, T>>(
      Tressel::MultiIndex<1>(samples<T>().size()), samples<T>());
  std::vector<std::uint32_t> expected;
  for (std::size_t i = 0; i < array->size(); ++i)
    if (box.selection.contains(selectionValue((*array)[i], box.coordinate), 1e-9) != box.inverse)
      expected.push_back(static_cast<std::uint32_t>(i));
  const std::string type = Tressel::TresselType<T>().name();
  EXPECT_EQ(selectedIndices(array, box), expected) << type;
  EXPECT_EQ(selectionTest(array, box), !expected.empty()) << type;
  // Every other element, through a strided view.
  std::vector<std::uint32_t> strided, everyOther;
  appendSelected<T>(std::as_const(*array).view().every(0, 2), box, strided);
  for (std::uint32_t i : expected)
    if (i % 2 == 0)
      everyOther.push_back(i / 2);
  EXPECT_EQ(strided, everyOther) << type;
  EXPECT_EQ(anySelected<T>(std::as_const(*array).view().every(0, 2), box), !everyOther.empty());
}

template <class... T>
void checkTypes(const Box& box, META::LIST<T...>) {
  (checkType<T>(box), ...);
}

TEST(SelectionTypes, EveryElementTypeSelectsAsADirectLoopDoes) {
  for (const char* text : {"2:5,9", "3", "200:300", ""})
    for (bool inverse : {false, true}) {
      Box box;
      box.selection = Vantor::MultiRange<double>(text);
      box.inverse = inverse;
      checkTypes(box, SelectionTypes{});
    }
  // An empty range holds nothing: inverted, it selects every element.
  Box all;
  all.inverse = true;
  const auto bytes = std::make_shared<Tressel::MemArray<1, unsigned char>>(
      Tressel::MultiIndex<1>(3), std::vector<unsigned char>{0, 7, 255});
  EXPECT_EQ(selectedIndices(bytes, all), (std::vector<std::uint32_t>{0, 1, 2}));
}

TEST(SelectionTypes, ToleranceLargeUnsignedValuesComponentsAndUnlistedTypes) {
  Box box;
  box.selection = Vantor::MultiRange<double>("2:5");
  const auto doubles = std::make_shared<Tressel::MemArray<1, double>>(
      Tressel::MultiIndex<1>(4), std::vector<double>{2 - 1e-9, 5 + 1e-9, 2 - 3e-9, 5 + 3e-9});
  EXPECT_EQ(selectedIndices(doubles, box), (std::vector<std::uint32_t>{0, 1}));

  // Floats are compared with the bounds rounded outward to float: the same decisions as in double,
  // also next to a bound and beyond float's range.
  const auto floats = std::make_shared<Tressel::MemArray<1, float>>(
      Tressel::MultiIndex<1>(5), std::vector<float>{2.0f, std::nextafter(2.0f, 0.0f), 5.0f,
                                                    std::nextafter(5.0f, 9.0f), 3e38f});
  EXPECT_EQ(selectedIndices(floats, box), (std::vector<std::uint32_t>{0, 2}));
  box.selection = Vantor::MultiRange<double>("1e38:1e300");
  EXPECT_EQ(selectedIndices(floats, box), (std::vector<std::uint32_t>{4}));
  box.selection = Vantor::MultiRange<double>("-1e300:2.0000001");
  EXPECT_EQ(selectedIndices(floats, box), (std::vector<std::uint32_t>{0, 1}));

  box.selection = Vantor::MultiRange<double>("1.7e19:1.8e19");
  const auto big = std::make_shared<Tressel::MemArray<1, unsigned long long>>(
      Tressel::MultiIndex<1>(2), std::vector<unsigned long long>{17'500'000'000'000'000'000ULL, 5});
  EXPECT_EQ(selectedIndices(big, box), (std::vector<std::uint32_t>{0}));

  box.selection = Vantor::MultiRange<double>("10:20");
  const auto points = std::make_shared<Tressel::MemArray<1, point>>(
      Tressel::MultiIndex<1>(3), std::vector<point>{{15, 0, 0}, {0, 15, 0}, {0, 0, 15}});
  for (int c = 0; c < 3; ++c) {
    box.coordinate = c;
    EXPECT_EQ(selectedIndices(points, box), (std::vector<std::uint32_t>{std::uint32_t(c)}));
  }

  // Colours are not in the table: nothing selected, nothing found, even inverted.
  box.inverse = true;
  const auto colours = std::make_shared<Tressel::MemArray<1, Vantor::RGB16>>(
      Tressel::MultiIndex<1>(2), std::vector<Vantor::RGB16>{{1, 2, 3}, {4, 5, 6}});
  EXPECT_TRUE(selectedIndices(colours, box).empty());
  EXPECT_FALSE(selectionTest(colours, box));
  EXPECT_FALSE(selectionTest(nullptr, box));
}

// ---- Selection grids and tables ------------------------------------------------------------

struct Sample {
  std::vector<point> xyz;
  std::vector<unsigned char> classes;
  std::vector<float> heights;
  std::vector<vector> normals;
  Tressel::Partition partition{{0, 1, 2, 3}, {4, 5, 6}, {7, 8, 9, 10, 11}};

  Sample() {
    std::mt19937 random(5);
    for (std::size_t i = 0; i < 12; ++i) {
      xyz.emplace_back(i, 2.0 * i, random() % 100);
      classes.push_back(static_cast<unsigned char>(i < 4 || i > 8 ? 2 + i % 2 : 1));
      heights.push_back(static_cast<float>(i) / 4);
      normals.emplace_back(0, i, 1);
    }
  }
  StrongPtr<Tressel::Grid> grid() const {
    Tressel::PointCloudBuilder b(xyz);
    b.addField("Classification", classes)
        .addField("Height", heights)
        .addField("NormalVector", normals);
    return b.build(partition);
  }
};

TEST(SelectionGrids, HoldExactlyTheSelectedPointsWithAllFieldsAndBoxes) {
  const Sample s;
  const auto grid = s.grid();
  Box box;
  box.selection = Vantor::MultiRange<double>("2");
  const auto selected = computeSelection(grid, box);
  ASSERT_TRUE(selected);
  EXPECT_EQ(box.message, "");
  std::vector<std::size_t> chosen; // in input order: fragments in order, points in order
  for (const auto& fragment : s.partition)
    for (std::size_t i : fragment)
      if (s.classes[i] == 2)
        chosen.push_back(i);
  const auto positions = Tressel::readField<point>(*selected->CartesianPositions());
  ASSERT_EQ(positions.size(), chosen.size());
  const auto normals =
      Tressel::readField<vector>(*(*selected)(Tressel::StandardCartesianChart3D, "NormalVector"));
  const auto heights =
      Tressel::readField<float>(*(*selected)(Tressel::StandardCartesianChart3D, "Height"));
  for (std::size_t r = 0; r < chosen.size(); ++r) {
    EXPECT_EQ(positions[r], s.xyz[chosen[r]]);
    EXPECT_EQ(normals[r], s.normals[chosen[r]]);
    EXPECT_EQ(heights[r], s.heights[chosen[r]]);
  }
  // The middle fragment holds no class 2: two fragments, each with the box of its points.
  EXPECT_EQ(selected->CartesianPositions()->nFragments(), 2u);
  for (const FragmentSlot& slot : fragmentsOf(*selected->CartesianPositions())) {
    const auto stored = Tressel::getFragmentBBox(slot.id, slot.creator, nullptr);
    ASSERT_TRUE(stored);
    Vantor::BoundingBox points;
    for (const point& p : Tressel::readField<point>(*selected->CartesianPositions()))
      if (stored->inside(p))
        points.expand(p);
    EXPECT_EQ(*stored, points);
  }
  // The input is unchanged.
  EXPECT_EQ(Tressel::readField<point>(*grid->CartesianPositions()).size(), 12u);

  // By a component of a vector field, inverted: the points whose normal's y is not within 3:20.
  Box byNormal;
  byNormal.fieldname = "NormalVector";
  byNormal.coordinate = 1;
  byNormal.selection = Vantor::MultiRange<double>("3:20");
  byNormal.inverse = true;
  EXPECT_EQ(Tressel::readField<point>(*computeSelection(grid, byNormal)->CartesianPositions()),
            (std::vector<point>{s.xyz[0], s.xyz[1], s.xyz[2]}));

  // Nothing selected: an empty cloud and no error.
  Box none;
  none.selection = Vantor::MultiRange<double>("50");
  const auto empty = computeSelection(grid, none);
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->CartesianPositions()->nFragments(), 0u);
  EXPECT_EQ(none.message, "");
}

TEST(SelectionGrids, MissingInputsAndEmptyRangesSayWhat) {
  const auto grid = Sample().grid();
  Box box;
  box.fieldname = "Nothing";
  box.selection = Vantor::MultiRange<double>("1");
  CaptureStdout();
  EXPECT_FALSE(computeSelection(grid, box));
  EXPECT_EQ(GetCapturedStdout(), "Selection: ERROR: no f_Nothing\n");
  EXPECT_EQ(box.message, "ERROR: no f_Nothing");
  Box empty;
  CaptureStdout();
  EXPECT_FALSE(computeSelection(grid, empty));
  EXPECT_EQ(GetCapturedStdout(), "Selection: ERROR: empty selection range\n");
  CaptureStdout();
  Box().print();
  EXPECT_EQ(GetCapturedStdout(),
            "fieldname: Classification\nselection: \nwhere: \ninverse: 0\ncoordinate: 2\n");
}

// Large selections are copied field by field in blocks on the threads: a dense one (most points
// kept) and a sparse one, each the same on one thread and on five, and the points of a direct
// loop in order.
TEST(SelectionGrids, LargeSelectionsAreTheSameOnAnyThreadCount) {
  constexpr std::size_t N = 400000;
  std::mt19937 random(9);
  std::vector<point> xyz(N);
  std::vector<unsigned char> classes(N);
  std::vector<float> heights(N);
  for (std::size_t i = 0; i < N; ++i) {
    xyz[i] = point(double(i % 1000), double(i / 1000), double(random() % 100));
    const unsigned draw = random() % 100;
    classes[i] = static_cast<unsigned char>(draw < 70 ? 2 : draw < 75 ? 3 : 1);
    heights[i] = static_cast<float>(random() % 10000) / 8;
  }
  classes[N - 1] = 1; // the last block of the dense selection ends with points it drops
  Tressel::PointCloudBuilder builder(xyz);
  builder.addField("Classification", classes).addField("Height", heights);
  Tressel::Partition one(1, std::vector<std::size_t>(N));
  std::iota(one[0].begin(), one[0].end(), std::size_t{0});
  const auto grid = builder.build(one);
  const int before = omp_get_max_threads();
  for (const char* cls : {"2", "3"}) {
    std::vector<point> expected;
    for (std::size_t i = 0; i < N; ++i)
      if (classes[i] == std::atoi(cls))
        expected.push_back(xyz[i]);
    std::vector<std::vector<float>> byThreads;
    for (const int threads : {2, 6}) { // the library keeps one back
      omp_set_num_threads(threads);
      Box box;
      box.selection = Vantor::MultiRange<double>(cls);
      const auto selected = computeSelection(grid, box);
      ASSERT_TRUE(selected);
      EXPECT_EQ(Tressel::readField<point>(*selected->CartesianPositions()), expected) << cls;
      byThreads.push_back(
          Tressel::readField<float>(*(*selected)(Tressel::StandardCartesianChart3D, "Height")));
    }
    EXPECT_EQ(byThreads[0].size(), expected.size());
    EXPECT_TRUE(byThreads[0] == byThreads[1]) << cls;
  }
  omp_set_num_threads(before);
}

TEST(SelectionTables, RowsAreTheSelectedPointsAndColumnsTheirComponents) {
  const Sample s;
  const auto grid = s.grid();
  Box box;
  box.selection = Vantor::MultiRange<double>("1");
  box.columns = {"NormalVector", "Height"};
  const auto table = array2D(grid, box);
  ASSERT_TRUE(table);
  EXPECT_EQ(box.columnNames,
            (std::vector<std::string>{"x", "y", "z", "NormalVector[0]", "NormalVector[1]",
                                      "NormalVector[2]", "Height"}));
  ASSERT_EQ(table->multiExtents()[0], 7u);
  ASSERT_EQ(table->multiExtents()[1], 5u); // points 4 to 8
  for (std::size_t r = 0; r < 5; ++r) {
    const std::size_t i = 4 + r;
    const double* row = table->data() + r * 7;
    EXPECT_EQ(row[0], s.xyz[i].x);
    EXPECT_EQ(row[2], s.xyz[i].z);
    EXPECT_EQ(row[4], s.normals[i].y);
    EXPECT_EQ(row[6], s.heights[i]);
  }
  Box every;
  every.selection = Vantor::MultiRange<double>("1");
  ASSERT_TRUE(array2D(grid, every));
  EXPECT_EQ(every.columnNames.size(), 3u + 1 + 1 + 3); // x y z, class, height, normal
  Box missing = box;
  missing.columns = {"Nothing"};
  CaptureStdout();
  EXPECT_FALSE(array2D(grid, missing));
  EXPECT_EQ(GetCapturedStdout(), "Selection: ERROR: no numeric f_Nothing\n");
}

} // namespace
