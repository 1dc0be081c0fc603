// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: point clouds as text and as binary little-endian PLY.
#include "io/text.hpp"

#include "io/las.hpp"

#include "basalt/replacing_file.hpp"
#include "basalt/text.hpp"
#include "tressel/point_cloud.hpp"

#include <algorithm>
#include <bit>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <numeric>
#include <sstream>

namespace Quorvel::Text {

namespace {

static_assert(std::endian::native == std::endian::little, "PLY records are copied as they lie");

using Tressel::ScalarKind;

std::string extensionOf(const std::string& path) {
  std::string e = std::filesystem::path(path).extension().string();
  std::transform(e.begin(), e.end(), e.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return e;
}

// A name without case and underscores, the key by which columns meet fields.
std::string key(const std::string& name) {
  std::string k;
  for (const unsigned char c : name)
    if (c != '_')
      k += static_cast<char>(std::tolower(c));
  return k;
}

// One column: a component of the positions (axis 0 to 2) or a field of single numbers.
struct Column {
  std::string name;
  int axis = -1;
  Basalt::StrongPtr<Tressel::Field> field;
  ScalarKind kind = ScalarKind::Float64;
};

std::vector<Column> columns(const Tressel::Grid& grid, const std::vector<std::string>& names) {
  std::vector<Column> out;
  for (const std::string& name : columnsOf(grid, names)) {
    const int axis = name == "x" ? 0 : name == "y" ? 1 : name == "z" ? 2 : -1;
    Column c{name, axis, nullptr, ScalarKind::Float64};
    if (axis < 0) {
      c.field = grid(Tressel::StandardCartesianChart3D, name);
      c.kind = c.field->getElementType()->scalar();
    }
    out.push_back(std::move(c));
  }
  return out;
}

bool singleNumbers(const Tressel::Field& field) {
  const auto* type = field.getElementType();
  return type && type->components() == 1 && type->scalar() != ScalarKind::Opaque &&
         type->scalar() != ScalarKind::Float80;
}

// Decimals that show every multiple of the scale exactly (3 without a LAS scale).
std::array<int, 3> decimalsOf(const Tressel::Grid& grid) {
  std::array<int, 3> decimals{3, 3, 3};
  if (const auto info = Las::fileInfo(grid))
    for (std::size_t a = 0; a < 3; ++a)
      for (int d = 0; d <= 12; ++d) {
        const double scaled = info->header.scale[a] * std::pow(10.0, d);
        if (std::fabs(scaled - std::round(scaled)) < 1e-6 * std::max(1.0, scaled)) {
          decimals[a] = d;
          break;
        }
      }
  return decimals;
}

// Appends one value of a field, read from its bytes, in its shortest exact text.
void appendValue(std::string& line, ScalarKind kind, const std::uint8_t* bytes) {
  char buffer[64];
  Tressel::withScalar(kind, [&](auto zero) {
    using T = decltype(zero);
    T v;
    std::memcpy(&v, bytes, sizeof v);
    if constexpr (std::is_same_v<T, long double>)
      line += std::to_string(static_cast<double>(v));
    else
      line.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, v).ptr);
    return 0;
  });
}

// Calls f(xyz, bytes of each field column) for every fragment of positions.
template <class F>
void forEachFragment(const Tressel::Grid& grid, const std::vector<Column>& cols, F&& f) {
  const auto positions = grid.CartesianPositions();
  if (!positions)
    throw Las::Error("the cloud has no positions");
  positions->iterate([&](const auto& id, const auto&) {
    const Basalt::StrongPtr<const Tressel::MemArray<1, Vantor::PhysicalSpace::point>> xyz =
        Tressel::arrayCast<1, Vantor::PhysicalSpace::point>(positions->getData(id));
    if (!xyz)
      return true;
    std::vector<const std::uint8_t*> bytes;
    for (const Column& c : cols) {
      const auto data = c.field ? c.field->getData(id) : nullptr;
      if (c.field && (!data || data->nElements() != xyz->size()))
        throw Las::Error("field \"" + c.name + "\" has no values for every point");
      bytes.push_back(data ? static_cast<const std::uint8_t*>(data->elementBytes()) : nullptr);
    }
    f(*xyz, bytes);
    return true;
  });
}

void writeText(Basalt::ReplacingFile& file, const Tressel::Grid& grid,
               const std::vector<Column>& cols, bool csv) {
  const char separator = csv ? ',' : ' ';
  const auto decimals = decimalsOf(grid);
  std::string text;
  if (csv)
    for (std::size_t c = 0; c < cols.size(); ++c)
      text += (c ? "," : "") + cols[c].name + (c + 1 == cols.size() ? "\n" : "");
  char buffer[64];
  forEachFragment(grid, cols, [&](const auto& xyz, const std::vector<const std::uint8_t*>& bytes) {
    for (std::size_t i = 0; i < xyz.size(); ++i) {
      for (std::size_t c = 0; c < cols.size(); ++c) {
        if (c)
          text += separator;
        const Column& col = cols[c];
        if (col.axis >= 0)
          text.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, xyz[i][col.axis],
                                            std::chars_format::fixed,
                                            decimals[static_cast<std::size_t>(col.axis)])
                                  .ptr);
        else
          appendValue(text, col.kind, bytes[c] + i * col.field->getElementType()->size());
      }
      text += '\n';
      if (text.size() > (1u << 20)) {
        file.write(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
        text.clear();
      }
    }
  });
  file.write(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

// PLY's names of the types it has; 64-bit integers and extended precision go as double.
const char* plyType(ScalarKind kind) {
  switch (kind) {
  case ScalarKind::Int8:
    return "char";
  case ScalarKind::UInt8:
    return "uchar";
  case ScalarKind::Int16:
    return "short";
  case ScalarKind::UInt16:
    return "ushort";
  case ScalarKind::Int32:
    return "int";
  case ScalarKind::UInt32:
    return "uint";
  case ScalarKind::Float32:
    return "float";
  default:
    return "double";
  }
}

ScalarKind plyKind(const std::string& name) {
  static const std::map<std::string, ScalarKind> kinds = {
      {"char", ScalarKind::Int8},      {"int8", ScalarKind::Int8},
      {"uchar", ScalarKind::UInt8},    {"uint8", ScalarKind::UInt8},
      {"short", ScalarKind::Int16},    {"int16", ScalarKind::Int16},
      {"ushort", ScalarKind::UInt16},  {"uint16", ScalarKind::UInt16},
      {"int", ScalarKind::Int32},      {"int32", ScalarKind::Int32},
      {"uint", ScalarKind::UInt32},    {"uint32", ScalarKind::UInt32},
      {"float", ScalarKind::Float32},  {"float32", ScalarKind::Float32},
      {"double", ScalarKind::Float64}, {"float64", ScalarKind::Float64}};
  const auto found = kinds.find(name);
  return found == kinds.end() ? ScalarKind::Opaque : found->second;
}

// The kind a column is stored as in PLY.
ScalarKind stored(const Column& c) {
  return plyKind(plyType(c.axis >= 0 ? ScalarKind::Float64 : c.kind));
}

void writePly(Basalt::ReplacingFile& file, const Tressel::Grid& grid,
              const std::vector<Column>& cols) {
  std::size_t count = 0, record = 0;
  forEachFragment(grid, {}, [&](const auto& xyz, const auto&) { count += xyz.size(); });
  std::string header = "ply\nformat binary_little_endian 1.0\ncomment Quorvel\nelement vertex " +
                       std::to_string(count) + "\n";
  for (const Column& c : cols) {
    header += std::string("property ") + plyType(stored(c)) + " " + c.name + "\n";
    record += Tressel::scalarSize(stored(c));
  }
  header += "end_header\n";
  file.write(reinterpret_cast<const std::uint8_t*>(header.data()), header.size());
  std::vector<std::uint8_t> out;
  forEachFragment(grid, cols, [&](const auto& xyz, const std::vector<const std::uint8_t*>& bytes) {
    out.resize(xyz.size() * record);
    std::uint8_t* to = out.data();
    for (std::size_t i = 0; i < xyz.size(); ++i)
      for (std::size_t c = 0; c < cols.size(); ++c) {
        const Column& col = cols[c];
        Tressel::withScalar(col.axis >= 0 ? ScalarKind::Float64 : col.kind, [&](auto zero) {
          using T = decltype(zero);
          T v;
          if (col.axis >= 0)
            v = static_cast<T>(xyz[i][col.axis]);
          else
            std::memcpy(&v, bytes[c] + i * sizeof(T), sizeof v);
          Tressel::withScalar(stored(col), [&](auto as) {
            const auto w = static_cast<decltype(as)>(v);
            std::memcpy(to, &w, sizeof w);
            to += sizeof w;
            return 0;
          });
          return 0;
        });
      }
    file.write(out.data(), out.size());
  });
}

// The LAS fields by their names, with the types a LAS read gives them; other text columns are
// float64.
ScalarKind lasKind(const std::string& name) {
  static const std::map<std::string, ScalarKind> kinds = {{"Intensity", ScalarKind::UInt16},
                                                          {"ReturnNumber", ScalarKind::UInt8},
                                                          {"NumberOfReturns", ScalarKind::UInt8},
                                                          {"ScanDirectionFlag", ScalarKind::UInt8},
                                                          {"EdgeOfFlightLine", ScalarKind::UInt8},
                                                          {"Classification", ScalarKind::UInt8},
                                                          {"Synthetic", ScalarKind::UInt8},
                                                          {"KeyPoint", ScalarKind::UInt8},
                                                          {"Withheld", ScalarKind::UInt8},
                                                          {"Overlap", ScalarKind::UInt8},
                                                          {"ScannerChannel", ScalarKind::UInt8},
                                                          {"UserData", ScalarKind::UInt8},
                                                          {"PointSourceId", ScalarKind::UInt16},
                                                          {"GpsTime", ScalarKind::Float64},
                                                          {"ScanAngle", ScalarKind::Float32},
                                                          {"LastReturn", ScalarKind::UInt8},
                                                          {"NIR", ScalarKind::UInt16}};
  for (const auto& [field, kind] : kinds)
    if (key(field) == key(name))
      return kind;
  return ScalarKind::Float64;
}

// The LAS spelling of a column name that means a LAS field ("gps_time": "GpsTime").
std::string fieldName(const std::string& name) {
  for (const char* field :
       {"Intensity", "ReturnNumber", "NumberOfReturns", "ScanDirectionFlag", "EdgeOfFlightLine",
        "Classification", "Synthetic", "KeyPoint", "Withheld", "Overlap", "ScannerChannel",
        "UserData", "PointSourceId", "GpsTime", "ScanAngle", "LastReturn", "NIR"})
    if (key(field) == key(name))
      return field;
  return name;
}

// Columns of values read from a file, each with its name and the kind it becomes.
struct Table {
  std::vector<std::string> names;
  std::vector<ScalarKind> kinds;
  std::vector<std::vector<double>> values;
};

// A grid of one fragment from the table's columns; x, y and z are required.
Basalt::StrongPtr<Tressel::Grid> gridOf(const Table& table) {
  std::array<int, 3> axes{-1, -1, -1};
  for (std::size_t c = 0; c < table.names.size(); ++c)
    for (int a = 0; a < 3; ++a)
      if (key(table.names[c]) == std::string(1, "xyz"[a]))
        axes[static_cast<std::size_t>(a)] = static_cast<int>(c);
  if (std::find(axes.begin(), axes.end(), -1) != axes.end())
    throw Las::Error("no columns x, y and z (--fields names headerless columns)");
  const std::size_t n = table.values.front().size();
  std::vector<Vantor::PhysicalSpace::point> xyz(n);
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t a = 0; a < 3; ++a) {
      const double v = table.values[static_cast<std::size_t>(axes[a])][i];
      // "nan" and "inf" read as numbers, but no neighbourhood or cell of such a point is right.
      if (!std::isfinite(v))
        throw Las::Error(
            Basalt::format("point %zu (counted from 1) has %s = %g; positions must be finite",
                           i + 1, table.names[static_cast<std::size_t>(axes[a])].c_str(), v));
      xyz[i][static_cast<int>(a)] = v;
    }
  Tressel::PointCloudBuilder builder(xyz);
  for (std::size_t c = 0; c < table.names.size(); ++c) {
    if (std::find(axes.begin(), axes.end(), static_cast<int>(c)) != axes.end())
      continue;
    Tressel::withScalar(table.kinds[c], [&](auto zero) {
      using T = decltype(zero);
      std::vector<T> v;
      v.reserve(n);
      for (const double d : table.values[c]) {
        if constexpr (std::is_integral_v<T>)
          if (d != std::floor(d) || d < static_cast<double>(std::numeric_limits<T>::lowest()) ||
              d > static_cast<double>(std::numeric_limits<T>::max()))
            throw Las::Error("column " + table.names[c] + ": the value " + std::to_string(d) +
                             " is no " + Tressel::scalarName(table.kinds[c]));
        v.push_back(static_cast<T>(d));
      }
      builder.addField(table.names[c], std::move(v));
      return 0;
    });
  }
  std::vector<std::size_t> all(n);
  std::iota(all.begin(), all.end(), std::size_t{0});
  return builder.build({all});
}

std::string contentsOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    throw Las::Error("cannot be read");
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// The values of a text: one line per point, values separated by commas or blanks.
Table readTextTable(const std::string& text, bool header, const std::vector<std::string>& fields) {
  Table table;
  std::size_t at = 0, line = 0;
  const auto nextLine = [&]() -> std::string_view {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    std::string_view l(text.data() + at, end - at);
    at = end + 1;
    ++line;
    if (!l.empty() && l.back() == '\r')
      l.remove_suffix(1);
    return l;
  };
  const auto split = [](std::string_view l) {
    std::vector<std::string_view> items;
    std::size_t i = 0;
    while (i < l.size()) {
      while (i < l.size() && (l[i] == ' ' || l[i] == '\t'))
        ++i;
      std::size_t j = i;
      while (j < l.size() && l[j] != ',' && l[j] != ' ' && l[j] != '\t')
        ++j;
      items.push_back(l.substr(i, j - i));
      i = j;
      while (i < l.size() && (l[i] == ' ' || l[i] == '\t'))
        ++i;
      if (i < l.size() && l[i] == ',')
        ++i;
    }
    return items;
  };
  if (header && at < text.size())
    for (const auto item : split(nextLine()))
      table.names.emplace_back(item);
  if (!fields.empty())
    table.names = fields;
  if (table.names.empty())
    table.names = {"x", "y", "z"};
  for (std::string& name : table.names) {
    name = fieldName(name);
    table.kinds.push_back(lasKind(name));
  }
  table.values.resize(table.names.size());
  while (at < text.size()) {
    const auto items = split(nextLine());
    if (items.empty())
      continue;
    if (items.size() != table.names.size())
      throw Las::Error("line " + std::to_string(line) + ": " + std::to_string(items.size()) +
                       " values for " + std::to_string(table.names.size()) + " columns");
    for (std::size_t c = 0; c < items.size(); ++c) {
      double v = 0;
      const auto [end, ec] = std::from_chars(items[c].data(), items[c].data() + items[c].size(), v);
      if (ec != std::errc() || end != items[c].data() + items[c].size())
        throw Las::Error("line " + std::to_string(line) + ": \"" + std::string(items[c]) +
                         "\" is not a number");
      table.values[c].push_back(v);
    }
  }
  return table;
}

// The vertices of a binary little-endian PLY file; other elements after them are ignored.
Table readPlyTable(const std::string& bytes) {
  const std::size_t end = bytes.find("end_header\n");
  if (bytes.rfind("ply\n", 0) != 0 || end == std::string::npos)
    throw Las::Error("not a PLY file (no \"ply\" line or no \"end_header\")");
  std::istringstream header(bytes.substr(0, end));
  std::string line, word;
  std::size_t count = 0;
  bool vertices = false, seen = false;
  Table table;
  while (std::getline(header, line)) {
    std::istringstream words(line);
    words >> word;
    if (word == "format" && (words >> word, word != "binary_little_endian"))
      throw Las::Error("PLY format " + word + ": only binary_little_endian is read");
    if (word == "element") {
      std::string name;
      words >> name;
      vertices = name == "vertex" && !seen;
      seen = seen || vertices;
      if (vertices)
        words >> count;
      else if (!seen)
        throw Las::Error("PLY element " + name + " before the vertices");
    }
    if (word == "property" && vertices) {
      std::string type, name;
      words >> type >> name;
      if (type == "list" || plyKind(type) == ScalarKind::Opaque)
        throw Las::Error("PLY property " + name + " of type " + type + " is not read");
      table.names.push_back(name);
      table.kinds.push_back(plyKind(type));
    }
  }
  std::size_t record = 0;
  for (const ScalarKind k : table.kinds)
    record += Tressel::scalarSize(k);
  const std::size_t start = end + std::strlen("end_header\n");
  if (bytes.size() - start < count * record)
    throw Las::Error("PLY vertices: " + std::to_string(count) + " of " + std::to_string(record) +
                     " bytes need more than the file holds");
  table.values.assign(table.names.size(), std::vector<double>(count));
  const auto* from = reinterpret_cast<const std::uint8_t*>(bytes.data()) + start;
  for (std::size_t i = 0; i < count; ++i)
    for (std::size_t c = 0; c < table.kinds.size(); ++c)
      Tressel::withScalar(table.kinds[c], [&](auto zero) {
        decltype(zero) v;
        std::memcpy(&v, from, sizeof v);
        from += sizeof v;
        table.values[c][i] = static_cast<double>(v);
        return 0;
      });
  return table;
}

} // namespace

bool isText(const std::string& path) {
  const std::string e = extensionOf(path);
  return e == ".csv" || e == ".xyz" || e == ".txt";
}

bool isCsv(const std::string& path) {
  return extensionOf(path) == ".csv";
}

bool isPly(const std::string& path) {
  return extensionOf(path) == ".ply";
}

std::vector<std::string> columnsOf(const Tressel::Grid& grid,
                                   const std::vector<std::string>& fields) {
  const auto rep = grid.getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  std::vector<std::pair<std::string, Basalt::StrongPtr<Tressel::Field>>> there;
  if (rep)
    for (const auto& [id, field] : rep->snapshot())
      if (field && id->Name() != Tressel::PositionsFieldName && singleNumbers(*field))
        there.emplace_back(id->Name(), field);
  std::vector<std::string> out;
  if (fields.empty()) {
    out = {"x", "y", "z"};
    for (const auto& [name, field] : there)
      out.push_back(name);
    return out;
  }
  for (const std::string& wanted : fields) {
    const std::string k = key(wanted);
    if (k == "x" || k == "y" || k == "z") {
      out.push_back(k);
      continue;
    }
    const auto found =
        std::find_if(there.begin(), there.end(), [&](const auto& f) { return key(f.first) == k; });
    if (found == there.end()) {
      std::string names = "x, y, z";
      for (const auto& [name, field] : there)
        names += ", " + name;
      throw Las::Error("no field \"" + wanted + "\" of single numbers (the cloud has " + names +
                       ")");
    }
    out.push_back(found->first);
  }
  return out;
}

void write(const std::string& path, const Tressel::Grid& grid,
           const std::vector<std::string>& fields) {
  try {
    const auto cols = columns(grid, fields);
    Basalt::ReplacingFile file(path);
    if (isPly(path))
      writePly(file, grid, cols);
    else
      writeText(file, grid, cols, extensionOf(path) == ".csv");
    file.commit();
  } catch (const Basalt::ReplacingFile::Error& e) {
    throw Las::Error(e.what());
  } catch (const Las::Error& e) {
    throw Las::Error(path + ": " + e.what());
  }
}

Basalt::StrongPtr<Tressel::Grid> read(const std::string& path,
                                      const std::vector<std::string>& fields) {
  try {
    const std::string contents = contentsOf(path);
    const Table table = isPly(path) ? readPlyTable(contents)
                                    : readTextTable(contents, extensionOf(path) == ".csv", fields);
    if (table.values.empty() || table.values.front().empty())
      throw Las::Error("no points");
    return gridOf(table);
  } catch (const std::exception& e) {
    throw Las::Error(path + ": " + e.what());
  }
}

} // namespace Quorvel::Text
