// SPDX-License-Identifier: BSD-3-Clause
// Tests of the geometry layer: bounding boxes and value ranges.
#include "vantor/bounding_box.hpp"
#include "vantor/multi_range.hpp"

#include <gtest/gtest.h>

#include <cfloat>
#include <clocale>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Vantor::BoundingBox;
using Vantor::PhysicalSpace::point;
using Range = Vantor::MultiRange<double>;
using Intervals = std::vector<std::pair<double, double>>;

TEST(BoundingBox, PointModes) {
  const BoundingBox box(point{1, 1, 1}, point{0, 0, 0}); // corners in either order
  EXPECT_EQ(box.min(), (point{0, 0, 0}));
  EXPECT_EQ(box.max(), (point{1, 1, 1}));

  EXPECT_TRUE(box.inside(point{1, 1, 1}, BoundingBox::PointClosed));
  EXPECT_TRUE(box.inside(point{0, 0, 0}, BoundingBox::PointClosed));
  EXPECT_FALSE(box.inside(point{1, 0.5, 1.0000001}, BoundingBox::PointClosed));

  EXPECT_TRUE(box.inside(point{0, 0, 0}, BoundingBox::PointHalfOpen));
  EXPECT_FALSE(box.inside(point{1, 0.5, 0.5}, BoundingBox::PointHalfOpen));

  EXPECT_TRUE(box.inside(point{0.5, 0.5, 99}, BoundingBox::PointPlanar));
  EXPECT_FALSE(box.inside(point{1.5, 0.5, 0.5}, BoundingBox::PointPlanar));

  EXPECT_TRUE(box.inside(point{1.2, 0.5, 0.5}, BoundingBox::PointInBall)); // sphere radius ~0.866
  EXPECT_FALSE(box.inside(point{1.5, 0.5, 0.5}, BoundingBox::PointInBall));

  const double nan = std::nan("");
  EXPECT_FALSE(box.inside(point{nan, 0.5, 0.5}, BoundingBox::PointClosed));
  EXPECT_FALSE(box.inside(point{0.5, 0.5, 0.5}, 'x'));
  EXPECT_FALSE(BoundingBox().inside(point{0, 0, 0}));
}

TEST(BoundingBox, BoxModes) {
  const BoundingBox a(point{0, 0, 0}, point{1, 1, 1});
  const BoundingBox touching(point{1, 0, 0}, point{2, 1, 1});
  const BoundingBox apart(point{1.001, 0, 0}, point{2, 1, 1});
  const BoundingBox inner(point{0.2, 0.2, 0.2}, point{0.8, 0.8, 1});
  const BoundingBox above(point{0.2, 0.2, 5}, point{0.8, 0.8, 6});

  EXPECT_TRUE(a.inside(touching, BoundingBox::Intersects));
  EXPECT_TRUE(touching.inside(a, BoundingBox::Intersects));
  EXPECT_FALSE(a.inside(apart, BoundingBox::Intersects));
  EXPECT_TRUE(a.inside(inner, BoundingBox::Intersects));
  EXPECT_FALSE(a.inside(above, BoundingBox::Intersects));

  EXPECT_TRUE(a.inside(inner, BoundingBox::Contains));
  EXPECT_FALSE(inner.inside(a, BoundingBox::Contains));
  EXPECT_TRUE(a.inside(a, BoundingBox::Contains));

  EXPECT_TRUE(a.inside(above, BoundingBox::IntersectsPlanar));
  EXPECT_TRUE(a.inside(touching, BoundingBox::IntersectsPlanar));

  EXPECT_FALSE(a.inside(touching, BoundingBox::Overlaps));
  EXPECT_TRUE(a.inside(inner, BoundingBox::Overlaps));

  EXPECT_FALSE(a.inside(BoundingBox(), BoundingBox::Intersects));
  EXPECT_FALSE(a.inside(inner, 'q'));
}

TEST(BoundingBox, ExpandSkipsNonFinitePointsAndUpdatesBall) {
  BoundingBox box;
  EXPECT_TRUE(box.empty());
  box.expand(point{std::nan(""), 0, 0});
  box.expand(point{std::numeric_limits<double>::infinity(), 0, 0});
  EXPECT_TRUE(box.empty());
  box.expand(point{1, 2, 3});
  EXPECT_FALSE(box.empty());
  EXPECT_EQ(box.ballRadius(), 0.0);
  box.expand(point{3, 2, 3});
  EXPECT_EQ(box.ballCenter(), (point{2, 2, 3}));
  EXPECT_DOUBLE_EQ(box.ballRadius(), 1.0);

  box.setCorners(point{0, 0, 0}, point{0, 6, 8});
  EXPECT_DOUBLE_EQ(box.ballRadius(), 1.0); // stale until updateBall()
  box.updateBall();
  EXPECT_DOUBLE_EQ(box.ballRadius(), 5.0);

  BoundingBox merged;
  merged.expand(BoundingBox());
  EXPECT_TRUE(merged.empty());
  merged.expand(box);
  EXPECT_EQ(merged, box);
}

TEST(BoundingBox, OfManyPointsIsTheSameOnAnyThreadCount) {
  // Enough points for several blocks; the first and last blocks hold nothing finite, the extremes
  // lie inside others, and a zero of either sign is the lowest x.
  const double nan = std::nan("");
  std::vector<point> points(400000, point{nan, 0, 0});
  for (std::size_t i = 100000; i < 300000; ++i)
    points[i] = point{double(i % 977) + 1, double(i % 613) - 5, std::sin(double(i))};
  points[150000].x = -0.0;
  points[250000].x = 0.0;
  points[200000].y = std::numeric_limits<double>::infinity();
  const BoundingBox one = BoundingBox::of(points.data(), points.size());
  ASSERT_FALSE(one.empty());
  EXPECT_TRUE(std::signbit(one.min().x));
  EXPECT_EQ(one.max().x, 977.0);
  for (int threads : {2, 3, 7}) {
    const BoundingBox many = BoundingBox::of(points.data(), points.size(), threads);
    EXPECT_EQ(many, one) << threads;
    EXPECT_TRUE(std::signbit(many.min().x)) << threads;
    EXPECT_EQ(many.ballRadius(), one.ballRadius()) << threads;
  }
  points.assign(200000, point{nan, nan, nan});
  EXPECT_TRUE(BoundingBox::of(points.data(), points.size(), 3).empty());
}

TEST(MultiRange, StartingValuesAndEmptyTexts) {
  for (const std::string& text : std::vector<std::string>{"", ";;", " , ; ", ",",
                                                          std::string("\0"
                                                                      "2:5",
                                                                      4)}) {
    CaptureStdout();
    Range range(text);
    EXPECT_EQ(GetCapturedStdout(), "") << text;
    EXPECT_TRUE(range.empty()) << text;
    EXPECT_EQ(range.minimum, DBL_MAX);
    EXPECT_EQ(range.maximum, 2.2250738585072014e-308);
    EXPECT_FALSE(range.contains(0.0, 1e-9));
    EXPECT_FALSE(range.contains(1.0, 1e9));
    EXPECT_EQ(range.to_string(), "");
  }
}

TEST(MultiRange, ParsesSortsAndTrims) {
  Range swapped("3:1");
  EXPECT_EQ(swapped.intervals, (Intervals{{1, 3}}));
  EXPECT_EQ(swapped.minimum, 1.0);
  EXPECT_EQ(swapped.maximum, 3.0);

  Range blanks(" 2 ;\t4");
  EXPECT_EQ(blanks.intervals, (Intervals{{2, 2}, {4, 4}}));

  Range sorted("5,1:3;0:9,1:2");
  EXPECT_EQ(sorted.intervals, (Intervals{{0, 9}, {1, 2}, {1, 3}, {5, 5}})); // no merging
  EXPECT_EQ(sorted.minimum, 0.0);
  EXPECT_EQ(sorted.maximum, 9.0);

  EXPECT_EQ(Range("7\t9:12;8\r\n").intervals, (Intervals{{7, 7}, {8, 8}})); // cut at tab / CR
  EXPECT_EQ(Range(" 2 : 5 ").intervals, (Intervals{{2, 5}}));
  EXPECT_EQ(Range("1e5;+2;.5").intervals, (Intervals{{0.5, 0.5}, {2, 2}, {1e5, 1e5}}));
  EXPECT_EQ(Range("x:4").intervals, (Intervals{{0, 4}})); // unreadable numbers read as 0
  EXPECT_EQ(Range("4:").intervals, (Intervals{{0, 4}}));
  EXPECT_EQ(Range(std::string("2:5;7\0"
                              "1-5",
                              9))
                .intervals,
            (Intervals{{2, 5}, {7, 7}}));
}

TEST(MultiRange, NegativeValuesKeepTheTinyStartingMaximum) {
  Range range("-5:-1");
  EXPECT_EQ(range.intervals, (Intervals{{-5, -1}}));
  EXPECT_EQ(range.minimum, -5.0);
  EXPECT_EQ(range.maximum, 2.2250738585072014e-308);
  EXPECT_TRUE(range.contains(-3.0, 0.0));
  EXPECT_FALSE(range.contains(0.5, 0.0));
}

TEST(MultiRange, InvalidItemsEmptyTheRangeWithOneErrorLine) {
  for (const std::string text : {"1-5", "0:2;1-5", "1:2:3", "1e-5", "--5", "5-", "2:nan", "nan"}) {
    CaptureStdout();
    Range range(text);
    EXPECT_EQ(GetCapturedStdout(),
              "MultiRange(const string& input), ERROR: invalid range: " + text + "\n");
    EXPECT_TRUE(range.empty()) << text;
    EXPECT_EQ(range.maximum, 2.2250738585072014e-308) << text;
    EXPECT_FALSE(range.contains(1.0, 0.0)) << text;
  }
  CaptureStdout();
  Range cut(std::string("1-5\0tail", 8));
  EXPECT_EQ(GetCapturedStdout(), "MultiRange(const string& input), ERROR: invalid range: 1-5\n");
}

TEST(MultiRange, ContainsWithTolerance) {
  Range range("1:3;7");
  EXPECT_TRUE(range.contains(3.05, 0.1));
  EXPECT_FALSE(range.contains(3.2, 0.1));
  EXPECT_TRUE(range.contains(1.0 - 1e-9, 1e-9));
  EXPECT_FALSE(range.contains(1.0 - 1e-8, 1e-9));
  EXPECT_TRUE(range.contains(7.0, 0.0));
  EXPECT_FALSE(range.contains(5.0, 0.5));
  EXPECT_FALSE(range.contains(std::nan(""), 1.0));
}

TEST(MultiRange, TextForm) {
  EXPECT_EQ(Range("5,1:3").to_string(), "1.000000:3.000000,5.000000:5.000000");
  EXPECT_EQ(Range("0:255").to_string(), "0.000000:255.000000");
  EXPECT_EQ(Range("-0.5").to_string(), "-0.500000:-0.500000");
}

TEST(MultiRange, ConstructAddsToExistingIntervalsAndCopies) {
  Range range("5");
  range.construct("1:2");
  EXPECT_EQ(range.intervals, (Intervals{{1, 2}, {5, 5}}));
  EXPECT_EQ(range.minimum, 1.0);
  EXPECT_EQ(range.maximum, 5.0);
  Range copy = range;
  range.construct("x-y");
  EXPECT_TRUE(range.empty());
  EXPECT_EQ(copy.intervals.size(), 2u);
}

TEST(MultiRange, ReadsDecimalPointsUnderADecimalCommaLocale) {
  const std::string previous = std::setlocale(LC_ALL, nullptr);
  if (!std::setlocale(LC_ALL, "de_DE.UTF-8"))
    GTEST_SKIP() << "locale de_DE.UTF-8 not available";
  Range range("0.5:1.5");
  const std::string text = range.to_string();
  std::setlocale(LC_ALL, previous.c_str());
  EXPECT_EQ(range.intervals, (Intervals{{0.5, 1.5}}));
  EXPECT_EQ(text, "0.500000:1.500000");
}

} // namespace
