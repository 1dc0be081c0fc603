// SPDX-License-Identifier: BSD-3-Clause
// Quorvel for Python: point clouds as numpy arrays.
#pragma once

#include "io/las.hpp"
#include "io/stream.hpp"
#include "tressel/grid.hpp"

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Quorvel::Python {

namespace py = pybind11;

// A point cloud held from Python: a grid of the framework, shared with the algorithms.
struct Cloud {
  Basalt::StrongPtr<Tressel::Grid> grid;
};

// Raises quorvel.Error with text (std::runtime_error is quorvel.Error in Python).
[[noreturn]] inline void raise(const std::string& text) {
  throw std::runtime_error(text);
}

// Raises ValueError with text (pybind11's value_error would become quorvel.Error, being a
// std::runtime_error).
[[noreturn]] inline void raiseValue(const std::string& text) {
  PyErr_SetString(PyExc_ValueError, text.c_str());
  throw py::error_already_set();
}

// The box of a box= argument: 4 or 6 finite numbers, each lower edge at or below the upper one;
// raises ValueError otherwise. nullopt for None.
std::optional<Las::Box> boxOf(const std::optional<std::vector<double>>& values);

// io's warnings about a file read from path, each written to standard error as
// "<path>: warning: <text>", as the command-line host shows them.
Las::Warn readWarnings(const std::string& path);
// Write options whose note of the version and format a file written to path moves to is written
// to standard error as "<path>: <text>".
Las::WriteOptions writeOptions(const std::string& path);

void bindCloud(py::module_& m);
void bindAlgorithms(py::module_& m);
void bindKernels(py::module_& m);
void bindRaster(py::module_& m);
void bindStreams(py::module_& m);
void bindCatalog(py::module_& m);
void bindRender(py::module_& m);
void bindFilters(py::module_& m);

} // namespace Quorvel::Python
