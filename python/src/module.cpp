// Quorvel for Python: the extension module behind `import quorvel`.
#include "cloud.hpp"

#include <stdexcept>

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
}
