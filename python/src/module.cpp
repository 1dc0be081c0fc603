// SPDX-License-Identifier: BSD-3-Clause
// Quorvel for Python: the extension module behind `import quorvel`.
#include "cloud.hpp"

#include "basalt/console.hpp"

#include <iostream>
#include <stdexcept>
#include <utility>

namespace {
// Whether the console's sink is standard error (set_verbose) rather than nothing.
bool verbose = false;
} // namespace

PYBIND11_MODULE(_quorvel, m) {
  namespace py = pybind11;
  m.doc() = "Quorvel: point-cloud algorithms for airborne and terrestrial LIDAR";
  // Every failure of a run, and every file that cannot be read or written (their errors derive
  // from std::runtime_error), raises quorvel.Error with the message.
  py::register_exception<std::runtime_error>(m, "Error");
  Quorvel::Python::bindCloud(m);
  Quorvel::Python::bindAlgorithms(m);
  Quorvel::Python::bindKernels(m);
  Quorvel::Python::bindRaster(m);
  Quorvel::Python::bindStreams(m);
  Quorvel::Python::bindCatalog(m);
  Quorvel::Python::bindRender(m);
  Quorvel::Python::bindFilters(m);

  // The library's own lines (progress, per-fragment reports) are hidden until asked for: in a
  // notebook or a script they would bury the output the user wrote.
  Basalt::Console::setSink(nullptr);
  m.def(
      "set_verbose",
      [](bool on) {
        Basalt::Console::setSink(on ? &std::cerr : nullptr);
        return std::exchange(verbose, on);
      },
      py::arg("on"),
      "Shows the library's own lines (progress and reports of the algorithms) on standard "
      "error (file descriptor 2), or hides them (the default).\n\n"
      "Parameters:\n"
      "    on: True to show them, False to hide them\n"
      "Returns the setting before, so that a caller can restore it.");
  m.def(
      "is_verbose", [] { return verbose; },
      "Whether the library's own lines are shown (set_verbose).");
}
