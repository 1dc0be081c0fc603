// SPDX-License-Identifier: BSD-3-Clause
// Quorvel for Python: what the bindings of the algorithms share: parameter boxes as classes with
// their fields, and runs without the GIL that raise quorvel.Error when they report an error.
#pragma once

#include "cloud.hpp"

#include "quorvel/core/fields.hpp"

#include "basalt/console.hpp"
#include "vantor/multi_range.hpp"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Quorvel::Python {

// The lines a box's print() writes, whatever the console's sink: a box is printed because it was
// asked for.
template <class Box>
std::string printed(const Box& box) {
  Basalt::Console::Capture capture;
  box.print();
  return capture.text();
}

// Binds print() (the lines on Python's standard output) and str() (the same lines as a text).
template <class Class>
void bindPrint(Class& cls) {
  using Box = typename Class::type;
  cls.def(
         "print",
         [](const Box& b) { py::print(printed(b), py::arg("end") = "", py::arg("flush") = true); },
         "Writes the box's lines (one per printed field, as the library words them) to "
         "sys.stdout, whether or not the library's lines are shown (set_verbose).")
      .def(
          "__str__", [](const Box& b) { return printed(b); }, "The lines print() writes.");
}

// Raises ValueError naming the first field of the Python object obj (a box, by its type name
// `box`) that the library's checks refuse; the same checks as the command-line host's.
void requireChecks(const char* box, const py::object& obj);
// The same for one value of a function's argument (a number or a text).
void requireValue(const char* box, const char* field, const py::object& value);

template <class Box>
void requireBox(const char* name, Box& box) {
  requireChecks(name, py::cast(&box, py::return_value_policy::reference));
}

// A box whose fields are described once (quorvel/core/fields.hpp).
template <class Box>
concept Described = requires {
  Box::fields();
};

// A box class with its fields: plain fields read and written as they are, value ranges as texts.
// The field names, in order, are kept in `_fields` for keyword construction and repr; the class's
// docstring lists every field with its meaning and unit. For a described box, describedFields()
// binds every field not bound by hand before it, and the order and the help of the fields are
// the description's (`_units` adds each field's unit).
template <class Box>
class BoxBinding {
public:
  BoxBinding(py::module_& m, const char* name, const char* doc)
      : cls_(m, name), name_(name), doc_(doc) {
    cls_.def(py::init<>());
    bindPrint(cls_);
  }
  template <class T>
  BoxBinding& field(const char* name, T Box::*member, const char* doc) {
    cls_.def_readwrite(name, member, doc);
    return add(name, doc);
  }
  BoxBinding& field(const char* name, Vantor::MultiRange<double> Box::*member, const char* doc) {
    cls_.def_property(
        name, [member](const Box& b) { return (b.*member).to_string(); },
        // Checked here: the parsed range drops what it cannot read, so the text is gone later.
        [member, box = name_, name](Box& b, const std::string& text) {
          requireValue(box, name, py::str(text));
          b.*member = Vantor::MultiRange<double>(text);
        },
        doc);
    return add(name, doc);
  }
  // A field read and written through conversions (lists of bands, say); a described box's field
  // without doc takes the description's help.
  template <class Get, class Set>
  BoxBinding& property(const char* name, Get get, Set set, const char* doc = nullptr) {
    doc = doc ? doc : describedHelp(name);
    cls_.def_property(name, get, set, doc);
    return add(name, doc);
  }
  // A field the runs set.
  template <class Get>
  BoxBinding& readonly(const char* name, Get get, const char* doc = nullptr) {
    doc = doc ? doc : describedHelp(name);
    cls_.def_property_readonly(name, get, doc);
    return add(name, doc);
  }
  // Every described field not bound yet, as field() binds it. The description's texts are
  // literals, so their views are null-terminated.
  BoxBinding& describedFields() requires Described<Box> {
    forEachField<Box>([&](const auto& described) {
      if (!bound(described.name))
        field(described.name.data(), described.member, described.help.data());
    });
    return *this;
  }
  py::class_<Box>& cls() { return cls_; }
  ~BoxBinding() {
    if constexpr (Described<Box>)
      inDescribedOrder();
    std::vector<std::string> names;
    for (const auto& [name, doc] : fields_) {
      doc_ += std::string(names.empty() ? "\n\nFields (keywords of the constructor):\n" : "") +
              "    " + name + ": " + doc + "\n";
      names.push_back(name);
    }
    cls_.attr("_fields") = py::tuple(py::cast(names));
    cls_.attr("__doc__") = doc_;
  }

private:
  BoxBinding& add(const char* name, const char* doc) {
    fields_.emplace_back(name, doc);
    return *this;
  }
  bool bound(std::string_view name) const {
    for (const auto& entry : fields_)
      if (entry.first == name)
        return true;
    return false;
  }
  static const char* describedHelp(std::string_view name) {
    const char* help = "";
    if constexpr (Described<Box>)
      forEachField<Box>([&](const auto& described) {
        if (described.name == name)
          help = described.help.data();
      });
    return help;
  }
  // The bound fields in the description's order, and their units in `_units`.
  void inDescribedOrder() {
    std::vector<std::pair<std::string, std::string>> ordered;
    py::dict units;
    forEachField<Box>([&](const auto& described) {
      for (const auto& entry : fields_)
        if (entry.first == described.name)
          ordered.push_back(entry);
      units[py::str(described.name.data())] = py::str(described.unit.data());
    });
    // Fields bound by hand that the description lacks (none should) stay, after the others.
    for (const auto& entry : fields_)
      if (std::find(ordered.begin(), ordered.end(), entry) == ordered.end())
        ordered.push_back(entry);
    fields_ = std::move(ordered);
    cls_.attr("_units") = units;
  }

  py::class_<Box> cls_;
  const char* name_;
  std::string doc_;
  std::vector<std::pair<std::string, std::string>> fields_;
};

// Runs f without the GIL; raises when the message grew.
template <class F>
std::string checked(std::string& message, F&& f) {
  const std::size_t before = message.size();
  std::string result;
  {
    py::gil_scoped_release released;
    result = f();
  }
  if (message.size() > before)
    raise(message.substr(before));
  return result;
}

// A run that makes a new grid, as a new cloud; raises like checked().
template <class F>
Cloud newCloud(std::string& message, F&& f) {
  Cloud out;
  checked(message, [&] {
    out.grid = f();
    return std::string();
  });
  return out;
}

} // namespace Quorvel::Python
