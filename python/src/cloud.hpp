// Quorvel for Python: point clouds as numpy arrays.
#pragma once

#include "tressel/Grid.hpp"

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <stdexcept>
#include <string>

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

void bindCloud(py::module_& m);
void bindAlgorithms(py::module_& m);
void bindKernels(py::module_& m);
void bindRaster(py::module_& m);

} // namespace Quorvel::Python
