// SPDX-License-Identifier: BSD-3-Clause
// Tests of the cell size and of acquisition dates read from file names.
#include "quorvel/metadata/metadata.hpp"
#include "tressel/point_cloud.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <date/date.h>
#include <limits>
#include <omp.h>

namespace {

using namespace Quorvel;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Vantor::PhysicalSpace::point;

// Cell sizes of a cloud built from points, fragment by fragment as given.
std::vector<float> cellSizesOf(const std::vector<point>& xyz, const Tressel::Partition& fragments,
                               std::string* report = nullptr) {
  auto grid = Tressel::PointCloudBuilder(xyz).build(fragments);
  const std::string text = setCellSize(grid, nullptr);
  if (report)
    *report = text;
  return Tressel::readField<float>(*(*grid)(Tressel::StandardCartesianChart3D, "CellTensor"),
                                   fragments);
}

TEST(CellSize, LonePointsAndEightSharingAVoxel) {
  // x spans 10 units: 101 voxels of 0.1; y and z have extent 0: one voxel of 0.1 each.
  std::vector<point> xyz = {{0, 0, 0}, {10, 0, 0}};
  for (int k = 0; k < 8; ++k)
    xyz.push_back({5.01 + 0.005 * k, 0, 0});
  const auto sizes = cellSizesOf(xyz, {{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}});
  const double volume = 0.1 * 0.1 * 0.1;
  EXPECT_FLOAT_EQ(sizes[0], static_cast<float>(std::sqrt(volume)));
  EXPECT_FLOAT_EQ(sizes[1], static_cast<float>(std::sqrt(volume)));
  for (int k = 2; k < 10; ++k)
    EXPECT_FLOAT_EQ(sizes[k], static_cast<float>(std::sqrt(volume / 8)));
}

TEST(CellSize, LongAxesAreCappedAt65536Voxels) {
  // 10000 units: 100001 voxels of 0.1 would be needed; 65536 of 10000 / 65537 are used.
  const std::vector<point> xyz = {{0, 0, 0}, {0.1, 0, 0}, {5000, 0, 0}, {10000, 0, 0}};
  const auto sizes = cellSizesOf(xyz, {{0, 1, 2, 3}});
  const double width = 10000 * 1.5258556235409006e-5;
  EXPECT_NEAR(width, 10000.0 / 65537.0, 1e-12);
  const double volume = width * 0.1 * 0.1;
  EXPECT_FLOAT_EQ(sizes[0], static_cast<float>(std::sqrt(volume / 2))); // 0 and 0.1 share
  EXPECT_FLOAT_EQ(sizes[1], static_cast<float>(std::sqrt(volume / 2)));
  EXPECT_FLOAT_EQ(sizes[2], static_cast<float>(std::sqrt(volume)));
  EXPECT_FLOAT_EQ(sizes[3], static_cast<float>(std::sqrt(volume)));

  // Any finite extent keeps the voxel key in range, on all three axes at once.
  const double far = 1e300;
  const auto huge = cellSizesOf({{0, 0, 0}, {far, far, far}, {far / 2, 0, far}}, {{0, 1, 2}});
  for (float s : huge)
    EXPECT_TRUE(std::isfinite(s) || std::isinf(s)); // a defined number, no crash
}

TEST(CellSize, NaNSinglePointsAndDuplicates) {
  const double nan = std::nan("");
  std::vector<point> single = {{4, 5, 6}};
  const double volume = 0.001;
  EXPECT_FLOAT_EQ(cellSizesOf(single, {{0}})[0], static_cast<float>(std::sqrt(volume)));

  std::vector<point> mixed = {{1, 1, 1}, {nan, 2, 2}, {1.05, 1, 1}};
  const auto withNaN = cellSizesOf(mixed, {{0, 1, 2}});
  EXPECT_TRUE(std::isnan(withNaN[1]));
  EXPECT_FLOAT_EQ(withNaN[0], withNaN[2]);
  EXPECT_TRUE(std::isfinite(withNaN[0]));

  std::vector<point> same(100, point{7, 7, 7});
  const auto duplicates = cellSizesOf(same, {Tressel::sequentialPartition(100, 0)[0]});
  for (float s : duplicates)
    EXPECT_FLOAT_EQ(s, static_cast<float>(std::sqrt(volume / 100)));
}

TEST(CellSize, ArraysReportAndAttributes) {
  std::vector<point> xyz;
  for (int i = 0; i < 50; ++i)
    xyz.push_back({i * 0.3, i * 0.1, 0});
  const auto partition = Tressel::sequentialPartition(50, 20);
  auto grid = Tressel::PointCloudBuilder(xyz).build(partition);
  EXPECT_EQ(setCellSize(grid, nullptr), "setCellSize: CellTensor for 50 points in 3 fragments");
  auto field = (*grid)(Tressel::StandardCartesianChart3D, "CellTensor");
  ASSERT_NE(field, nullptr);
  auto creator = field->getCreator(field->getFragmentIDs().findFragmentID(2u));
  ASSERT_NE(creator, nullptr);
  EXPECT_EQ(creator->name(), "CellTensor, RefLevel: 0 FidNr #2");
  auto attribute = Basalt::chunkCast<double>(creator->attributes().getAttribute("CellSize"));
  ASSERT_NE(attribute, nullptr);
  EXPECT_EQ((*attribute)[0], 1.0);

  EXPECT_EQ(setCellSize(nullptr, nullptr), "No Grid");
}

// Fragments are measured in parallel on all processors but one, and the points of one fragment
// in blocks when fragments are fewer; how many there are never changes a cell size. Points that
// are not finite, and runs of one voxel that straddle the blocks, included.
TEST(CellSize, ResultsDoNotDependOnThreads) {
  // About 20 points a voxel: the blocks of sorted keys begin inside runs.
  std::vector<point> xyz;
  for (int i = 0; i < 4000; ++i)
    xyz.push_back(i % 13 == 5
                      ? point{std::nan(""), 1, 1}
                      : point{std::fmod(i * 0.37, 1.0), std::fmod(i * 0.61, 1.0), (i % 3) * 0.1});
  const int before = omp_get_max_threads();
  for (const auto& partition : {Tressel::sequentialPartition(xyz.size(), 250),
                                Tressel::sequentialPartition(xyz.size(), 0)}) {
    omp_set_num_threads(2); // one worker
    const auto one = cellSizesOf(xyz, partition);
    omp_set_num_threads(6);
    const auto several = cellSizesOf(xyz, partition);
    ASSERT_EQ(one.size(), several.size());
    EXPECT_EQ(std::memcmp(one.data(), several.data(), one.size() * sizeof(float)), 0);
  }
  omp_set_num_threads(before);
}

TEST(CellSize, AttributeSettersStoreTheirValues) {
  Tressel::CreativeArrayBase array(nullptr, "a");
  const auto before = array.age();
  EXPECT_TRUE(setCellSizeAttribute(array, 0.25));
  EXPECT_EQ((*Basalt::chunkCast<double>(array.attributes().getAttribute("CellSize")))[0], 1.0);
  EXPECT_GT(array.age(), before);
  const auto touched = array.age();
  setCellSizeAttributeOld(array, 0.25);
  EXPECT_EQ((*Basalt::chunkCast<double>(array.attributes().getAttribute("CellSize")))[0], 0.25);
  EXPECT_EQ(array.age(), touched);
}

struct Expected {
  const char* name;
  int year;
  unsigned month, day, hour, minute, second;
};

TEST(Chronometry, PatternsAndFormatsInOrder) {
  const Expected cases[] = {
      {"scan_210315_134501.laz", 2021, 3, 15, 13, 45, 1},
      {"area_15.03.2021.bin", 2021, 3, 15, 0, 0, 0},
      {"area_15-03-2021.bin", 0, 0, 0, 0, 0, 0},    // the dots match anything, the format does not
      {"flight_05012021.las", 2021, 1, 5, 0, 0, 0}, // %d%m%Y
      {"flight_20210105.las", 2021, 1, 5, 0, 0, 0}, // %d%m%Y fails (month 21), then %Y%m%d
      {"x_150321.las", 2021, 3, 15, 0, 0, 0},       // %d%m%y
      {"x_210315.las", 2015, 3, 21, 0, 0, 0},       // %d%m%y already fits
      {"x_991231.las", 1999, 12, 31, 0, 0, 0},      // %y%m%d, 99 -> 1999
      {"x_681231.las", 2068, 12, 31, 0, 0, 0},      // 68 -> 2068
      {"x_690101.las", 1969, 1, 1, 0, 0, 0},        // 69 -> 1969
      {"a_120520_b_130621.las", 2021, 6, 13, 0, 0, 0}, // the last fitting run wins
      {"12345678_87654321.las", 0, 0, 0, 0, 0, 0},
      {"readme.txt", 0, 0, 0, 0, 0, 0},
  };
  for (const auto& c : cases) {
    const Chronometry date(c.name);
    EXPECT_EQ(date.year, c.year) << c.name;
    EXPECT_EQ(date.month, c.month) << c.name;
    EXPECT_EQ(date.day, c.day) << c.name;
    EXPECT_EQ(date.hour, c.hour) << c.name;
    EXPECT_EQ(date.minute, c.minute) << c.name;
    EXPECT_EQ(date.second, c.second) << c.name;
    if (c.year == 0) {
      EXPECT_EQ(date.gps_week, 0) << c.name;
    }
  }
}

TEST(Chronometry, PrintAndLayouts) {
  const Chronometry date("scan_210315_134501.laz");
  EXPECT_EQ(date.day_of_week, 1); // a Monday
  CaptureStdout();
  date.print();
  EXPECT_EQ(GetCapturedStdout(), "Chronometry: 15|03|2021 13:45:01 - day of week: 1\n");
  EXPECT_EQ(date.ddmmyy('-'), "15-03-21");
  EXPECT_EQ(date.ddmmyyyy('.'), "15.03.2021");
  EXPECT_EQ(date.yyyymmdd('/'), "2021/03/15");
  EXPECT_EQ(date.yymmdd('_'), "21_03_15");
  const Chronometry early("x_050107.las");
  EXPECT_EQ(early.ddmmyy(' '), "05 01 07");
}

// Weeks between the date one month later and 6 February 1980, by calendar arithmetic: the month
// is placed into the calendar record unreduced in both dates.
int weeksByCalendar(unsigned day, unsigned month, unsigned year) {
  using namespace date;
  const sys_days first = sys_days(
      year_month_day{date::year(static_cast<int>(year)), date::month(month), date::day(1)} +
      months(1));
  const sys_days when = first + days(static_cast<int>(day) - 1);
  const sys_days reference = sys_days(date::year(1980) / date::month(2) / date::day(6));
  return static_cast<int>((when - reference).count() / 7);
}

TEST(GpsWeek, MatchesCalendarArithmeticInUtcAndWithDaylightSaving) {
  const char* saved = std::getenv("TZ");
  const std::string previous = saved ? saved : "";
  for (const char* zone : {"UTC", "Europe/Berlin"}) {
    setenv("TZ", zone, 1);
    tzset();
    for (unsigned year : {1980u, 1999u, 2021u, 2024u, 2038u})
      for (unsigned month = 1; month <= 12; ++month)
        for (unsigned day : {1u, 6u, 15u, 28u}) {
          EXPECT_EQ(compute_gps_week(day, month, year), weeksByCalendar(day, month, year))
              << zone << " " << year << "-" << month << "-" << day;
        }
    EXPECT_LT(compute_gps_week(1, 1, 1970), 0) << zone;
    EXPECT_EQ(compute_gps_week(6, 1, 1980), 0) << zone;
    EXPECT_EQ(compute_gps_week(1, 1, 4000000000u), 0) << zone; // no calendar record holds it
  }
  if (saved)
    setenv("TZ", previous.c_str(), 1);
  else
    unsetenv("TZ");
  tzset();
  EXPECT_EQ(Chronometry("scan_210315_134501.laz").gps_week, compute_gps_week(15, 3, 2021));
}

TEST(CurrentDateAndTime, BlanksAndColons) {
  const std::string plain = current_date_and_time(' ');
  const std::string joined = current_date_and_time('-');
  EXPECT_EQ(plain.find(':'), std::string::npos);
  EXPECT_EQ(plain.find('\n'), std::string::npos);
  EXPECT_NE(plain.find(' '), std::string::npos);
  EXPECT_EQ(joined.find(' '), std::string::npos);
  EXPECT_EQ(joined.find('-'), std::string::npos); // sep is never inserted
  EXPECT_GE(joined.size(), 22u);                  // "Sat_Nov_21_151228_2026"
}

} // namespace
