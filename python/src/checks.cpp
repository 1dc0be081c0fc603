// SPDX-License-Identifier: BSD-3-Clause
// Quorvel for Python: the library's checks of parameter values before every run, raising
// ValueError with the field's name, so that Python refuses what the command-line host refuses.
#include "boxes.hpp"

#include "quorvel/core/checks.hpp"

namespace Quorvel::Python {

namespace {

// The check's problem with a Python value: texts as they are, anything else as a number (a value
// that is neither is refused by its own conversion later).
std::optional<std::string> problemOf(const Checks::FieldCheck& check, const py::handle& value) {
  if (py::isinstance<py::str>(value))
    return Checks::problem(check, py::cast<std::string>(value));
  return Checks::problem(check, py::cast<double>(value));
}

} // namespace

void requireChecks(const char* box, const py::object& obj) {
  if (const Checks::BoxChecks* checks = Checks::checksOf(box))
    for (const Checks::FieldCheck& check : checks->fields)
      if (const auto problem = problemOf(check, obj.attr(std::string(check.field).c_str())))
        raiseValue(Checks::named(check.field, *problem));
}

void requireValue(const char* box, const char* field, const py::object& value) {
  if (const Checks::FieldCheck* check = Checks::checkOf(box, field))
    if (const auto problem = problemOf(*check, value))
      raiseValue(Checks::named(field, *problem));
}

} // namespace Quorvel::Python
