// SPDX-License-Identifier: BSD-3-Clause
// Quorvel for Python: the parsers and kernels, with Python values.
#include "boxes.hpp"

#include "quorvel/core/core.hpp"
#include "quorvel/geometry/geometry.hpp"
#include "quorvel/metadata/metadata.hpp"

#include <pybind11/stl.h>

namespace Quorvel::Python {

namespace {

using Vantor::PhysicalSpace::vector;

// n x 3 float64 values as points.
std::vector<point>
pointsOf(const py::array_t<double, py::array::c_style | py::array::forcecast>& a) {
  if (a.ndim() != 2 || a.shape(1) != 3)
    raise("points must be an n x 3 array");
  std::vector<point> out(static_cast<std::size_t>(a.shape(0)));
  for (std::size_t i = 0; i < out.size(); ++i)
    out[i] = point(a.at(i, 0), a.at(i, 1), a.at(i, 2));
  return out;
}

void bindRanges(py::module_& m) {
  using Range = Vantor::MultiRange<double>;
  py::class_<Range>(m, "MultiRange",
                    "Closed intervals from a text such as \"2:5,9\" (classes, metres, any "
                    "value).\n\nParameters:\n    text: items a or a:b separated by ',' or ';'")
      .def(py::init<>())
      .def(py::init<const std::string&>(), py::arg("text"))
      .def("contains", &Range::contains, py::arg("x"), py::arg("tolerance") = RangeTolerance)
      .def("to_string", &Range::to_string)
      .def("empty", &Range::empty)
      .def_readonly("intervals", &Range::intervals)
      .def("__repr__", [](const Range& r) { return "MultiRange(\"" + r.to_string() + "\")"; });
  m.def(
      "assignClassesToClasses",
      [](const std::string& text) {
        std::vector<unsigned char> table;
        const bool ok = assignClassesToClasses(text, table);
        return py::make_tuple(ok, std::vector<int>(table.begin(), table.end()));
      },
      py::arg("text"),
      "(accepted, the 256-entry class table) of a class assignment.\n\n"
      "Parameters:\n"
      "    text: classes and their new class, e.g. \"2>6;3:5>7\"");
  m.def(
      "assignRangesToClasses",
      [](const std::string& text) {
        std::vector<std::pair<std::pair<double, double>, int>> table;
        const bool ok = assignRangesToClasses(text, table);
        return py::make_tuple(ok, table);
      },
      py::arg("text"),
      "(accepted, [((low, high), class)]) of a text of ranges and classes.\n\n"
      "Parameters:\n"
      "    text: value ranges (metres) and their class, e.g. \"0:1.5=2\"");
  m.def(
      "reclassificationAccordingToRange",
      [](const std::string& text) {
        std::vector<std::tuple<std::pair<double, double>, std::pair<double, double>, int>> table;
        const bool ok = reclassificationAccordingToRange(text, table);
        return py::make_tuple(ok, table);
      },
      py::arg("text"),
      "(accepted, [((a, b), (c, d), class)]) of a text of two ranges and a class.\n\n"
      "Parameters:\n"
      "    text: e.g. \"0:2=2:5=6\": heights a:b (metres), classes c:d, new class k");
}

void bindGeometry(py::module_& m) {
  m.def(
      "planarRegression",
      [](const py::array_t<double, py::array::c_style | py::array::forcecast>& points,
         unsigned percent) {
        vector plane(0, 0, 0);
        const bool ok = percent == 0 ? planarRegression(pointsOf(points), plane)
                                     : planarRegression(pointsOf(points), plane, percent);
        return py::make_tuple(ok, py::make_tuple(plane.x, plane.y, plane.z));
      },
      py::arg("points"), py::arg("percent") = 0,
      "(fitted, (a, b, c)) of the height plane z = a x + b y + c.\n\n"
      "Parameters:\n"
      "    points: n x 3 positions in metres\n"
      "    percent: percentage (0 to 100) of the lowest points left out");
  m.def(
      "weightedMean",
      [](const py::array_t<double, py::array::c_style | py::array::forcecast>& points,
         const std::vector<double>& weights) {
        point p(0, 0, 0);
        const bool ok = weightedMean(p, pointsOf(points), weights);
        return py::make_tuple(ok, py::make_tuple(p.x, p.y, p.z));
      },
      py::arg("points"), py::arg("weights"),
      "(computed, (x, y, z)) of the weighted mean of points.\n\n"
      "Parameters:\n"
      "    points: n x 3 positions in metres\n"
      "    weights: one weight per point");
  m.def(
      "weightedMedian",
      [](const py::array_t<double, py::array::c_style | py::array::forcecast>& points,
         const std::vector<double>& weights, double tolerance) {
        point p(0, 0, 0);
        const bool ok = weightedMedian(p, pointsOf(points), weights, tolerance);
        return py::make_tuple(ok, py::make_tuple(p.x, p.y, p.z));
      },
      py::arg("points"), py::arg("weights"), py::arg("tolerance"),
      "(computed, (x, y, z)) of the weighted median of points (re-weighted means).\n\n"
      "Parameters:\n"
      "    points: n x 3 positions in metres\n"
      "    weights: one weight per point\n"
      "    tolerance: largest step in metres that ends the refinement; 1 or more: the mean");
  m.def("sphCubic", py::overload_cast<double, double>(&sphCubic), py::arg("r"), py::arg("h") = 1.0,
        "The cubic spline kernel of support 2 h, 1 at r = 0.\n\n"
        "Parameters:\n"
        "    r: distance in metres\n"
        "    h: smoothing length in metres");
}

void bindDates(py::module_& m) {
  py::class_<Chronometry>(m, "Chronometry",
                          "The acquisition date read from a file name.\n\n"
                          "Parameters:\n    file_name: a name holding yymmdd_hhmmss")
      .def(py::init<const std::string&>(), py::arg("file_name"))
      .def(
          "print",
          [](const Chronometry& c) {
            py::print(printed(c), py::arg("end") = "", py::arg("flush") = true);
          },
          "Writes the date's lines to sys.stdout.")
      .def("ddmmyy", &Chronometry::ddmmyy, py::arg("sep") = '.')
      .def("ddmmyyyy", &Chronometry::ddmmyyyy, py::arg("sep") = '.')
      .def("yyyymmdd", &Chronometry::yyyymmdd, py::arg("sep") = '.')
      .def("yymmdd", &Chronometry::yymmdd, py::arg("sep") = '.')
      .def_readonly("year", &Chronometry::year)
      .def_readonly("month", &Chronometry::month)
      .def_readonly("day", &Chronometry::day)
      .def_readonly("hour", &Chronometry::hour)
      .def_readonly("minute", &Chronometry::minute)
      .def_readonly("second", &Chronometry::second)
      .def_readonly("day_of_week", &Chronometry::day_of_week)
      .def_readonly("gps_week", &Chronometry::gps_week);
  m.def("current_date_and_time", &current_date_and_time, py::arg("sep") = ' ',
        "The present local time as asctime writes it, without colons (blanks become underscores "
        "unless sep is a blank).\n\n"
        "Parameters:\n"
        "    sep: the separator between date and time");
  m.def("compute_gps_week", &compute_gps_week, py::arg("day"), py::arg("month"), py::arg("year"),
        "The GPS week of a civil date.\n\n"
        "Parameters:\n"
        "    day: 1 to 31; month: 1 to 12; year: four digits");
}

} // namespace

void bindKernels(py::module_& m) {
  bindRanges(m);
  bindGeometry(m);
  bindDates(m);
}

} // namespace Quorvel::Python
