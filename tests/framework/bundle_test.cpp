// SPDX-License-Identifier: BSD-3-Clause
// Tests of bundle files: round trips of every element type and rank, slices, grids and
// attributes; atomic writes; each class of unreadable file with its message.
#include "tressel/bounding_boxes.hpp"
#include "tressel/bundle.hpp"
#include "tressel/point_cloud.hpp"
#include "tressel/uniform_grid.hpp"

#include "support/scratch_directory.hpp"

#include <gtest/gtest.h>
#include <hdf5.h>

#include <cmath>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Tressel;
using Vantor::PhysicalSpace::point;
namespace fs = std::filesystem;

using BundleFiles = ScratchDirectory;

// Calls f with the array's scalars as a typed pointer of its scalar kind, and their count.
template <class F>
void withScalars(MemBase& data, F&& f) {
  const auto& type = data.elementType();
  const std::size_t n = data.nElements() * static_cast<std::size_t>(type.components());
  void* raw = data.myChunk()->rawData();
  switch (type.scalar()) {
  case ScalarKind::Int8:
    return f(static_cast<signed char*>(raw), n);
  case ScalarKind::UInt8:
    return f(static_cast<unsigned char*>(raw), n);
  case ScalarKind::Int16:
    return f(static_cast<short*>(raw), n);
  case ScalarKind::UInt16:
    return f(static_cast<unsigned short*>(raw), n);
  case ScalarKind::Int32:
    return f(static_cast<int*>(raw), n);
  case ScalarKind::UInt32:
    return f(static_cast<unsigned*>(raw), n);
  case ScalarKind::Int64:
    return f(static_cast<long long*>(raw), n);
  case ScalarKind::UInt64:
    return f(static_cast<unsigned long long*>(raw), n);
  case ScalarKind::Float32:
    return f(static_cast<float*>(raw), n);
  case ScalarKind::Float64:
    return f(static_cast<double*>(raw), n);
  case ScalarKind::Float80:
    return f(static_cast<long double*>(raw), n);
  case ScalarKind::Opaque:
    return;
  }
}

// Every scalar of an array, as long double.
std::vector<long double> scalars(MemBase& data) {
  std::vector<long double> out;
  withScalars(data, [&](auto* typed, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i)
      out.push_back(static_cast<long double>(typed[i]));
  });
  return out;
}

// Fills every scalar with a value that identifies its position and the array.
void fill(MemBase& data, int salt) {
  withScalars(data, [&](auto* typed, std::size_t n) {
    using T = std::remove_pointer_t<decltype(typed)>;
    for (std::size_t i = 0; i < n; ++i)
      typed[i] = static_cast<T>((i * 7 + static_cast<std::size_t>(salt)) % 101);
  });
}

const std::vector<std::string> TypeNames = {
    "uint8", "uint16", "int32",    "uint32", "uint64",      "float32", "float64", "float80",
    "point", "vector", "bivector", "pointf", "fixedarray3", "edge",    "rgb"};

TEST_F(BundleFiles, EveryElementTypeAndRankRoundTrips) {
  Bundle out;
  ASSERT_TRUE(out.bindToNew(file("types.h5"), nullptr));
  auto grid = std::make_shared<Grid>("arrays");
  auto rep = grid->makeCartesianRepresentation(3, StandardCartesianChart3D);
  auto layout = std::make_shared<FragmentIDCollection>();
  const auto ids = std::vector{layout->makeFragmentID("a"), layout->makeFragmentID("b/c")};
  int salt = 0;
  for (const auto& name : TypeNames)
    for (int rank = 1; rank <= 4; ++rank) {
      const auto* type = TresselTypeBase::find(name);
      ASSERT_NE(type, nullptr) << name;
      auto field =
          rep->makeField(rep->makeFieldID(name + "_" + std::to_string(rank)), layout, type, rank);
      for (const auto& id : ids) {
        MemBase::Extents extents(static_cast<std::size_t>(rank), 2);
        extents[0] = 3; // unequal extents catch a swapped order
        auto data = MemBase::create(rank, name, extents);
        ASSERT_NE(data, nullptr) << name << rank;
        fill(*data, ++salt);
        field->setPersistentData(data, id);
      }
    }
  out[0.0]->setGrid("arrays", grid);
  ASSERT_TRUE(out.save()) << out.lastError();

  Bundle in;
  ASSERT_TRUE(in.bindTo(file("types.h5"))) << in.lastError();
  auto loaded = (*in.findSlice(0.0))["arrays"];
  ASSERT_NE(loaded, nullptr);
  auto loadedRep = loaded->getCartesianRepresentation(StandardCartesianChart3D);
  for (const auto& name : TypeNames)
    for (int rank = 1; rank <= 4; ++rank) {
      const std::string fieldName = name + "_" + std::to_string(rank);
      auto original = rep->findField(fieldName);
      auto copy = loadedRep->findField(fieldName);
      ASSERT_NE(copy, nullptr) << fieldName;
      EXPECT_EQ(copy->getElementType()->name(), name);
      EXPECT_EQ(copy->getRank(), rank);
      const auto copyIds = copy->getFragmentIDs().fragments();
      ASSERT_EQ(copyIds.size(), 2u);
      EXPECT_EQ(copyIds[1]->Name(), "b/c");
      for (std::size_t k = 0; k < 2; ++k) {
        auto a = original->getData(ids[k]);
        auto b = copy->getData(copyIds[k]);
        ASSERT_NE(b, nullptr) << fieldName;
        EXPECT_EQ(b->extents(), a->extents()) << fieldName;
        EXPECT_EQ(scalars(*b), scalars(*a)) << fieldName;
      }
    }
}

TEST_F(BundleFiles, SlicesGridsAttributesAndEmptyParts) {
  Bundle out;
  ASSERT_TRUE(out.bindToNew(file("slices.h5"), nullptr));
  const std::vector<point> xyz = {{1, 2, 3}, {4, 5, 6}, {7, 8, std::nan("")}};
  PointCloudBuilder builder(xyz);
  builder.addField("Classification", std::vector<unsigned char>{1, 2, 3});
  auto cloud = builder.build({{0, 2}, {1}}, "cloud");
  auto classes = (*cloud)(StandardCartesianChart3D, "Classification");
  classes->setAttribute("Range", std::make_shared<Basalt::Chunk<unsigned char>>(
                                     std::initializer_list<unsigned char>{1, 3}));
  classes->getCreator(classes->getFragmentIDs().findFragmentID(1u))
      ->attributes()
      .setAttribute("CellSize",
                    std::make_shared<Basalt::Chunk<double>>(std::initializer_list<double>{1.0}));
  cloud->attributes().setAttribute(
      "Source", std::make_shared<Basalt::Chunk<int>>(std::initializer_list<int>{42}));
  auto rep = cloud->getCartesianRepresentation(StandardCartesianChart3D);
  rep->makeField(rep->makeFieldID("Planarity"), rep->fragmentLayout(), &TresselType<float>(), 1);
  StrongPtr<Field> untyped = (*rep)["Pending"];
  (void)untyped;

  out[0.0]->setGrid("cloud", cloud);
  out[2.5]->setGrid("cloud", cloud);
  out[2.5]->setGrid("empty", std::make_shared<Grid>("empty"));
  ASSERT_TRUE(out.save()) << out.lastError();

  Bundle in;
  ASSERT_TRUE(in.bindTo(file("slices.h5"))) << in.lastError();
  const auto ids = in.getGridIdentifiers();
  ASSERT_EQ(ids.size(), 3u);
  EXPECT_EQ(ids[0].time, 0.0);
  EXPECT_EQ(ids[1].time, 2.5);
  EXPECT_EQ(ids[1].grid, "cloud");
  EXPECT_EQ(ids[2].grid, "empty");
  EXPECT_EQ(in.findSlice(2.5)->name(), out.findSlice(2.5)->name());

  auto loaded = (*in.findSlice(2.5))["cloud"];
  ASSERT_NE(loaded, nullptr);
  const Partition partition = {{0, 2}, {1}};
  const auto positions = readField<point>(*loaded->CartesianPositions(), partition);
  EXPECT_EQ(positions[0], xyz[0]);
  EXPECT_TRUE(std::isnan(positions[2].z));
  auto loadedClasses = (*loaded)(StandardCartesianChart3D, "Classification");
  EXPECT_EQ(readField<unsigned char>(*loadedClasses, partition),
            (std::vector<unsigned char>{1, 2, 3}));
  EXPECT_EQ(loadedClasses->getFragmentIDCollection(),
            loaded->CartesianPositions()->getFragmentIDCollection());
  EXPECT_EQ(Basalt::chunkCast<unsigned char>(loadedClasses->getAttribute("Range"))->values(),
            (std::vector<unsigned char>{1, 3}));
  auto creator = loadedClasses->getCreator(loadedClasses->getFragmentIDs().findFragmentID(1u));
  EXPECT_EQ((*Basalt::chunkCast<double>(creator->attributes().getAttribute("CellSize")))[0], 1.0);
  EXPECT_EQ(creator->name(), "fragment_1");
  EXPECT_EQ((*Basalt::chunkCast<int>(loaded->attributes().getAttribute("Source")))[0], 42);
  auto planarity = (*loaded)(StandardCartesianChart3D, "Planarity");
  ASSERT_NE(planarity, nullptr);
  EXPECT_EQ(planarity->getElementType()->name(), "float32");
  EXPECT_EQ(planarity->getCreator(planarity->getFragmentIDs().findFragmentID(0u)), nullptr);
  auto pending = (*loaded)(StandardCartesianChart3D, "Pending");
  ASSERT_NE(pending, nullptr);
  EXPECT_EQ(pending->getElementType(), nullptr);
  // Loaded fragments carry their bounding boxes.
  EXPECT_NE(getFragmentBBox(loaded->CartesianPositions()->getFragmentIDs().findFragmentID(0u),
                            nullptr, loaded->CartesianPositions()),
            nullptr);
  auto empty = (*in.findSlice(2.5))["empty"];
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty->CartesianPositions(), nullptr);
}

TEST_F(BundleFiles, UniformGridsKeepTheirLayout) {
  Bundle out;
  ASSERT_TRUE(out.bindToNew(file("raster.h5"), nullptr));
  auto raster = createRegularlyFragmentedGridWithCartesianVertices3D(
      out, 0.0, "raster", MultiIndex<3>(2, 3, 1), MultiIndex<3>(4, 5, 1), point{100, 200, 0},
      Vantor::PhysicalSpace::vector(0.5, 0.25, 1));
  auto view = uniformGridView(*raster);
  ASSERT_TRUE(view.has_value());
  auto positions = raster->CartesianPositions();
  ASSERT_EQ(positions->nFragments(), 6u);
  // Fragment (1, 2, 0) is number 1 + 2 * 2 = 5; its vertex (3, 4, 0) is grid vertex (7, 14, 0).
  EXPECT_EQ(view->fragmentNumber(1, 2, 0), 5u);
  auto block =
      arrayCast<3, point>(positions->getData(positions->getFragmentIDs().findFragmentID(5u)));
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->view()(3, 4, 0), (point{103.5, 203.5, 0}));
  ASSERT_TRUE(out.save()) << out.lastError();

  Bundle in;
  ASSERT_TRUE(in.bindTo(file("raster.h5"))) << in.lastError();
  auto loaded = (*in.findSlice(0.0))["raster"];
  auto loadedView = uniformGridView(*loaded);
  ASSERT_TRUE(loadedView.has_value());
  EXPECT_EQ(loadedView->origin, view->origin);
  EXPECT_EQ(loadedView->cellSize, view->cellSize);
  EXPECT_EQ(loadedView->cells, view->cells);
  EXPECT_EQ(loadedView->fragments, view->fragments);
  EXPECT_FALSE(uniformGridView(Grid()).has_value());
}

TEST_F(BundleFiles, RowMajorCellsGoIntoFragmentsAndComeBackPadded) {
  Bundle out;
  // 2 x 2 fragments of 3 x 2 cells hold a 5 x 3 image; the rest is padding.
  auto raster = createRegularlyFragmentedGridWithCartesianVertices3D(
      out, 0.0, "raster", MultiIndex<3>(2, 2, 1), MultiIndex<3>(3, 2, 1), point{0, 0, 0},
      Vantor::PhysicalSpace::vector(1, 1, 0));
  std::vector<float> image(15);
  for (std::size_t k = 0; k < image.size(); ++k)
    image[k] = static_cast<float>(k);
  setUniformCells<float>(*raster, "Height", image.data(), 5, 3, -1.0f);
  // Cell (4, 2) of the image, image[2 * 5 + 4] = 14, is cell (1, 0) of fragment (1, 1).
  auto heights = (*raster)(StandardCartesianChart3D, "Height");
  auto block = arrayCast<3, float>(heights->getData(heights->getFragmentIDs().findFragmentID(3u)));
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->view()(1, 0, 0), 14.0f);
  EXPECT_EQ(block->view()(2, 0, 0), -1.0f);
  const std::vector<float> whole = uniformCells<float>(*raster, "Height");
  ASSERT_EQ(whole.size(), 24u);
  for (std::size_t j = 0; j < 4; ++j)
    for (std::size_t i = 0; i < 6; ++i)
      EXPECT_EQ(whole[j * 6 + i], i < 5 && j < 3 ? image[j * 5 + i] : -1.0f) << i << "," << j;

  EXPECT_THROW(setUniformCells<float>(*raster, "Height", image.data(), 7, 3, 0.0f),
               std::invalid_argument);
  EXPECT_THROW(setUniformCells<double>(*raster, "Height", nullptr, 0, 0, 0.0),
               std::invalid_argument);
  EXPECT_THROW(uniformCells<unsigned char>(*raster, "Height"), std::invalid_argument);
  EXPECT_THROW(uniformCells<float>(Grid(), "Height"), std::invalid_argument);
}

TEST_F(BundleFiles, GridsOfAnyTotalHoldOneCellPerPixelAfterASaveToo) {
  Bundle out;
  ASSERT_TRUE(out.bindToNew(file("exact.h5"), nullptr));
  // A 5 x 3 image in fragments of at most 3 x 2 cells: (0, 0) 3 x 2, (1, 0) 2 x 2, (0, 1) 3 x 1,
  // (1, 1) 2 x 1; nothing beyond the image.
  auto raster =
      createUniformGrid3D(out, 0.0, "raster", MultiIndex<3>(5, 3, 1), MultiIndex<3>(3, 2, 1),
                          point{10, 20, 0}, Vantor::PhysicalSpace::vector(2, 1, 0));
  std::vector<float> image(15);
  for (std::size_t k = 0; k < image.size(); ++k)
    image[k] = static_cast<float>(k);
  setUniformCells<float>(*raster, "Height", image.data(), 5, 3, -1.0f);
  auto positions = raster->CartesianPositions();
  ASSERT_EQ(positions->nFragments(), 4u);
  const MultiIndex<3> extents[4] = {{3, 2, 1}, {2, 2, 1}, {3, 1, 1}, {2, 1, 1}};
  for (unsigned k = 0; k < 4; ++k) {
    auto block =
        arrayCast<3, point>(positions->getData(positions->getFragmentIDs().findFragmentID(k)));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->multiExtents(), extents[k]) << k;
  }
  StrongPtr<BoundingBox> box;
  ASSERT_TRUE(expandBoundingBox(box, *positions));
  EXPECT_EQ(box->min(), (point{10, 20, 0}));
  EXPECT_EQ(box->max(), (point{18, 22, 0}));
  EXPECT_EQ(uniformCells<float>(*raster, "Height"), image);
  ASSERT_TRUE(out.save()) << out.lastError();

  Bundle in;
  ASSERT_TRUE(in.bindTo(file("exact.h5"))) << in.lastError();
  auto loaded = (*in.findSlice(0.0))["raster"];
  const auto view = uniformGridView(*loaded);
  ASSERT_TRUE(view.has_value());
  EXPECT_EQ(view->total, MultiIndex<3>(5, 3, 1));
  EXPECT_EQ(view->fragments, MultiIndex<3>(2, 2, 1));
  EXPECT_EQ(view->fragmentCells(1, 1, 0), MultiIndex<3>(2, 1, 1));
  EXPECT_EQ(uniformCells<float>(*loaded, "Height"), image);
}

// A policy that fails after a number of fields, as a disk or a host callback might.
struct FailingPolicy : StorageTransformations {
  int left;
  explicit FailingPolicy(int fields) : left(fields) {}
  bool isSaveableField(const FieldID&, const Field&, const Basalt::WeakPtr<Grid>&,
                       const std::string&, double, const std::string&, const SkeletonID&) override {
    if (left-- == 0)
      throw std::runtime_error("simulated failure");
    return true;
  }
};

TEST_F(BundleFiles, AFailedWriteLeavesTheEarlierFileIntact) {
  PointCloudBuilder builder({{1, 1, 1}, {2, 2, 2}});
  builder.addField("Classification", std::vector<unsigned char>{5, 6});
  auto cloud = builder.build({{0, 1}});
  Bundle first;
  ASSERT_TRUE(first.bindToNew(file("kept.h5"), nullptr));
  first[0.0]->setGrid("cloud", cloud);
  ASSERT_TRUE(first.save());
  const auto size = fs::file_size(file("kept.h5"));

  builder.addField("Intensity", std::vector<unsigned short>{7, 8});
  Bundle second;
  ASSERT_TRUE(second.bindToNew(file("kept.h5"), std::make_shared<FailingPolicy>(2)));
  second[0.0]->setGrid("cloud", builder.build({{0, 1}}));
  EXPECT_FALSE(second.save());
  EXPECT_EQ(second.lastError(),
            "bundle file " + file("kept.h5") + ": not written: simulated failure");
  EXPECT_EQ(fs::file_size(file("kept.h5")), size);
  EXPECT_EQ(filesInDir(), 1u); // no temporary file left behind

  Bundle check;
  ASSERT_TRUE(check.bindTo(file("kept.h5"))) << check.lastError();
  auto grid = (*check.findSlice(0.0))["cloud"];
  EXPECT_EQ((*grid)(StandardCartesianChart3D, "Intensity"), nullptr);

  Bundle nowhere;
  EXPECT_FALSE(nowhere.bindToNew(file("missing/dir/out.h5"), nullptr));
  EXPECT_NE(nowhere.lastError().find("does not exist"), std::string::npos);
}

// A write that meets the file-size limit fails with its message, and the process then ends
// normally (HDF5 used to crash while closing the failed file at exit).
TEST_F(BundleFiles, AWriteBeyondTheSizeLimitFailsAndTheProcessEndsCleanly) {
  std::vector<point> xyz(20000, point(1, 2, 3));
  auto cloud = PointCloudBuilder(xyz).build(sequentialPartition(xyz.size(), 0));
  const pid_t child = ::fork();
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{50000, 50000};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    Bundle out;
    out.bindToNew(file("big.h5"), nullptr);
    out[0.0]->setGrid("cloud", cloud);
    const bool failed =
        !out.save() &&
        out.lastError().rfind("bundle file " + file("big.h5") + ": not written: ", 0) == 0;
    std::exit(failed ? 7 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
  EXPECT_EQ(filesInDir(), 0u);
}

// Writes an HDF5 file by hand: a root attribute "Format" (when given) and one group.
void writeForeign(const std::string& path, const char* format) {
  hid_t file = H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
  if (format) {
    hid_t type = H5Tcopy(H5T_C_S1);
    H5Tset_size(type, std::strlen(format));
    hid_t space = H5Screate(H5S_SCALAR);
    hid_t attribute = H5Acreate2(file, "Format", type, space, H5P_DEFAULT, H5P_DEFAULT);
    H5Awrite(attribute, type, format);
    H5Aclose(attribute);
    H5Sclose(space);
    H5Tclose(type);
  }
  H5Gclose(H5Gcreate2(file, "Something", H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT));
  H5Fclose(file);
}

TEST_F(BundleFiles, UnreadableFilesGiveOneClearError) {
  auto attempt = [](const std::string& path) {
    Bundle bundle;
    EXPECT_FALSE(bundle.bindTo(path));
    EXPECT_TRUE(bundle.slices().empty());
    return bundle.lastError();
  };
  EXPECT_EQ(attempt(file("absent.h5")), "bundle file " + file("absent.h5") + ": no such file");

  std::ofstream(file("text.h5")) << "x,y,z\n1,2,3\n";
  EXPECT_EQ(attempt(file("text.h5")), "bundle file " + file("text.h5") + ": not an HDF5 file");

  writeForeign(file("foreign.h5"), nullptr);
  EXPECT_EQ(attempt(file("foreign.h5")),
            "bundle file " + file("foreign.h5") +
                ": not a Quorvel bundle (no Format attribute \"QuorvelBundle\")");
  writeForeign(file("other.h5"), "SomethingElse");
  EXPECT_NE(attempt(file("other.h5")).find("not a Quorvel bundle"), std::string::npos);

  // A valid bundle cut in half, and one with a damaged byte in its data.
  std::vector<point> xyz(20000);
  for (std::size_t i = 0; i < xyz.size(); ++i)
    xyz[i] = point(static_cast<double>(i), 1, 2);
  Bundle out;
  ASSERT_TRUE(out.bindToNew(file("whole.h5"), nullptr));
  out[0.0]->setGrid("cloud", PointCloudBuilder(xyz).build(sequentialPartition(xyz.size(), 5000)));
  ASSERT_TRUE(out.save());
  const auto size = fs::file_size(file("whole.h5"));
  fs::copy_file(file("whole.h5"), file("cut.h5"));
  fs::resize_file(file("cut.h5"), size / 2);
  const std::string cut = attempt(file("cut.h5"));
  EXPECT_EQ(cut.rfind("bundle file " + file("cut.h5") + ": ", 0), 0u) << cut;
  EXPECT_NE(cut.find("truncated or corrupt"), std::string::npos) << cut;
  fs::copy_file(file("whole.h5"), file("stub.h5"));
  fs::resize_file(file("stub.h5"), 100);
  EXPECT_NE(attempt(file("stub.h5")).find("bundle file " + file("stub.h5") + ": "),
            std::string::npos);
}

// Replaces the dataset whose path ends with `suffix` by the values, of the given HDF5 type; or,
// with `declared`, by a dataset of that many values that were never written.
template <class T>
void replaceDataset(const std::string& path, const std::string& suffix, hid_t type,
                    const std::vector<T>& values, hsize_t declared = 0) {
  hid_t file = H5Fopen(path.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
  std::pair<std::string, std::string> search{suffix, ""}; // the suffix, the path found
  H5Lvisit(
      file, H5_INDEX_NAME, H5_ITER_NATIVE,
      [](hid_t, const char* name, const H5L_info_t*, void* data) {
        auto& [wanted, at] = *static_cast<std::pair<std::string, std::string>*>(data);
        const std::string n = name;
        if (n.size() >= wanted.size() &&
            n.compare(n.size() - wanted.size(), wanted.size(), wanted) == 0)
          at = n;
        return 0;
      },
      &search);
  const std::string& found = search.second;
  ASSERT_FALSE(found.empty()) << suffix;
  H5Ldelete(file, found.c_str(), H5P_DEFAULT);
  const hsize_t count = declared > 0 ? declared : values.size();
  hid_t space = H5Screate_simple(1, &count, nullptr);
  hid_t dataset =
      H5Dcreate2(file, found.c_str(), type, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
  if (!values.empty())
    H5Dwrite(dataset, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data());
  H5Dclose(dataset);
  H5Sclose(space);
  H5Fclose(file);
}

// Fields that disagree with their positions in length, or store other scalars than they
// declare, are refused on loading with the dataset's name, before anything reads them.
TEST_F(BundleFiles, InconsistentFieldsAreRefusedOnLoading) {
  PointCloudBuilder builder({{1, 1, 1}, {2, 2, 2}, {3, 3, 3}});
  builder.addField("Classification", std::vector<unsigned char>{2, 3, 4});
  builder.addField("Intensity", std::vector<unsigned short>{7, 8, 9});
  Bundle out;
  ASSERT_TRUE(out.bindToNew(file("good.h5"), nullptr));
  out[0.0]->setGrid("cloud", builder.build({{0, 1, 2}}));
  ASSERT_TRUE(out.save());
  const auto damaged = [&](const std::string& name, auto change) {
    fs::copy_file(file("good.h5"), file(name));
    change(file(name));
    Bundle in;
    EXPECT_FALSE(in.bindTo(file(name)));
    return in.lastError();
  };
  const std::string classes = "Classification/Data/Fragment0";
  const auto fieldError = [](const std::string& text) {
    return text.substr(text.find(": dataset ") + 2);
  };
  std::string error = damaged("float.h5", [&](const std::string& path) {
    replaceDataset(path, classes, H5T_NATIVE_DOUBLE, std::vector<double>{1.5, 2, 3});
  });
  EXPECT_NE(error.find("Classification/Data/Fragment0 stores float64 values, not the uint8 "
                       "elements its field declares"),
            std::string::npos)
      << error;
  error = damaged("wide.h5", [&](const std::string& path) {
    replaceDataset(path, classes, H5T_NATIVE_USHORT, std::vector<unsigned short>{300, 2, 3});
  });
  EXPECT_NE(error.find("stores uint16 values, not the uint8"), std::string::npos) << error;
  error = damaged("long.h5", [&](const std::string& path) {
    replaceDataset(path, "Intensity/Data/Fragment0", H5T_NATIVE_USHORT,
                   std::vector<unsigned short>{1, 2, 3, 4});
  });
  EXPECT_NE(fieldError(error).find("Intensity/Data/Fragment0 holds 4 elements, its fragment's "
                                   "positions 3"),
            std::string::npos)
      << error;
  error = damaged("short.h5", [&](const std::string& path) {
    replaceDataset(path, classes, H5T_NATIVE_UCHAR, std::vector<unsigned char>{1, 2});
  });
  EXPECT_NE(error.find("holds 2 elements, its fragment's positions 3"), std::string::npos) << error;
  error = damaged("huge.h5", [&](const std::string& path) {
    replaceDataset(path, classes, H5T_NATIVE_UCHAR, std::vector<unsigned char>{}, hsize_t{1} << 40);
  });
  EXPECT_NE(error.find("Classification/Data/Fragment0 declares 1099511627776 bytes, more than "
                       "the file holds for it"),
            std::string::npos)
      << error;
}

// Damaged bytes in a bundle's metadata are found by its checksums and reported, whatever they
// hit; before, some flips crashed the HDF5 library itself while it parsed them.
TEST_F(BundleFiles, FlippedBytesGiveErrorsNotCrashes) {
  std::vector<point> xyz(300);
  for (std::size_t i = 0; i < xyz.size(); ++i)
    xyz[i] = point(static_cast<double>(i), 1, 2);
  PointCloudBuilder builder(xyz);
  builder.addField("Classification", std::vector<unsigned char>(xyz.size(), 2));
  Bundle out;
  ASSERT_TRUE(out.bindToNew(file("whole.h5"), nullptr));
  out[0.0]->setGrid("cloud", builder.build(sequentialPartition(xyz.size(), 100)));
  ASSERT_TRUE(out.save());
  std::ifstream in(file("whole.h5"), std::ios::binary);
  const std::string whole((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::mt19937 random(7);
  int refused = 0;
  for (int attempt = 0; attempt < 400; ++attempt) {
    std::string damaged = whole;
    for (int flips = 1 + attempt % 3; flips > 0; --flips)
      damaged[random() % damaged.size()] ^= static_cast<char>(1 << (random() % 8));
    std::ofstream(file("damaged.h5"), std::ios::binary) << damaged;
    Bundle bundle;
    if (!bundle.bindTo(file("damaged.h5"))) {
      ++refused;
      EXPECT_EQ(bundle.lastError().rfind("bundle file " + file("damaged.h5") + ": ", 0), 0u)
          << bundle.lastError();
    }
  }
  EXPECT_GT(refused, 100);
}

} // namespace
