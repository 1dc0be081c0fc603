// SPDX-License-Identifier: BSD-3-Clause
// Tests of the class-assignment parsers and the range-table printer.
#include "quorvel/core/core.hpp"

#include <gtest/gtest.h>

#include <clocale>
#include <string>

namespace {

using namespace Quorvel;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using RangeTable = std::vector<std::pair<std::pair<double, double>, int>>;
using ReclassTable =
    std::vector<std::tuple<std::pair<double, double>, std::pair<double, double>, int>>;

std::vector<unsigned char> identity() {
  std::vector<unsigned char> table(256);
  for (int c = 0; c < 256; ++c)
    table[c] = static_cast<unsigned char>(c);
  return table;
}

TEST(AssignClassesToClasses, AcceptedTexts) {
  std::vector<unsigned char> table(3, 77); // whatever it held before is replaced
  EXPECT_TRUE(assignClassesToClasses("", table));
  EXPECT_EQ(table, identity());

  EXPECT_TRUE(assignClassesToClasses("2:4>9", table));
  auto expected = identity();
  expected[2] = expected[3] = expected[4] = 9;
  EXPECT_EQ(table, expected);
  EXPECT_TRUE(assignClassesToClasses("4:2>9", table));
  EXPECT_EQ(table, expected);

  EXPECT_TRUE(assignClassesToClasses("2>6;3:5>7,5>1", table)); // later items overwrite
  expected = identity();
  expected[2] = 6;
  expected[3] = expected[4] = 7;
  expected[5] = 1;
  EXPECT_EQ(table, expected);

  EXPECT_TRUE(assignClassesToClasses(" 7 > 8x", table)); // atoi: blanks and trailing text
  EXPECT_EQ(table[7], 8);
  EXPECT_TRUE(assignClassesToClasses("0:255>3", table));
  EXPECT_EQ(table, std::vector<unsigned char>(256, 3));
  EXPECT_TRUE(assignClassesToClasses(std::string("1>2\0;;;", 7), table)); // text ends at NUL
  EXPECT_EQ(table[1], 2);
  EXPECT_TRUE(assignClassesToClasses(std::string("\0"
                                                 "1>2",
                                                 4),
                                     table));
  EXPECT_EQ(table, identity());
}

TEST(AssignClassesToClasses, RefusedTextsKeepEarlierItems) {
  std::vector<unsigned char> table;
  EXPECT_FALSE(assignClassesToClasses("1>256", table));
  EXPECT_EQ(table, identity());
  EXPECT_FALSE(assignClassesToClasses("-1>2", table));
  EXPECT_FALSE(assignClassesToClasses("1:300>2", table));
  EXPECT_FALSE(assignClassesToClasses("99999999999>2", table));

  EXPECT_FALSE(assignClassesToClasses("1>2;", table)); // trailing separator: empty item
  EXPECT_EQ(table[1], 2);                              // no rollback
  EXPECT_FALSE(assignClassesToClasses(";", table));
  EXPECT_FALSE(assignClassesToClasses("3>4;;5>6", table));
  EXPECT_EQ(table[3], 4);
  EXPECT_EQ(table[5], 5);

  EXPECT_FALSE(assignClassesToClasses("1>2>3", table));
  EXPECT_FALSE(assignClassesToClasses("12", table));
  EXPECT_FALSE(assignClassesToClasses("1:2:3>4", table));
  EXPECT_FALSE(assignClassesToClasses("1>2:3", table));
}

TEST(AssignRangesToClasses, AppendsEntriesAndTruncatesClasses) {
  RangeTable table = {{{9, 9}, 9}};
  EXPECT_FALSE(assignRangesToClasses("", table));
  EXPECT_EQ(table.size(), 1u);

  EXPECT_TRUE(assignRangesToClasses("5:1=2.9", table));
  EXPECT_EQ(table, (RangeTable{{{9, 9}, 9}, {{1, 5}, 2}}));

  table.clear();
  EXPECT_TRUE(assignRangesToClasses("0:1.5=2;-2.5=-3.7,1e2:-1e1=\t4", table));
  EXPECT_EQ(table, (RangeTable{{{0, 1.5}, 2}, {{-2.5, -2.5}, -3}, {{-10, 100}, 4}}));
}

TEST(AssignRangesToClasses, RefusedItemsLeaveEarlierEntries) {
  RangeTable table;
  EXPECT_FALSE(assignRangesToClasses("0:1=2;3:4", table));
  EXPECT_EQ(table, (RangeTable{{{0, 1}, 2}}));
  EXPECT_FALSE(assignRangesToClasses("0:1=2=3", table));
  EXPECT_FALSE(assignRangesToClasses("0:1:2=3", table));
  EXPECT_FALSE(assignRangesToClasses("0:1=2:3", table));
  EXPECT_FALSE(assignRangesToClasses("0:1=2,", table));
  EXPECT_FALSE(assignRangesToClasses("0:1=1e20", table)); // class does not fit an int
  EXPECT_FALSE(assignRangesToClasses("0:1=nan", table));
  EXPECT_EQ(table.size(), 2u); // from "0:1=2;3:4" and "0:1=2,"
  EXPECT_FALSE(assignRangesToClasses(std::string("\0"
                                                 "0:1=2",
                                                 6),
                                     table));
}

TEST(ReclassificationAccordingToRange, KeepsTheWrittenOrderOfBothIntervals) {
  ReclassTable table;
  EXPECT_FALSE(reclassificationAccordingToRange("", table));
  EXPECT_TRUE(reclassificationAccordingToRange("5:1=0:2=3", table));
  EXPECT_EQ(table, (ReclassTable{{{5, 1}, {0, 2}, 3}}));
  EXPECT_TRUE(reclassificationAccordingToRange("7=2:-2=9.9;1:2=3=4", table));
  EXPECT_EQ(table, (ReclassTable{{{5, 1}, {0, 2}, 3}, {{7, 7}, {2, -2}, 9}, {{1, 2}, {3, 3}, 4}}));

  EXPECT_FALSE(reclassificationAccordingToRange("5:1=3", table));
  EXPECT_FALSE(reclassificationAccordingToRange("1=2=3=4", table));
  EXPECT_FALSE(reclassificationAccordingToRange("1:2:3=2=3", table));
  EXPECT_FALSE(reclassificationAccordingToRange("1=2=3:4", table));
  EXPECT_FALSE(reclassificationAccordingToRange("1=2=3;x", table));
  EXPECT_EQ(table.size(), 4u);
}

TEST(PrintAssignment, OneLinePerEntry) {
  CaptureStdout();
  printAssignment({{{0, 1.5}, 2}, {{-2.25, 1e3}, -1}});
  printAssignment({});
  EXPECT_EQ(GetCapturedStdout(), "[0.000;1.500] > 2\n[-2.250;1000.000] > -1\n");
}

TEST(Parsers, DecimalPointsUnderADecimalCommaLocale) {
  const std::string previous = std::setlocale(LC_ALL, nullptr);
  if (!std::setlocale(LC_ALL, "de_DE.UTF-8"))
    GTEST_SKIP() << "locale de_DE.UTF-8 not available";
  RangeTable table;
  const bool ok = assignRangesToClasses("0.5:1.5=2", table);
  CaptureStdout();
  printAssignment(table);
  const std::string printed = GetCapturedStdout();
  std::setlocale(LC_ALL, previous.c_str());
  EXPECT_TRUE(ok);
  EXPECT_EQ(table, (RangeTable{{{0.5, 1.5}, 2}}));
  EXPECT_EQ(printed, "[0.500;1.500] > 2\n");
}

} // namespace
