// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: bundle files in HDF5. Built as a module of its own
// (libquorvel_bundle.so), opened by the bundle code the first time a file is read or written, so
// that a program which never touches a bundle never loads HDF5.
#include "tressel/detail/bundle_file.hpp"

#include "tressel/bounding_boxes.hpp"
#include "tressel/detail/array_codec.hpp"
#include "tressel/detail/hdf5.hpp"

#include "basalt/text.hpp"

#include <algorithm>

namespace Tressel {

using detail::Handle;
using detail::hasAttribute;
using detail::Hdf5Error;
using detail::readArray;
using detail::readNumbers;
using detail::readText;
using detail::Slices;
using detail::storable;
using detail::typeOf;
using detail::writeArray;
using detail::writeAttribute;
using detail::writeText;

namespace {

// HDF5 closes what is still open when the process ends, and a file whose closing failed (a full
// disk, a file-size limit) then crashes it. Every handle here is closed explicitly, so the
// library is told before its first use to leave the ending alone.
[[maybe_unused]] const bool Hdf5LeavesTheExit = H5dont_atexit() >= 0;

constexpr const char* FormatName = "QuorvelBundle";
constexpr int FormatVersion = 1;

// ---- Groups; each failure throws with the group it concerns ------------------------------

// Groups created here remember the order their members were made in.
Handle makeGroup(hid_t parent, const std::string& name) {
  Handle properties(H5Pcreate(H5P_GROUP_CREATE), H5Pclose, "group properties");
  H5Pset_link_creation_order(properties, H5P_CRT_ORDER_TRACKED | H5P_CRT_ORDER_INDEXED);
  return Handle(H5Gcreate2(parent, name.c_str(), H5P_DEFAULT, properties, H5P_DEFAULT), H5Gclose,
                "cannot create group " + name);
}

Handle openGroup(hid_t parent, const std::string& name, const std::string& where) {
  if (H5Lexists(parent, name.c_str(), H5P_DEFAULT) <= 0)
    throw Hdf5Error("missing group " + where + "/" + name);
  return Handle(H5Gopen2(parent, name.c_str(), H5P_DEFAULT), H5Gclose,
                "cannot open group " + where + "/" + name);
}

bool hasMember(hid_t parent, const std::string& name) {
  return H5Lexists(parent, name.c_str(), H5P_DEFAULT) > 0;
}

// Member names in creation order where the file records it, else in name order.
std::vector<std::string> members(hid_t group) {
  std::vector<std::string> names;
  auto collect = [](hid_t, const char* name, const H5L_info_t*, void* data) -> herr_t {
    static_cast<std::vector<std::string>*>(data)->push_back(name);
    return 0;
  };
  hsize_t index = 0;
  if (H5Literate(group, H5_INDEX_CRT_ORDER, H5_ITER_INC, &index, collect, &names) < 0) {
    names.clear();
    index = 0;
    if (H5Literate(group, H5_INDEX_NAME, H5_ITER_INC, &index, collect, &names) < 0)
      throw Hdf5Error("cannot list a group");
  }
  return names;
}

// Named attributes as one dataset each, with its element type.
void writeAttributes(hid_t parent, const std::string& groupName, const Basalt::Attributes& from) {
  const auto names = from.attributeNames();
  if (names.empty())
    return;
  Handle group = makeGroup(parent, groupName);
  for (const auto& name : names) {
    const auto chunk = from.getAttribute(name);
    const TresselTypeBase& type = typeOf(*chunk);
    writeArray(group, name, type, {chunk->size()}, *chunk, false, false);
    Handle dataset(H5Dopen2(group, name.c_str(), H5P_DEFAULT), H5Dclose, "attribute " + name);
    writeText(dataset, "ElementType", type.name());
  }
}

void readAttributes(hid_t parent, const std::string& groupName, Basalt::Attributes& into,
                    const std::string& where) {
  if (!hasMember(parent, groupName))
    return;
  Handle group = openGroup(parent, groupName, where);
  for (const auto& name : members(group)) {
    Handle dataset(H5Dopen2(group, name.c_str(), H5P_DEFAULT), H5Dclose, "attribute " + name);
    const std::string typeName = readText(dataset, "ElementType", where + "/" + name);
    const TresselTypeBase* type = TresselTypeBase::find(typeName);
    if (!type)
      throw Hdf5Error("unknown element type " + typeName + " of " + where + "/" + name);
    into.setAttribute(name, readArray(group, name, *type, 1, where + "/" + name)->myChunk());
  }
}

std::string joinLines(const std::vector<StrongPtr<FragmentID>>& ids) {
  std::string text;
  for (const auto& id : ids)
    text += id->Name() + "\n";
  return text;
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
    lines.push_back(text.substr(start, end - start));
  return lines;
}

std::string fragmentDataset(std::size_t k) {
  return "Fragment" + std::to_string(k);
}

// ---- Writing ---------------------------------------------------------------------------

struct Writer {
  StorageTransformations& policy;

  void field(hid_t fields, const StrongPtr<FieldID>& id, const Field& f,
             const StrongPtr<Grid>& grid, const Slice& slice, const SkeletonID& skeleton) {
    if (!policy.isSaveableField(*id, f, grid, grid->Name(), slice.time(), slice.name(), skeleton))
      return;
    Handle group = makeGroup(fields, id->Name());
    const TresselTypeBase* type = f.getElementType();
    writeText(group, "ElementType", type ? storable(*type).name() : "");
    const int rank = f.getRank();
    writeAttribute(group, "Rank", H5T_NATIVE_INT, &rank);
    const auto ids = f.getFragmentIDs().fragments();
    writeText(group, "FragmentNames", joinLines(ids));
    writeAttributes(group, "Attributes", f.attributes());
    Handle data = makeGroup(group, "Data");
    for (std::size_t k = 0; k < ids.size(); ++k) {
      const auto creator = f.getCreator(*ids[k]);
      const auto array = creator ? creator->peekData() : nullptr;
      if (!array)
        continue;
      const auto& chunk = array->myChunk();
      const std::string name = fragmentDataset(k);
      writeArray(data, name, storable(array->elementType()), array->extents(), *chunk,
                 policy.EnableNumericalShift(id->Name(), chunk),
                 policy.WriteAsSinglePrecision(id->Name(), chunk));
      Handle dataset(H5Dopen2(data, name.c_str(), H5P_DEFAULT), H5Dclose, "dataset " + name);
      writeText(dataset, "Name", creator->name());
      writeAttributes(data, name + ".Attributes", creator->attributes());
    }
  }

  void grid(hid_t parent, const std::string& name, const StrongPtr<Grid>& g, const Slice& slice) {
    Handle group = makeGroup(parent, name);
    writeAttributes(group, "Attributes", g->attributes());
    Handle charts = makeGroup(group, "Charts");
    for (const auto& chart : g->charts()) {
      Handle c = makeGroup(charts, chart->Name());
      const int dimension = chart->dimension();
      const unsigned flags = chart->flags();
      writeAttribute(c, "Dimension", H5T_NATIVE_INT, &dimension);
      writeAttribute(c, "Flags", H5T_NATIVE_UINT, &flags);
    }
    Handle skeletons = makeGroup(group, "Skeletons");
    g->skeletons().iterate([&](const SkeletonID& id, const StrongPtr<Skeleton>& skeleton) {
      Handle s = makeGroup(skeletons, id.Name());
      const int dimension = id.dimension(), depth = id.depth();
      writeAttribute(s, "Dimension", H5T_NATIVE_INT, &dimension);
      writeAttribute(s, "Depth", H5T_NATIVE_INT, &depth);
      Handle representations = makeGroup(s, "Representations");
      for (const auto& rep : skeleton->representations()) {
        Handle r = makeGroup(representations, rep->chartName());
        Handle fields = makeGroup(r, "Fields");
        for (const auto& [fieldID, f] : rep->snapshot())
          if (f)
            field(fields, fieldID, *f, g, slice, id);
      }
      return true;
    });
  }
};

// ---- Reading ---------------------------------------------------------------------------

struct Reader {
  // Point counts of the fragments of a representation's "Positions", by fragment name: every
  // other field's fragment must have its positions and as many elements.
  using Counts = std::map<std::string, std::size_t>;

  void field(hid_t group, const std::string& name, Representation& rep,
             std::map<std::string, StrongPtr<FragmentIDCollection>>& layouts, Counts& positions,
             const std::string& where) {
    const std::string typeName = readText(group, "ElementType", where);
    const int rank = readNumbers<int>(group, "Rank", H5T_NATIVE_INT, 1, where)[0];
    const std::string fragmentText = readText(group, "FragmentNames", where);
    const TresselTypeBase* type = nullptr;
    if (!typeName.empty()) {
      type = TresselTypeBase::find(typeName);
      if (!type)
        throw Hdf5Error("unknown element type " + typeName + " of " + where);
      if (rank < 1 || rank > 4)
        throw Hdf5Error("rank " + std::to_string(rank) + " of " + where + " is not 1 to 4");
    }
    // Fields with the same fragment list share one layout, as they did when written.
    auto& layout = layouts[fragmentText];
    std::vector<StrongPtr<FragmentID>> ids;
    if (!layout) {
      layout = std::make_shared<FragmentIDCollection>();
      for (const auto& fragment : splitLines(fragmentText))
        layout->makeFragmentID(fragment);
    }
    ids = layout->fragments();
    auto f = rep.makeField(rep.makeFieldID(name), layout, type, type ? rank : 0);
    if (!f)
      throw Hdf5Error("field " + where + " appears twice");
    readAttributes(group, "Attributes", f->attributes(), where);
    Handle data = openGroup(group, "Data", where);
    for (const auto& member : members(data)) {
      if (member.size() > 11 && member.compare(member.size() - 11, 11, ".Attributes") == 0)
        continue;
      const std::size_t k = member.rfind("Fragment", 0) == 0
                                ? std::strtoull(member.c_str() + 8, nullptr, 10)
                                : ids.size();
      if (k >= ids.size() || fragmentDataset(k) != member)
        throw Hdf5Error("dataset " + where + "/Data/" + member + " names no fragment");
      if (!type)
        throw Hdf5Error("field " + where + " holds data but no element type");
      auto array = readArray(data, member, *type, rank, where + "/Data/" + member);
      fitsPositions(name, ids[k]->Name(), array->nElements(), positions, where + "/Data/" + member);
      Handle dataset(H5Dopen2(data, member.c_str(), H5P_DEFAULT), H5Dclose, "dataset " + member);
      const std::string creatorName =
          hasAttribute(dataset, "Name") ? readText(dataset, "Name", where) : ids[k]->Name();
      auto creator = f->setPersistentData(array, ids[k], Basalt::Cache::MemCache(), creatorName);
      if (!creator)
        throw Hdf5Error("dataset " + where + "/Data/" + member + " does not fit its field");
      readAttributes(data, member + ".Attributes", creator->attributes(), where);
      if (name == PositionsFieldName) {
        StrongPtr<BoundingBox> box;
        ExpandBBox(box, creator, BBoxStore);
      }
    }
  }

  static void fitsPositions(const std::string& name, const std::string& fragment, std::size_t count,
                            Counts& positions, const std::string& where) {
    if (name == PositionsFieldName) {
      positions[fragment] = count;
      return;
    }
    if (positions.empty())
      return; // a grid without points: nothing to agree with
    const auto found = positions.find(fragment);
    if (found == positions.end())
      throw Hdf5Error("dataset " + where + ": its fragment " + fragment + " has no positions");
    if (found->second != count)
      throw Hdf5Error("dataset " + where + " holds " + std::to_string(count) +
                      " elements, its fragment's positions " + std::to_string(found->second));
  }

  StrongPtr<Grid> grid(hid_t group, const std::string& name, const std::string& where) {
    auto g = std::make_shared<Grid>(name);
    readAttributes(group, "Attributes", g->attributes(), where);
    Handle charts = openGroup(group, "Charts", where);
    for (const auto& chart : members(charts)) {
      Handle c = openGroup(charts, chart, where + "/Charts");
      const auto dimension = readNumbers<int>(c, "Dimension", H5T_NATIVE_INT, 1, where)[0];
      const auto flags = readNumbers<unsigned>(c, "Flags", H5T_NATIVE_UINT, 1, where)[0];
      g->makeCartesianChart(chart, flags, dimension);
    }
    Handle skeletons = openGroup(group, "Skeletons", where);
    for (const auto& skeletonName : members(skeletons)) {
      const std::string at = where + "/Skeletons/" + skeletonName;
      Handle s = openGroup(skeletons, skeletonName, where + "/Skeletons");
      const int dimension = readNumbers<int>(s, "Dimension", H5T_NATIVE_INT, 1, at)[0];
      const int depth = readNumbers<int>(s, "Depth", H5T_NATIVE_INT, 1, at)[0];
      auto skeleton = g->skeletons().makeSkeleton(SkeletonID(dimension, depth));
      Handle representations = openGroup(s, "Representations", at);
      for (const auto& chart : members(representations)) {
        if (!g->findCartesianChart(chart))
          throw Hdf5Error("representation " + at + "/" + chart + " names no chart");
        auto rep = skeleton->makeRepresentation(chart);
        Handle r = openGroup(representations, chart, at + "/Representations");
        Handle fields = openGroup(r, "Fields", at + "/Representations/" + chart);
        std::map<std::string, StrongPtr<FragmentIDCollection>> layouts;
        Counts positions;
        // "Positions" first, so that fields made later take its layout.
        auto names = members(fields);
        std::stable_partition(names.begin(), names.end(),
                              [](const std::string& n) { return n == PositionsFieldName; });
        for (const auto& fieldName : names) {
          Handle f = openGroup(fields, fieldName, at);
          field(f, fieldName, *rep, layouts, positions, at + "/" + chart + "/" + fieldName);
        }
      }
    }
    return g;
  }
};

// The slices of the bundle file at path, which exists and may be read.
Slices readFile(const std::string& path) {
  H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  if (H5Fis_hdf5(path.c_str()) <= 0)
    throw Hdf5Error("not an HDF5 file");
  Slices loaded;
  Handle file(H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose,
              "cannot open the file (truncated or corrupt)");
  if (!hasAttribute(file, "Format") || readText(file, "Format", "/") != FormatName)
    throw Hdf5Error("not a Quorvel bundle (no Format attribute \"QuorvelBundle\")");
  const int version = readNumbers<int>(file, "FormatVersion", H5T_NATIVE_INT, 1, "/")[0];
  if (version != FormatVersion)
    throw Hdf5Error("bundle format version " + std::to_string(version) + " is not supported");
  Handle slices = openGroup(file, "Slices", "");
  Reader reader;
  for (const auto& sliceName : members(slices)) {
    Handle s = openGroup(slices, sliceName, "/Slices");
    const std::string where = "/Slices/" + sliceName;
    const double time = readNumbers<double>(s, "Time", H5T_NATIVE_DOUBLE, 1, where)[0];
    auto slice = std::make_shared<Slice>(time, sliceName);
    for (const auto& gridName : members(s)) {
      Handle g = openGroup(s, gridName, where);
      slice->setGrid(gridName, reader.grid(g, gridName, where + "/" + gridName));
    }
    if (!loaded.emplace(time, slice).second)
      throw Hdf5Error("two slices of time " + Basalt::format("%g", time));
  }
  return loaded;
}

// Writes the slices into a new file at path through the storage policy.
void writeFile(const std::string& path, const Slices& slices, StorageTransformations& policy) {
  H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  Writer writer{policy};
  // The newest object formats carry checksums of the file's metadata, so that damage is
  // found before anything is parsed from it.
  Handle access(H5Pcreate(H5P_FILE_ACCESS), H5Pclose, "file access properties");
  H5Pset_libver_bounds(access, H5F_LIBVER_LATEST, H5F_LIBVER_LATEST);
  Handle file(H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, access), H5Fclose,
              "cannot create " + path);
  writeText(file, "Format", FormatName);
  writeAttribute(file, "FormatVersion", H5T_NATIVE_INT, &FormatVersion);
  {
    Handle groups = makeGroup(file, "Slices");
    for (const auto& [time, slice] : slices) {
      Handle s = makeGroup(groups, slice->name());
      writeAttribute(s, "Time", H5T_NATIVE_DOUBLE, &time);
      for (const auto& gridName : slice->gridNames())
        if (auto g = (*slice)[gridName])
          writer.grid(s, gridName, g, *slice);
    }
  }
  if (H5Fflush(file, H5F_SCOPE_GLOBAL) < 0 || !file.reset())
    throw Hdf5Error("cannot finish writing " + path);
}

const detail::BundleFiles Functions{readFile, writeFile};

} // namespace

} // namespace Tressel

extern "C" const Tressel::detail::BundleFiles* quorvelBundleFiles() {
  return &Tressel::Functions;
}
