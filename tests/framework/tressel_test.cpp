// SPDX-License-Identifier: BSD-3-Clause
// Tests of the data model: arrays and views, type registration, grids, fields, fragments,
// value ranges and fragment bounding boxes.
#include "tressel/bounding_boxes.hpp"
#include "tressel/data_range.hpp"
#include "tressel/grid.hpp"
#include "tressel/mem_array.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <omp.h>
#include <string>
#include <vector>

namespace {

using namespace Tressel;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Vantor::PhysicalSpace::point;

TEST(MemArray, RanksOneToFourStoreTheFirstIndexFastest) {
  MemArray<3, int> cube(MultiIndex<3>(2, 3, 4));
  EXPECT_EQ(cube.rank(), 3);
  EXPECT_EQ(cube.nElements(), 24u);
  EXPECT_EQ(cube.extents(), (MemBase::Extents{2, 3, 4}));
  auto v = cube.view();
  v(1, 2, 3) = 7;
  EXPECT_EQ(cube[1 + 2 * (2 + 3 * 3)], 7);
  EXPECT_EQ(cube.elementType().name(), "int32");

  MemArray<4, Vantor::RGB> colours(MultiIndex<4>(1, 2, 1, 2));
  colours.view()(0, 1, 0, 1) = Vantor::RGB{1, 2, 3};
  EXPECT_EQ(colours[3], (Vantor::RGB{1, 2, 3}));
  EXPECT_EQ(colours.elementType().components(), 3);

  MemArray<1, point> points(MultiIndex<1>(2), {point{1, 2, 3}, point{4, 5, 6}});
  EXPECT_EQ(points.view()[1], (point{4, 5, 6}));
  EXPECT_THROW((MemArray<1, float>(MultiIndex<1>(3), {1.f, 2.f})), std::invalid_argument);

  auto copy = arrayCast<1, point>(points.clone());
  ASSERT_NE(copy, nullptr);
  points[0].x = 99;
  EXPECT_EQ((*copy)[0].x, 1.0);
  EXPECT_EQ((arrayCast<1, float>(copy)), nullptr);
  EXPECT_EQ((arrayCast<2, point>(copy)), nullptr);
}

TEST(MultiArray, OffsetsStridesAndSlices) {
  MemArray<2, int> grid(MultiIndex<2>(4, 3));
  for (std::size_t j = 0; j < 3; ++j)
    for (std::size_t i = 0; i < 4; ++i)
      grid.view()(i, j) = static_cast<int>(10 * j + i);

  const auto row = grid.view().slice(1, 2); // j = 2
  ASSERT_EQ(row.size(), 4u);
  EXPECT_EQ(row[0], 20);
  EXPECT_EQ(row[3], 23);
  EXPECT_TRUE(row.isContiguous());

  const auto column = grid.view().slice(0, 1); // i = 1
  ASSERT_EQ(column.size(), 3u);
  EXPECT_EQ(column.stride(0), 4);
  EXPECT_EQ(column[2], 21);
  EXPECT_FALSE(column.isContiguous());

  const auto block = grid.view().subarray(MultiIndex<2>(1, 1), MultiIndex<2>(2, 5)); // clipped
  EXPECT_EQ(block.extent(0), 2u);
  EXPECT_EQ(block.extent(1), 2u);
  EXPECT_EQ(block(0, 0), 11);
  EXPECT_EQ(block(1, 1), 22);
  EXPECT_EQ(block.slice(0, 1)[1], 22);

  const auto odd = grid.view().slice(1, 0).every(0, 2);
  ASSERT_EQ(odd.size(), 2u);
  EXPECT_EQ(odd[1], 2);

  EXPECT_TRUE(grid.view().slice(1, 3).empty());
  EXPECT_TRUE(grid.view().subarray(MultiIndex<2>(4, 0), MultiIndex<2>(1, 1)).empty());

  // A view keeps its storage alive after the array is gone.
  MultiArray<1, int> kept;
  {
    auto temporary =
        std::make_shared<MemArray<1, int>>(MultiIndex<1>(3), std::vector<int>{4, 5, 6});
    kept = temporary->view();
  }
  EXPECT_EQ(kept[2], 6);

  // Views over host memory with explicit strides: every third double.
  std::vector<double> raw = {0, 1, 2, 3, 4, 5, 6, 7, 8};
  MultiArray<1, double> strided(raw.data(), MultiIndex<1>(3), {3});
  EXPECT_EQ(strided[2], 6.0);
}

TEST(TypeRegistration, EveryStandardArrayKindIsRegisteredExactlyOnce) {
  // Create arrays of every kind from many threads at once: registration must still happen once.
#pragma omp parallel for num_threads(4)
  for (int t = 0; t < 16; ++t) {
    MemArray<1, unsigned char> a(MultiIndex<1>(1));
    MemArray<2, Vantor::PhysicalSpace::vector> b(MultiIndex<2>(1, 1));
    MemArray<1, signed char> c(MultiIndex<1>(1)); // a kind registered on first use
    (void)a;
    (void)b;
    (void)c;
  }
  const std::vector<std::string> names = {"uint8",       "uint16",  "int32",   "uint32", "uint64",
                                          "float32",     "float64", "float80", "point",  "vector",
                                          "fixedarray3", "edge",    "rgb"};
  for (const auto& name : names) {
    EXPECT_EQ(TresselTypeBase::rememberCount(name), 1) << name;
    ASSERT_NE(TresselTypeBase::find(name), nullptr) << name;
    for (int rank = 1; rank <= 4; ++rank) {
      EXPECT_EQ(MemBase::creatorRegistrations(rank, name), 1) << name << " rank " << rank;
      auto made = MemBase::create(rank, name, MemBase::Extents(rank, 2));
      ASSERT_NE(made, nullptr) << name;
      EXPECT_EQ(made->rank(), rank);
      EXPECT_EQ(made->nElements(), std::size_t(1) << rank);
      EXPECT_EQ(made->elementType().name(), name);
    }
  }
  EXPECT_EQ(MemBase::creatorRegistrations(1, "int8"), 1);
  EXPECT_TRUE((MemArray<3, double>::TypeIsRegistered));
  EXPECT_EQ(MemBase::create(1, "no-such-type", {3}), nullptr);
  EXPECT_EQ(MemBase::create(2, "float32", {3}), nullptr); // extents do not match the rank
  EXPECT_EQ(TresselTypeBase::find("point")->size(), 3 * sizeof(double));
}

// The table of plain scalar kinds that file formats share agrees with the element types: names,
// sizes, the C++ type handed out, and no kind for types of several components.
TEST(TypeRegistration, ScalarKindsMatchTheirElementTypes) {
  for (ScalarKind kind :
       {ScalarKind::Int8, ScalarKind::UInt8, ScalarKind::Int16, ScalarKind::UInt16,
        ScalarKind::Int32, ScalarKind::UInt32, ScalarKind::Int64, ScalarKind::UInt64,
        ScalarKind::Float32, ScalarKind::Float64}) {
    const TresselTypeBase& type = withScalar(
        kind, [](auto v) -> const TresselTypeBase& { return TresselType<decltype(v)>(); });
    EXPECT_EQ(type.scalar(), kind);
    EXPECT_EQ(type.components(), 1);
    EXPECT_EQ(scalarName(kind), type.name());
    EXPECT_EQ(scalarSize(kind), type.size());
    EXPECT_EQ(plainScalar(type.name()), kind);
  }
  EXPECT_EQ(plainScalar("point"), ScalarKind::Opaque);
  EXPECT_EQ(plainScalar("rgb16"), ScalarKind::Opaque);
  EXPECT_EQ(plainScalar("no-such-type"), ScalarKind::Opaque);
}

// A grid with "Positions" and "Classification" in three fragments of 2, 0 and 3 points.
struct SmallGrid {
  StrongPtr<Grid> grid = std::make_shared<Grid>("cloud");
  StrongPtr<Representation> rep;
  StrongPtr<Field> positions, classes;
  std::vector<StrongPtr<FragmentID>> ids;

  SmallGrid() {
    rep = grid->makeCartesianRepresentation(3, StandardCartesianChart3D);
    auto layout = std::make_shared<FragmentIDCollection>();
    for (int k = 0; k < 3; ++k)
      ids.push_back(layout->makeFragmentID("f" + std::to_string(k)));
    positions =
        rep->makeField(rep->makeFieldID("Positions"), layout, MemArray<1, point>(MultiIndex<1>(0)));
    classes = rep->makeField(rep->makeFieldID("Classification"), layout,
                             MemArray<1, unsigned char>(MultiIndex<1>(0)));
    const std::vector<std::vector<point>> xyz = {
        {{0, 0, 0}, {1, 1, 1}}, {}, {{5, 5, 5}, {6, 4, 5}, {std::nan(""), 0, 0}}};
    for (int k = 0; k < 3; ++k) {
      positions->setPersistentData(
          std::make_shared<MemArray<1, point>>(MultiIndex<1>(xyz[k].size()), xyz[k]), ids[k]);
      classes->setPersistentData(
          MemArray<1, unsigned char>::filled(MultiIndex<1>(xyz[k].size()), 0), ids[k]);
    }
  }
};

// A raster in one-cell fragments holds tens of thousands of them: each name keeps its number,
// a repeated name gives the fragment made first, and every name and number is found (a layout
// that searched its names one by one took minutes for this).
TEST(FragmentLayout, TensOfThousandsOfNamesKeepTheirNumbers) {
  FragmentIDCollection layout;
  constexpr unsigned Count = 60000;
  for (unsigned k = 0; k < Count; ++k)
    ASSERT_EQ(layout
                  .makeFragmentID("fragment_" + std::to_string(k % 300) + "_" +
                                  std::to_string(k / 300) + "_0")
                  ->number(),
              k);
  EXPECT_EQ(layout.size(), Count);
  EXPECT_EQ(layout.makeFragmentID("fragment_7_3_0")->number(), 907u);
  EXPECT_EQ(layout.size(), Count);
  for (unsigned k = 0; k < Count; k += 997) {
    const auto byName = layout.findFragmentID("fragment_" + std::to_string(k % 300) + "_" +
                                              std::to_string(k / 300) + "_0");
    ASSERT_NE(byName, nullptr);
    EXPECT_EQ(byName, layout.findFragmentID(k));
  }
  EXPECT_EQ(layout.findFragmentID("fragment_300_0_0"), nullptr);
  EXPECT_EQ(layout.fragments().back()->Name(), "fragment_299_199_0");
}

TEST(Grid, LookupsByChartRepresentationAndName) {
  SmallGrid g;
  EXPECT_NE(g.grid->findCartesianChart(StandardCartesianChart3D), nullptr);
  EXPECT_EQ(g.grid->findCartesianChart("Other"), nullptr);
  EXPECT_EQ(g.grid->CartesianPositions(), g.positions);
  EXPECT_EQ((*g.grid)(StandardCartesianChart3D, "Classification"), g.classes);
  EXPECT_EQ((*g.grid)("Other", "Classification"), nullptr);
  EXPECT_EQ(g.grid->getField(g.grid->findCartesianChart(StandardCartesianChart3D), "Nope"),
            Field::NullPtrField());
  EXPECT_EQ(g.grid->getCartesianRepresentation(StandardCartesianChart3D), g.rep);
  EXPECT_EQ(g.grid->getCartesianRepresentation(SkeletonID(1, 0), StandardCartesianChart3D),
            nullptr);
  EXPECT_EQ(g.rep->findField(g.rep->findFieldID("Positions")), g.positions);
  EXPECT_EQ(g.rep->findFieldID("Nope"), nullptr);
  EXPECT_EQ(g.grid->skeletons().findVertices()->id().Name(), "Skeleton0_0");
  EXPECT_EQ(g.positions->getFragmentIDs().findFragmentID(2u)->Name(), "f2");
  EXPECT_EQ(g.positions->getFragmentIDs().findFragmentID(3u), nullptr);
  EXPECT_EQ(g.positions->getFragmentIDCollection(), g.classes->getFragmentIDCollection());

  // A grid without the chart answers empty everywhere, also through its field slots.
  auto bare = std::make_shared<Grid>();
  EXPECT_EQ(bare->CartesianPositions(), nullptr);
  EXPECT_EQ(StrongPtr<Field>((*bare)["Classification"]), nullptr);
}

TEST(Grid, SkeletonAndFieldVisitors) {
  SmallGrid g;
  g.grid->skeletons().makeSkeleton(SkeletonID(1, 0));
  std::vector<std::string> skeletons;
  g.grid->skeletons().iterate([&](const SkeletonID& id, const StrongPtr<Skeleton>&) {
    skeletons.push_back(id.Name());
    return true;
  });
  EXPECT_EQ(skeletons, (std::vector<std::string>{"Skeleton0_0", "Skeleton1_0"}));

  std::vector<std::string> fields;
  g.grid->skeletons().findVertices()->iterate_fields(
      [&](const std::string& chart, const StrongPtr<Representation>&, const StrongPtr<FieldID>& id,
          const StrongPtr<Field>&) {
        fields.push_back(chart + "/" + id->Name());
        return fields.size() < 1; // stops after the first
      });
  EXPECT_EQ(fields, std::vector<std::string>{"StandardCartesianChart3D/Positions"});

  std::vector<std::string> names;
  g.rep->iterate([&](const StrongPtr<FieldID>& id, const StrongPtr<Field>&) {
    names.push_back(id->Name());
    return true;
  });
  EXPECT_EQ(names, (std::vector<std::string>{"Positions", "Classification"}));
}

TEST(Field, IteratesFragmentsInOrderWithSelectorAndStop) {
  SmallGrid g;
  std::vector<std::string> seen;
  EXPECT_TRUE(g.positions->iterate(
      [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        seen.push_back(id->Name() + ":" + std::to_string(creator->getSize().at(0)));
        return true;
      }));
  EXPECT_EQ(seen, (std::vector<std::string>{"f0:2", "f1:0", "f2:3"}));

  seen.clear();
  g.positions->iterate(
      [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>&) {
        seen.push_back(id->Name());
        return true;
      },
      [](const FragmentID& id) { return id.number() != 1; });
  EXPECT_EQ(seen, (std::vector<std::string>{"f0", "f2"}));

  int visits = 0;
  EXPECT_FALSE(
      g.positions->iterate([&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>&) {
        return ++visits < 2;
      }));
  EXPECT_EQ(visits, 2);
}

TEST(Field, AttachingChecksTypeRankAndLayout) {
  SmallGrid g;
  const auto floats = std::make_shared<MemArray<1, float>>(MultiIndex<1>(2));
  EXPECT_EQ(g.classes->setPersistentData(floats, g.ids[0]), nullptr);
  EXPECT_EQ(g.classes->setPersistentData(
                std::make_shared<MemArray<2, unsigned char>>(MultiIndex<2>(1, 2)), g.ids[0]),
            nullptr);
  auto foreign = std::make_shared<FragmentIDCollection>()->makeFragmentID("f0");
  EXPECT_EQ(g.classes->setPersistentData(
                std::make_shared<MemArray<1, unsigned char>>(MultiIndex<1>(2)), foreign),
            nullptr);

  // Replacing a fragment's data makes a new creator; holders of the old one keep the old data.
  auto oldCreator = g.classes->getCreator(g.ids[0]);
  auto replacement = std::make_shared<MemArray<1, unsigned char>>(MultiIndex<1>(2),
                                                                  std::vector<unsigned char>{7, 8});
  auto newCreator = g.classes->setPersistentData(replacement, g.ids[0]);
  ASSERT_NE(newCreator, nullptr);
  EXPECT_NE(newCreator, oldCreator);
  EXPECT_EQ(g.classes->getData(g.ids[0]), replacement);
  EXPECT_EQ((arrayCast<1, unsigned char>(oldCreator->getData())->size()), 2u);
  EXPECT_GT(newCreator->age(), oldCreator->age());
  EXPECT_EQ(newCreator->getTresselType()->name(), "uint8");

  // makeField returns the existing field for the same type and refuses another type.
  EXPECT_EQ(g.rep->makeField(g.rep->makeFieldID("Classification"), g.rep->fragmentLayout(),
                             MemArray<1, unsigned char>(MultiIndex<1>(0))),
            g.classes);
  EXPECT_EQ(g.rep->makeField(g.rep->makeFieldID("Classification"), g.rep->fragmentLayout(),
                             MemArray<1, int>(MultiIndex<1>(0))),
            nullptr);
}

TEST(Field, ProxyCreatesAnUntypedFieldWithThePositionsLayout) {
  SmallGrid g;
  StrongPtr<Field> made = (*g.grid)["Planarity"];
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(StrongPtr<Field>((*g.grid)["Planarity"]), made); // second use finds it
  EXPECT_EQ(made->getElementType(), nullptr);
  EXPECT_EQ(made->getFragmentIDCollection(), g.positions->getFragmentIDCollection());
  EXPECT_EQ(made->getCreator(g.ids[0]), nullptr);
  ASSERT_NE(
      made->setPersistentData(std::make_shared<MemArray<1, float>>(MultiIndex<1>(2)), g.ids[0]),
      nullptr);
  EXPECT_EQ(made->getElementType()->name(), "float32"); // typed by its first array
  EXPECT_EQ(
      made->setPersistentData(std::make_shared<MemArray<1, double>>(MultiIndex<1>(2)), g.ids[1]),
      nullptr);

  auto replacement = std::make_shared<Field>(g.rep->fragmentLayout());
  (*g.rep)["Planarity"] = replacement;
  EXPECT_EQ(g.rep->findField("Planarity"), replacement);
}

TEST(CreativeArray, TouchPullDataAndMissingData) {
  SmallGrid g;
  auto creator = g.classes->getCreator(g.ids[0]);
  const auto before = creator->age();
  creator->touch();
  EXPECT_GT(creator->age(), before);

  auto copy = arrayCast<1, unsigned char>(creator->pullData());
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy, creator->getData());
  EXPECT_EQ(copy->size(), 2u);

  auto silent = g.classes->createCreator(nullptr, "silent");
  auto loud = g.classes->createCreator(nullptr, "loud", CreationFailAlternative::Report);
  CaptureStdout();
  EXPECT_EQ(silent->getData(), nullptr);
  EXPECT_EQ(loud->getData(), nullptr);
  EXPECT_EQ(GetCapturedStdout(), "CreativeArrayBase: no data for loud\n");
  EXPECT_EQ(loud->getTresselType(), nullptr);
  EXPECT_TRUE(loud->getSize().empty());
  EXPECT_EQ(loud->pullData(), nullptr);
  EXPECT_TRUE(g.classes->setCreator(g.ids[1], silent)); // a fragment whose creator holds no data
  EXPECT_EQ(g.classes->getData(g.ids[1]), nullptr);
}

TEST(Field, DifferentFragmentsReadFromManyThreads) {
  SmallGrid g;
  std::vector<double> sums(3, 0.0);
#pragma omp parallel for num_threads(3) schedule(dynamic, 1)
  for (int k = 0; k < 300; ++k) {
    auto xyz = arrayCast<1, point>(g.positions->getData(g.ids[k % 3]));
    if (k < 3)
      for (std::size_t i = 0; i < xyz->size(); ++i)
        if (std::isfinite((*xyz)[i].x))
          sums[k] += (*xyz)[i].x;
  }
  EXPECT_EQ(sums, (std::vector<double>{1, 0, 11}));
}

TEST(DataRange, FragmentRangesAreCachedUntilTouchedAndMergedPerField) {
  SmallGrid g;
  auto c0 = g.classes->getCreator(g.ids[0]);
  auto a0 = arrayCast<1, unsigned char>(c0->getData());
  (*a0)[0] = 3;
  (*a0)[1] = 9;
  auto r0 = DataRange<unsigned char>::compute(c0);
  ASSERT_NE(r0, nullptr);
  EXPECT_EQ(r0->minimum(), 3);
  EXPECT_EQ(r0->maximum(), 9);

  (*a0)[1] = 200; // written in place but not touched: the cached range stays
  EXPECT_EQ(DataRange<unsigned char>::compute(c0)->maximum(), 9);
  EXPECT_EQ(DataRange<unsigned char>::compute(c0, true)->maximum(), 200);
  (*a0)[1] = 100;
  c0->touch();
  EXPECT_EQ(DataRange<unsigned char>::compute(c0)->maximum(), 100);
  EXPECT_EQ(DataRange<float>::compute(c0), nullptr); // another element type

  auto c2 = g.classes->getCreator(g.ids[2]);
  (*arrayCast<1, unsigned char>(c2->getData()))[1] = 1;
  std::string info;
  CaptureStdout();
  auto total = getRange<unsigned char>(*g.classes, info, false, true);
  const std::string printed = GetCapturedStdout();
  ASSERT_NE(total, nullptr);
  EXPECT_EQ(info, "[0, 100]");
  EXPECT_EQ(printed,
            "DataRange of f0: [3, 100]\nDataRange of f1: empty\nDataRange of f2: [0, 1]\n");
  auto attribute = Basalt::chunkCast<unsigned char>(g.classes->getAttribute("Range"));
  ASSERT_NE(attribute, nullptr);
  EXPECT_EQ(attribute->values(), (std::vector<unsigned char>{0, 100}));
  EXPECT_EQ(g.classes->getInterface<DataRange<unsigned char>>(), total);

  EXPECT_EQ(getRange<double>(*g.classes, info), nullptr);
  EXPECT_EQ(info, "no fragment holds values of type float64");

  DataRange<float> withNan;
  withNan.expand(std::nanf(""));
  withNan.expand(2.f);
  withNan.expand(-1.f);
  EXPECT_EQ(withNan.text(), "[-1, 2]");
}

// A range widened by an array is the range of its values expanded one after the other: NaN at
// the start, in the middle and alone, zeros of both signs (the first kept), and a range that
// held values before.
TEST(DataRange, AnArrayWidensARangeAsItsValuesOneByOne) {
  const float nan = std::nanf("");
  const std::vector<std::vector<float>> cases = {
      {nan, nan, 3.f, -0.f, 0.f, nan, -2.f, 7.f}, {0.f, -0.f}, {-0.f, 0.f}, {nan}, {}, {5.f}};
  for (const bool before : {false, true})
    for (const auto& values : cases) {
      DataRange<float> one, all;
      if (before) {
        one.expand(0.5f);
        all.expand(0.5f);
      }
      for (const float v : values)
        one.expand(v);
      all.expandBy(values.data(), values.size());
      ASSERT_EQ(all.valid(), one.valid());
      if (one.valid()) {
        EXPECT_EQ(std::bit_cast<std::uint32_t>(all.minimum()),
                  std::bit_cast<std::uint32_t>(one.minimum()));
        EXPECT_EQ(std::bit_cast<std::uint32_t>(all.maximum()),
                  std::bit_cast<std::uint32_t>(one.maximum()));
      }
    }
  std::vector<unsigned char> classes(100001);
  for (std::size_t i = 0; i < classes.size(); ++i)
    classes[i] = static_cast<unsigned char>((i * 37 + 11) % 200 + 3);
  DataRange<unsigned char> bytes;
  bytes.expandBy(classes.data(), classes.size());
  EXPECT_EQ(bytes.text(), "[3, 202]");
}

TEST(BoundingBoxes, StoredComputedAndWholeFieldBoxes) {
  SmallGrid g;
  auto c2 = g.positions->getCreator(g.ids[2]);
  EXPECT_EQ(getFragmentBBox(g.ids[2], c2, g.positions), nullptr); // nothing stored yet

  StrongPtr<BoundingBox> box;
  ASSERT_TRUE(ExpandBBox(box, c2, BBoxStore));
  EXPECT_EQ(box->min(), (point{5, 4, 5})); // the NaN point is left out
  EXPECT_EQ(box->max(), (point{6, 5, 5}));
  auto stored = getFragmentBBox(g.ids[2], nullptr, g.positions);
  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(*stored, *box);
  stored->expand(point{100, 100, 100}); // a copy: the stored box is unchanged
  EXPECT_EQ(*getFragmentBBox(g.ids[2], c2, nullptr), *box);

  c2->touch(); // positions written in place: the stored box is stale
  EXPECT_EQ(getFragmentBBox(g.ids[2], c2, nullptr), nullptr);

  StrongPtr<BoundingBox> empty;
  EXPECT_FALSE(ExpandBBox(empty, g.positions->getCreator(g.ids[1]))); // no points
  EXPECT_FALSE(ExpandBBox(empty, g.classes->getCreator(g.ids[0])));   // not positions
  EXPECT_FALSE(ExpandBBox(empty, nullptr));

  auto whole = getBoundingBox(*g.positions);
  ASSERT_NE(whole, nullptr);
  EXPECT_EQ(whole->min(), (point{0, 0, 0}));
  EXPECT_EQ(whole->max(), (point{6, 5, 5}));
  StrongPtr<BoundingBox> grown = std::make_shared<BoundingBox>(point{-1, -1, -1}, point{0, 0, 0});
  EXPECT_TRUE(expandBoundingBox(grown, *g.positions));
  EXPECT_EQ(grown->min(), (point{-1, -1, -1}));
  EXPECT_EQ(grown->max(), (point{6, 5, 5}));
  EXPECT_EQ(getBoundingBox(*g.classes), nullptr);
}

} // namespace
