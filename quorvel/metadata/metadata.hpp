// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: acquisition metadata, the voxel-density cell size of points and acquisition dates
// read from file names.
#pragma once

#include "basalt/loader_progress.hpp"
#include "basalt/strong_ptr.hpp"
#include "tressel/creative_array.hpp"
#include "tressel/grid.hpp"

#include <cstdint>
#include <string>

namespace Quorvel {

// Gives every point of every skeleton with a Cartesian "StandardCartesianChart3D"
// representation a cell size in the field "CellTensor" (one float per point): per fragment, the
// box of the points is cut into voxels 0.1 units wide (at most 65536 per axis, then extent /
// 65537 wide), and a point gets sqrt(voxel volume / points in its voxel). Points with a
// non-finite coordinate get NaN and are not counted. Returns "No Grid" for an empty grid, else a
// report naming the point and fragment counts. progress, when given, hears of each fragment.
std::string setCellSize(Basalt::StrongPtr<Tressel::Grid> grid,
                        const Basalt::StrongPtr<Basalt::LoaderProgress>& progress);

// Marks an array with the attribute "CellSize". The stored value is always 1.0, whatever
// cellSize says (kept on purpose); the array is given a new age. Thread-safe; returns true.
bool setCellSizeAttribute(Tressel::CreativeArrayBase& array, double cellSize);

// The older form: stores cellSize itself as "CellSize" and leaves the array's age alone.
void setCellSizeAttributeOld(Tressel::CreativeArrayBase& array, double cellSize);

// The date (and time) of an acquisition read from a file name, and its GPS week.
class Chronometry {
public:
  // Tries, in order, the patterns "<6 digits>_<6 digits>" (%y%m%d_%H%M%S), "dd?mm?yyyy"
  // (%d.%m.%Y), 8 digits (%d%m%Y, then %Y%m%d) and 6 digits (%d%m%y, then %y%m%d) against the
  // whole name; each takes the last fitting run of digits. The first format that parses wins;
  // the next pattern is tried only while no year was found. All fields stay 0 when nothing fits.
  explicit Chronometry(const std::string& fileName);

  // "Chronometry: dd|mm|yyyy hh:mm:ss - day of week: <weekday>" and a line end.
  void print() const;

  // The date as day, month and year (two or four digits) joined by sep, in the named order.
  std::string ddmmyy(char sep) const;
  std::string ddmmyyyy(char sep) const;
  std::string yyyymmdd(char sep) const;
  std::string yymmdd(char sep) const;

  int year = 0;
  std::uint32_t month = 0;
  std::uint32_t day = 0;
  std::uint32_t hour = 0;
  std::uint32_t minute = 0;
  std::uint32_t second = 0;
  std::uint16_t day_of_week = 0; // 0 for Sunday to 6 for Saturday
  int gps_week = 0;
};

// Whole weeks from 6 January 1980 to the date, both taken as local midnight by mktime with the
// month placed unreduced into the calendar record (the same shift in both dates, kept on
// purpose); negative before the reference, 0 when mktime rejects either date.
int compute_gps_week(unsigned day, unsigned month, unsigned year);

// The present local time as asctime writes it, without its colons and line end; unless sep is a
// blank, every blank becomes an underscore (sep itself is only tested, never inserted).
std::string current_date_and_time(char sep);

} // namespace Quorvel
