// SPDX-License-Identifier: BSD-3-Clause
// Tests of expressions: precedence and every operator against the same arithmetic written out in
// C++, syntax errors with their columns and words, fields of every element type, no wrapping of
// unsigned values, NaN truth, unknown fields; select with --where (and with ranges); assignments
// with created fields, values that do not fit, and items that do not see each other.
#include "quorvel/core/core.hpp"
#include "quorvel/selection/selection.hpp"

#include "tressel/point_cloud.hpp"

#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <limits>

namespace {

using namespace Quorvel;
using Vantor::PhysicalSpace::point;

// A cloud of n points in two fragments (even and odd indices), with a = i, b = n - i as doubles,
// c = i % 7 as uint8, and the positions (i, 2i, 0.5 i).
struct Cloud {
  std::size_t n = 2500; // more than one block of evaluation
  std::vector<point> xyz;
  std::vector<double> a, b;
  std::vector<unsigned char> c;
  StrongPtr<Tressel::Grid> grid;
  Tressel::Partition partition;

  Cloud() {
    partition.resize(2);
    for (std::size_t i = 0; i < n; ++i) {
      xyz.emplace_back(static_cast<double>(i), 2.0 * static_cast<double>(i), 0.5 * i);
      a.push_back(static_cast<double>(i));
      b.push_back(static_cast<double>(n - i));
      c.push_back(static_cast<unsigned char>(i % 7));
      partition[i % 2].push_back(i);
    }
    Tressel::PointCloudBuilder builder(xyz);
    builder.addField("a", a).addField("b", b).addField("c", c);
    grid = builder.build(partition);
  }

  // A field's values in input order (fragment by fragment, back to point indices).
  template <class T>
  std::vector<T> field(const std::string& name) const {
    std::vector<T> out(n);
    const auto f = findOptionalField(grid, name);
    const auto slots = fragmentsOf(*grid->CartesianPositions());
    for (std::size_t k = 0; k < slots.size(); ++k) {
      const auto array = fragmentArray<T>(*f, slots[k]);
      for (std::size_t j = 0; j < partition[k].size(); ++j)
        out[partition[k][j]] = (*array)[j];
    }
    return out;
  }

  // The expression's values in input order (fragment by fragment, back to point indices).
  std::vector<double> values(const std::string& text) const {
    const Expression e(text);
    EXPECT_EQ(e.error(), "") << text;
    EXPECT_EQ(e.problemWith(grid), "") << text;
    std::vector<double> out(n);
    const auto slots = fragmentsOf(*grid->CartesianPositions());
    for (std::size_t k = 0; k < slots.size(); ++k) {
      std::vector<double> part;
      EXPECT_TRUE(e.values(grid, *slots[k].id, part));
      EXPECT_EQ(part.size(), partition[k].size());
      for (std::size_t j = 0; j < part.size(); ++j)
        out[partition[k][j]] = part[j];
    }
    return out;
  }
};

TEST(Expressions, FollowThePrecedenceOfTheGrammarOverEveryPoint) {
  const Cloud cloud;
  const struct {
    const char* text;
    double (*oracle)(double a, double b, double c, double x, double y, double z);
  } cases[] = {
      {"a + b * 2 - c / 4",
       [](double a, double b, double c, double, double, double) { return a + b * 2 - c / 4; }},
      {"(a + b) * -2",
       [](double a, double b, double, double, double, double) { return (a + b) * -2; }},
      {"a - b - c", [](double a, double b, double c, double, double, double) { return a - b - c; }},
      {"a / 4 / 2", [](double a, double, double, double, double, double) { return a / 4 / 2; }},
      {"X + Y * 10 + Z * 100",
       [](double, double, double, double x, double y, double z) { return x + y * 10 + z * 100; }},
      {"c == 2 || c == 3 && a > 1000",
       [](double a, double, double c, double, double, double) {
         return (c == 2 || (c == 3 && a > 1000)) ? 1.0 : 0.0;
       }},
      {"!c in [0, 6] && a >= 10",
       [](double a, double, double c, double, double, double) {
         return (!(c == 0 || c == 6) && a >= 10) ? 1.0 : 0.0;
       }},
      {"!!(a < b) != 0",
       [](double a, double b, double, double, double, double) { return (a < b) ? 1.0 : 0.0; }},
      {"(c <= 1) * 10 + (c != 4)",
       [](double, double, double c, double, double, double) {
         return (c <= 1 ? 10.0 : 0.0) + (c != 4 ? 1.0 : 0.0);
       }},
      {"c in [-1, 3, 5.0, 1e0]", [](double, double, double c, double, double,
                                    double) { return (c == 3 || c == 5 || c == 1) ? 1.0 : 0.0; }},
  };
  for (const auto& t : cases) {
    const auto got = cloud.values(t.text);
    for (std::size_t i = 0; i < cloud.n; ++i)
      ASSERT_EQ(got[i], t.oracle(cloud.a[i], cloud.b[i], cloud.c[i], cloud.xyz[i][0],
                                 cloud.xyz[i][1], cloud.xyz[i][2]))
          << t.text << " at point " << i;
  }
}

TEST(Expressions, RefuseSyntaxErrorsNamingTheColumnAndWhatWasExpected) {
  const struct {
    const char* text;
    const char* error;
  } cases[] = {
      {"a == && b", "column 6: expected a number, a field, \"(\", \"-\" or \"!\", found \"&&\""},
      {"(a + 1", "column 7: expected \")\", found the end"},
      {"1 < a < 5", "column 7: expected an operator or the end, found \"<\""},
      {"c in 2", "column 6: expected \"[\" after \"in\", found \"2\""},
      {"c in [1,", "column 9: expected a number in the list, found the end"},
      {"c in [1 2]", "column 9: expected \",\" or \"]\" in the list, found \"2\""},
      {"a = 2", "column 3: an unexpected character '='"},
      {"a == 2x", "column 6: a malformed number"},
      {"", "column 1: expected a number, a field, \"(\", \"-\" or \"!\", found the end"},
      {"a & b", "column 3: an unexpected character '&'"},
  };
  for (const auto& t : cases) {
    const Expression e(t.text);
    EXPECT_EQ(e.error(), t.error) << t.text;
    EXPECT_TRUE(e.empty());
  }
  const Expression deep(std::string(300, '(') + "1" + std::string(300, ')'));
  EXPECT_NE(deep.error().find("at most 200 levels of nesting"), std::string::npos);
}

TEST(Expressions, ReadNumbersTheSameUnderAnotherLocale) {
  const char* old = std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
  const Cloud cloud;
  const auto got = cloud.values("a * 0.5 + 1.25e1");
  for (std::size_t i = 0; i < cloud.n; ++i)
    ASSERT_EQ(got[i], cloud.a[i] * 0.5 + 12.5);
  if (old)
    std::setlocale(LC_NUMERIC, "C");
}

TEST(Expressions, NameUnknownFieldsAndRefuseFieldsOfSeveralComponents) {
  const Cloud cloud;
  EXPECT_EQ(Expression("Classification == 2").problemWith(cloud.grid),
            "\"Classification == 2\": unknown field \"Classification\" (the cloud has X, Y, Z, "
            "a, b, c)");
  EXPECT_EQ(Expression("Positions > 1").problemWith(cloud.grid),
            "\"Positions > 1\": field \"Positions\" holds point elements, not single numbers");
}

// One field of element type T holding 0, 1, 2 and the type's largest value at every fourth
// point; "F - 2" is checked without wrapping and "F in [1, largest]" against the values.
template <class T>
void checkElementType() {
  const std::size_t n = 10;
  std::vector<point> xyz(n);
  std::vector<T> values;
  for (std::size_t i = 0; i < n; ++i)
    values.push_back(i % 4 == 3 ? std::numeric_limits<T>::max() : static_cast<T>(i % 4));
  Tressel::PointCloudBuilder builder(xyz);
  builder.addField("F", values);
  const auto grid = builder.build({{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}});
  const auto slot = fragmentsOf(*grid->CartesianPositions()).front();
  const double largest = static_cast<double>(std::numeric_limits<T>::max());
  std::vector<double> out;
  ASSERT_TRUE(Expression("F - 2").values(grid, *slot.id, out));
  std::vector<unsigned char> mask;
  ASSERT_TRUE(Expression("F in [1, " + std::to_string(largest) + "]").mask(grid, *slot.id, mask));
  for (std::size_t i = 0; i < n; ++i) {
    EXPECT_EQ(out[i], static_cast<double>(values[i]) - 2.0) << Tressel::TresselType<T>().name();
    EXPECT_EQ(mask[i], i % 4 == 1 || i % 4 == 3) << Tressel::TresselType<T>().name() << " " << i;
  }
}

TEST(Expressions, ReadFieldsOfEveryNumericElementTypeInDoublePrecision) {
  checkElementType<signed char>();
  checkElementType<unsigned char>();
  checkElementType<short>();
  checkElementType<unsigned short>();
  checkElementType<int>();
  checkElementType<unsigned int>();
  checkElementType<long long>();
  checkElementType<unsigned long long>();
  checkElementType<float>();
  checkElementType<double>();
}

TEST(Expressions, HoldWhereAValueIsNeitherZeroNorNaN) {
  std::vector<point> xyz(4);
  Tressel::PointCloudBuilder builder(xyz);
  builder.addField("h", std::vector<float>{0.0F, -2.0F, std::nanf(""), 0.25F});
  const auto grid = builder.build({{0, 1, 2, 3}});
  const auto slot = fragmentsOf(*grid->CartesianPositions()).front();
  std::vector<unsigned char> mask;
  ASSERT_TRUE(Expression("h").mask(grid, *slot.id, mask));
  EXPECT_EQ(mask, (std::vector<unsigned char>{0, 1, 0, 1}));
  ASSERT_TRUE(Expression("!h || h > 10").mask(grid, *slot.id, mask));
  EXPECT_EQ(mask, (std::vector<unsigned char>{1, 0, 1, 0}));
  ASSERT_TRUE(Expression("h != 1").mask(grid, *slot.id, mask));
  EXPECT_EQ(mask, (std::vector<unsigned char>{1, 1, 1, 1}));
}

TEST(ExpressionSelections, KeepThePointsWhereItHoldsAndWithRangesWhereBothDo) {
  const Cloud cloud;
  const auto count = [&](SelectionParameterBox box) {
    const auto selected = computeSelection(cloud.grid, box);
    EXPECT_EQ(box.message, "");
    return selected ? Tressel::readField<point>(*selected->CartesianPositions()).size() : 0;
  };
  std::size_t expected = 0, both = 0;
  for (std::size_t i = 0; i < cloud.n; ++i) {
    expected += cloud.c[i] == 2 && cloud.a[i] < 1000;
    both += cloud.c[i] == 2 && cloud.a[i] < 1000 && cloud.b[i] <= 2000;
  }
  SelectionParameterBox box;
  box.where = "c == 2 && a < 1000";
  EXPECT_EQ(count(box), expected);
  box.inverse = true;
  EXPECT_EQ(count(box), cloud.n - expected);
  box.inverse = false;
  box.fieldname = "b";
  box.selection = Vantor::MultiRange<double>("0:2000");
  EXPECT_EQ(count(box), both);

  SelectionParameterBox wrong;
  wrong.where = "d > 1";
  EXPECT_FALSE(computeSelection(cloud.grid, wrong));
  EXPECT_EQ(wrong.message,
            "ERROR: \"d > 1\": unknown field \"d\" (the cloud has X, Y, Z, a, b, c)");
}

TEST(Assignments, SetValuesWhereTheConditionHoldsFromTheValuesBefore) {
  Cloud cloud;
  FieldAssignmentParameterBox box;
  box.where = "c == 3";
  box.create = {"flag:int16", "c:uint8"};
  box.set = {"c = c * 80", "flag = c + 1", "b = -b"};
  EXPECT_EQ(assignFields(cloud.grid, box), "assigned 3 fields at 357 points");
  EXPECT_EQ(box.message, "");
  const auto c = cloud.field<unsigned char>("c");
  const auto flag = cloud.field<short>("flag");
  const auto b = cloud.field<double>("b");
  for (std::size_t i = 0; i < cloud.n; ++i) {
    const bool chosen = cloud.c[i] == 3;
    EXPECT_EQ(c[i], chosen ? 240 : cloud.c[i]);
    EXPECT_EQ(flag[i], chosen ? 4 : 0); // from the value of c before
    EXPECT_EQ(b[i], chosen ? -cloud.b[i] : cloud.b[i]);
  }
}

TEST(Assignments, RefuseValuesTheTypeCannotHoldAndChangeNothing) {
  const struct {
    const char* set;
    const char* message;
  } cases[] = {
      {"c = c + 250", "ERROR: set c: the value 256 of \" c + 250\" does not fit: uint8 holds "
                      "whole numbers from 0 to 255"},
      {"c = c - 1", "ERROR: set c: the value -1 of \" c - 1\" does not fit: uint8 holds whole "
                    "numbers from 0 to 255"},
      {"c = 0.5", "ERROR: set c: the value 0.5 of \" 0.5\" does not fit: uint8 holds whole "
                  "numbers from 0 to 255"},
      {"f = 1e39", "ERROR: set f: the value 1e+39 of \" 1e39\" does not fit: "
                   "float32 holds numbers up to 3.40282e+38"},
      {"RGB = 1", "ERROR: set RGB: no field \"RGB\" (--create RGB:TYPE makes one)"},
      {"X = 1", "ERROR: set X: the positions are not assigned"},
      {"c = d", "ERROR: set c: \" d\": unknown field \"d\" (the cloud has X, Y, Z, a, b, c, f)"},
  };
  for (const auto& t : cases) {
    Cloud cloud;
    FieldAssignmentParameterBox box;
    box.create = {"f:float32"};
    box.set = {t.set};
    assignFields(cloud.grid, box);
    EXPECT_EQ(box.message, t.message) << t.set;
    EXPECT_EQ(cloud.field<unsigned char>("c"), cloud.c) << t.set;
  }
  Cloud cloud;
  FieldAssignmentParameterBox box;
  box.create = {"c:float32"};
  box.set = {"c=1"};
  assignFields(cloud.grid, box);
  EXPECT_EQ(box.message, "ERROR: create \"c:float32\": the cloud has a field \"c\" of type uint8");
}

} // namespace
