// Quorvel for Python: what the bindings of the algorithms share: parameter boxes as classes with
// their fields, and runs without the GIL that raise quorvel.Error when they report an error.
#pragma once

#include "cloud.hpp"

#include "vantor/MultiRange.hpp"

#include <string>
#include <vector>

namespace Quorvel::Python {

// A box class with its fields: plain fields read and written as they are, value ranges as texts.
// The field names, in order, are kept in `_fields` for keyword construction and repr.
template <class Box>
class BoxBinding {
public:
  BoxBinding(py::module_& m, const char* name, const char* doc) : cls_(m, name, doc) {
    cls_.def(py::init<>()).def("print", &Box::print, "The box's lines on standard output.");
  }
  template <class T>
  BoxBinding& field(const char* name, T Box::*member) {
    cls_.def_readwrite(name, member);
    names_.push_back(name);
    return *this;
  }
  BoxBinding& field(const char* name, Vantor::MultiRange<double> Box::*member) {
    cls_.def_property(
        name, [member](const Box& b) { return (b.*member).to_string(); },
        [member](Box& b, const std::string& text) {
          b.*member = Vantor::MultiRange<double>(text);
        });
    names_.push_back(name);
    return *this;
  }
  // A field read and written through conversions (lists of bands, say).
  template <class Get, class Set>
  BoxBinding& property(const char* name, Get get, Set set) {
    cls_.def_property(name, get, set);
    names_.push_back(name);
    return *this;
  }
  // A field the runs set.
  template <class Get>
  BoxBinding& readonly(const char* name, Get get) {
    cls_.def_property_readonly(name, get);
    names_.push_back(name);
    return *this;
  }
  ~BoxBinding() { cls_.attr("_fields") = py::tuple(py::cast(names_)); }

private:
  py::class_<Box> cls_;
  std::vector<std::string> names_;
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
