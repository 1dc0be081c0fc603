// SPDX-License-Identifier: BSD-3-Clause
// Quorvel for Python: clouds from numpy arrays and back, LAS and bundle files.
#include "cloud.hpp"

#include "basalt/text.hpp"
#include "io/detail/las_formats.hpp"
#include "io/files.hpp"
#include "io/raster.hpp"
#include "io/stream.hpp"
#include "tressel/point_cloud.hpp"

#include <pybind11/stl.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <numeric>

namespace Quorvel::Python {

namespace {

// numpy's dtype code of a framework scalar kind.
std::string dtypeOf(Tressel::ScalarKind kind) {
  using K = Tressel::ScalarKind;
  static const std::map<K, std::string> codes{
      {K::Int8, "i1"},    {K::UInt8, "u1"},   {K::Int16, "i2"}, {K::UInt16, "u2"},
      {K::Int32, "i4"},   {K::UInt32, "u4"},  {K::Int64, "i8"}, {K::UInt64, "u8"},
      {K::Float32, "f4"}, {K::Float64, "f8"}, {K::Float80, "g"}};
  const auto found = codes.find(kind);
  return found == codes.end() ? std::string() : found->second;
}

// The framework's element type of an array given from Python: its scalar by dtype, and "vector"
// (or "point" for the positions, "rgb16" for "RGB") for n x 3 arrays.
std::string elementTypeOf(const std::string& name, const py::array& a, std::size_t n) {
  const py::dtype d = a.dtype();
  // Bytes of another order would be read as native numbers.
  if (!py::cast<bool>(d.attr("isnative")))
    raise("field \"" + name + "\": an array in the machine's byte order is needed");
  const char kind = d.kind();
  const auto size = static_cast<int>(d.itemsize());
  std::string scalar;
  for (const auto& [k, code] :
       std::vector<std::pair<std::pair<char, int>, std::string>>{{{'u', 1}, "uint8"},
                                                                 {{'b', 1}, "uint8"},
                                                                 {{'i', 1}, "int8"},
                                                                 {{'u', 2}, "uint16"},
                                                                 {{'i', 2}, "int16"},
                                                                 {{'u', 4}, "uint32"},
                                                                 {{'i', 4}, "int32"},
                                                                 {{'u', 8}, "uint64"},
                                                                 {{'i', 8}, "int64"},
                                                                 {{'f', 4}, "float32"},
                                                                 {{'f', 8}, "float64"}})
    if (k.first == kind && k.second == size)
      scalar = code;
  if (a.ndim() == 1 && static_cast<std::size_t>(a.shape(0)) == n && !scalar.empty())
    return scalar;
  if (a.ndim() == 2 && static_cast<std::size_t>(a.shape(0)) == n && a.shape(1) == 3) {
    if (name == Tressel::PositionsFieldName && scalar == "float64")
      return "point";
    if (scalar == "float64")
      return "vector";
    if (name == "RGB" && scalar == "uint16")
      return "rgb16";
  }
  std::string shape;
  for (py::ssize_t k = 0; k < a.ndim(); ++k)
    shape += (k ? " x " : "") + std::to_string(a.shape(k));
  raise("field \"" + name + "\": an array of " + std::to_string(n) +
        " numbers, or n x 3 float64 values, is needed, not " +
        py::cast<std::string>(py::str(static_cast<const py::handle&>(d))) + " of shape " + shape);
}

// Positions cannot be NaN or infinite: every neighbourhood and cell would be wrong without a
// word. Names the first such point.
void requireFinitePositions(const py::array& xyz) {
  const auto* p = static_cast<const double*>(xyz.data());
  const auto n = static_cast<std::size_t>(xyz.size());
  const auto bad = std::find_if(p, p + n, [](double v) { return !std::isfinite(v); });
  if (bad != p + n)
    raiseValue(Basalt::format("xyz: row %zu holds %g; positions must be finite",
                              static_cast<std::size_t>(bad - p) / 3, *bad));
}

// Keeps a Python object alive for the framework, which may drop it on any thread: the reference
// is given back with the GIL held, directly where this thread holds it, else queued for the
// interpreter (never waiting for the GIL, which the thread running an algorithm's loop may
// hold).
Basalt::BlockKeeper keeperOf(py::object object) {
  return {object.release().ptr(), [](const void* p) {
            auto* held = static_cast<PyObject*>(const_cast<void*>(p));
            if (!Py_IsInitialized())
              return; // the interpreter is gone, and its objects with it
            if (PyGILState_Check()) {
              Py_DECREF(held);
              return;
            }
            if (Py_AddPendingCall(
                    [](void* q) {
                      Py_DECREF(static_cast<PyObject*>(q));
                      return 0;
                    },
                    held) != 0) {
              const py::gil_scoped_acquire gil;
              Py_DECREF(held);
            }
          }};
}

// A cloud of the arrays, in fragments of at most fragmentPoints consecutive points (one for 0).
// The fragments read the arrays' memory without copying it (C-contiguous arrays as given, others
// as a C-ordered copy) and keep the arrays alive; an algorithm writing a field copies that
// fragment's values first, so the arrays never change.
Cloud cloudOf(const py::array& xyz, std::size_t fragmentPoints, const py::dict& fields) {
  const std::size_t n = xyz.ndim() == 2 ? static_cast<std::size_t>(xyz.shape(0)) : 0;
  std::vector<std::pair<std::string, py::array>> columns{
      {Tressel::PositionsFieldName, py::array::ensure(xyz, py::array::c_style)}};
  for (const auto& [key, value] : fields)
    columns.emplace_back(py::cast<std::string>(key), py::array::ensure(value, py::array::c_style));
  std::vector<std::size_t> sizes;
  for (const auto& part : Tressel::sequentialPartition(n, fragmentPoints))
    sizes.push_back(part.size());
  Tressel::FragmentArrays arrays(sizes);
  for (const auto& [name, a] : columns) {
    if (!a)
      throw std::runtime_error("field \"" + name + "\" is not an array");
    const std::string type = elementTypeOf(name, a, n);
    if (type == "point")
      requireFinitePositions(a);
    arrays.borrowField(name, type, a.data(), keeperOf(a));
  }
  return {arrays.build("PointCloud")};
}

// The fields of LAS point records by name: numpy's dtype code and the components (RGB: 3), so
// that Python converts what it is given to the type the LAS writer takes.
py::dict lasFields() {
  py::dict out;
  for (int format = 0; format < Las::detail::FormatCount; ++format)
    for (const auto& dim : Las::detail::dims(format))
      out[dim.name] = py::make_tuple(dtypeOf(dim.kind), 1);
  out["ScanAngle"] = py::make_tuple("f4", 1);
  out["LastReturn"] = py::make_tuple("u1", 1);
  out["RGB"] = py::make_tuple("u2", 3);
  return out;
}

// Arrays of a cloud's values are read-only, whether they share its storage or not: a change is
// made by building a cloud.
py::array readOnly(py::array a) {
  py::detail::array_proxy(a.ptr())->flags &= ~py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
  return a;
}

// The values of a one-fragment field without copying them: a read-only array over the fragment's
// storage, which it keeps alive. The storage is shared, not lent: an algorithm that later writes
// the field copies it first, so the array keeps the values it was read with.
py::array viewOf(const Tressel::MemBase& part, const std::string& code,
                 const std::vector<py::ssize_t>& shape) {
  auto* keep = new Basalt::BlockKeeper(part.myChunk()->share());
  py::capsule owner(keep, [](void* p) { delete static_cast<Basalt::BlockKeeper*>(p); });
  py::array out(py::dtype(code), shape, {}, part.elementBytes(), owner);
  return readOnly(out);
}

// The field's values as a numpy array in input (or file) order: one row per point, n x 3 for
// three-component elements.
py::array fieldOf(const Cloud& cloud, const std::string& name) {
  const auto field = (*cloud.grid)(Tressel::StandardCartesianChart3D, name);
  const auto* type = field ? field->getElementType() : nullptr;
  if (!type) {
    PyErr_SetString(PyExc_KeyError, ("no field \"" + name + "\"").c_str());
    throw py::error_already_set();
  }
  const std::string code = dtypeOf(type->scalar());
  if (code.empty())
    throw std::runtime_error("field \"" + name + "\" holds " + type->name() +
                             ", which has no numpy form");
  std::vector<const Tressel::MemBase*> parts;
  std::size_t n = 0;
  field->iterate([&](const auto&, const auto& creator) {
    const auto data = creator ? creator->peekData() : nullptr;
    if (!data)
      throw std::runtime_error("field \"" + name + "\" has a fragment without values");
    parts.push_back(data.get());
    n += data->nElements();
    return true;
  });
  std::vector<py::ssize_t> shape{static_cast<py::ssize_t>(n)};
  if (type->components() > 1)
    shape.push_back(type->components());
  const auto index = (*cloud.grid)(Tressel::StandardCartesianChart3D, "PointIndex");
  if (parts.size() == 1 && !(index && name != "PointIndex"))
    return viewOf(*parts.front(), code, shape);
  py::array out(py::dtype(code), shape);
  auto* to = static_cast<std::uint8_t*>(out.mutable_data());
  const std::size_t bytes = type->size();
  // A tiled LAS read numbers the points by their place in the file: rows follow that order.
  std::vector<unsigned long long> order;
  if (index && name != "PointIndex")
    order = Tressel::readField<unsigned long long>(*index);
  std::size_t row = 0;
  for (const auto* part : parts) {
    const auto* from = static_cast<const std::uint8_t*>(part->elementBytes());
    if (order.empty()) { // input order: the fragment's values in one piece
      std::memcpy(to + row * bytes, from, part->nElements() * bytes);
      row += part->nElements();
      continue;
    }
    for (std::size_t j = 0; j < part->nElements(); ++j, ++row) {
      const std::size_t place = order.empty() ? row : order[row];
      if (place >= n)
        throw std::runtime_error("\"PointIndex\" names a point beyond the cloud");
      std::memcpy(to + place * bytes, from + j * bytes, bytes);
    }
  }
  return readOnly(out);
}

std::size_t pointsOf(const Cloud& cloud) {
  std::size_t n = 0;
  if (const auto positions = cloud.grid->CartesianPositions())
    positions->iterate([&](const auto&, const auto& creator) {
      if (const auto data = creator ? creator->peekData() : nullptr)
        n += data->nElements();
      return true;
    });
  return n;
}

} // namespace

Las::Warn readWarnings(const std::string& path) {
  return [path](const std::string& text) { std::cerr << path << ": warning: " << text << "\n"; };
}

std::optional<Las::Box> boxOf(const std::optional<std::vector<double>>& values) {
  if (!values)
    return std::nullopt;
  try {
    return Las::boxOf(*values);
  } catch (const std::invalid_argument& e) {
    raiseValue(std::string("box ") + e.what());
  }
}

Las::WriteOptions writeOptions(const std::string& path) {
  Las::WriteOptions options;
  options.warn = [path](const std::string& text) { std::cerr << path << ": " << text << "\n"; };
  return options;
}

namespace {

// read(path, box=...): the points of a LAS or LAZ file inside the box.
Cloud readBox(const std::string& path, std::size_t fragmentPoints, const Las::Box& box) {
  if (fragmentPoints > 0)
    raiseValue("box reads one fragment: it does not go with fragment_points");
  if (Files::isBundle(path) || !Files::isCloudFile(path))
    raiseValue(path + ": box reads LAS and LAZ files only");
  py::gil_scoped_release released;
  return Cloud{Las::read(path, box, readWarnings(path)).grid};
}

// The Cloud type: made from arrays or a dict, its fields read as arrays, written to a file.
void bindCloudType(py::module_& m) {
  py::class_<Cloud>(m, "Cloud", "A point cloud: positions and per-point fields, in fragments.")
      .def(py::init([](const py::array& xyz, std::size_t fragmentPoints, const py::kwargs& fields) {
             return cloudOf(xyz, fragmentPoints, fields);
           }),
           py::arg("xyz"), py::arg("fragment_points") = 0,
           "A cloud of n x 3 positions and named per-point arrays (keywords), in fragments of "
           "at most fragment_points consecutive points (0: one fragment). C-contiguous arrays "
           "are read without a copy and kept alive; the first write to a field copies it.")
      .def_static(
          "from_dict",
          [](const py::dict& fields, std::size_t fragmentPoints) {
            py::dict rest;
            for (const auto& [key, value] : fields)
              if (py::cast<std::string>(key) != Tressel::PositionsFieldName)
                rest[key] = value;
            if (!fields.contains(Tressel::PositionsFieldName))
              throw std::runtime_error("the dict has no \"Positions\"");
            return cloudOf(fields[Tressel::PositionsFieldName], fragmentPoints, rest);
          },
          py::arg("fields"), py::arg("fragment_points") = 0)
      .def("__getitem__", &fieldOf, py::arg("name"))
      .def_property_readonly("xyz",
                             [](const Cloud& c) { return fieldOf(c, Tressel::PositionsFieldName); })
      .def("__len__", &pointsOf)
      .def_property_readonly("fragments",
                             [](const Cloud& c) {
                               const auto p = c.grid->CartesianPositions();
                               return p ? p->nFragments() : 0;
                             })
      .def_property_readonly(
          "fields",
          [](const Cloud& c) {
            py::dict out;
            const auto rep = c.grid->getCartesianRepresentation(Tressel::StandardCartesianChart3D);
            if (rep)
              for (const auto& [id, field] : rep->snapshot())
                if (field && field->getElementType())
                  out[py::str(id->Name())] = field->getElementType()->name();
            return out;
          },
          "Field names and their element types, in the cloud's order.")
      .def(
          "write",
          [](const Cloud& c, const std::string& path, const std::string& heightField) {
            const bool raster = Files::isGeoTiff(path);
            if (!raster && !Files::isCloudFile(path))
              raiseValue(
                  "\"" + path +
                  "\" names no file type quorvel writes (.las for LAS, .laz for LAZ, .h5 or .hdf5 "
                  "for a bundle, .tif or .tiff for a raster's GeoTIFF)");
            py::gil_scoped_release released;
            if (raster)
              Raster::writeGeoTiff(path, *c.grid, heightField, readWarnings(path));
            else
              Files::save(path, c.grid, writeOptions(path));
          },
          py::arg("path"), py::arg("height_field") = Raster::DefaultHeightField,
          "Writes the cloud to a file, chosen by the extension.\n\n"
          "Parameters:\n"
          "    path: .las (LAS), .laz (LAZ), .h5 or .hdf5 (a bundle), .tif or .tiff (a raster's "
          "heights as GeoTIFF); other names raise ValueError\n"
          "    height_field: the raster field written to a GeoTIFF (heights in metres)");
}

// Reading clouds and rasters from files, and the LAS fields a cloud can carry.
void bindRead(py::module_& m) {
  m.def("_las_fields", &lasFields,
        "{name: (dtype code, components)} of the fields of LAS point records.");
  m.def(
      "read",
      [](const std::string& path, std::size_t fragmentPoints,
         const std::optional<std::vector<double>>& box, const std::optional<std::string>& grid) {
        if (grid) {
          if (!Files::isBundle(path))
            raiseValue("grid names a grid of a bundle (.h5, .hdf5), not of \"" + path + "\"");
          py::gil_scoped_release released;
          return Cloud{Files::loadBundle(path, *grid)};
        }
        if (const auto b = boxOf(box))
          return readBox(path, fragmentPoints, *b);
        py::gil_scoped_release released;
        return Cloud{Raster::isRasterFile(path)
                         ? Raster::import(path)
                         : Files::load(path, fragmentPoints, {}, {}, readWarnings(path))};
      },
      py::arg("path"), py::arg("fragment_points") = 0, py::arg("box") = py::none(),
      py::arg("grid") = py::none(),
      "Reads a point cloud or a raster.\n\n"
      "Parameters:\n"
      "    path: a LAS or LAZ file, a bundle (.h5, .hdf5) or a raster GDAL reads (.tif, .tiff, "
      ".asc, .img, .vrt)\n"
      "    fragment_points: 0 reads one fragment; N splits a LAS file into x-y tiles of about N "
      "points\n"
      "    box: (x0, y0, x1, y1) or (x0, y0, x1, y1, z0, z1): only the points of a LAS or LAZ "
      "file inside it (edges included) are read, in one fragment; the other points are never "
      "built (a COPC file's nodes outside it are not even decoded)\n"
      "    grid: the name of the grid to read from a bundle of several; None: a bundle must "
      "hold one");
}

} // namespace

void bindCloud(py::module_& m) {
  bindCloudType(m);
  bindRead(m);
}

} // namespace Quorvel::Python
