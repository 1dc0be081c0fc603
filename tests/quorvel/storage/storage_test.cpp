// SPDX-License-Identifier: BSD-3-Clause
// Tests of the result storage policy: its three questions and their effect on written files.
#include "quorvel/metadata/metadata.hpp"
#include "quorvel/storage/storage.hpp"
#include "tressel/bundle.hpp"
#include "tressel/point_cloud.hpp"

#include "support/scratch_directory.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <random>

namespace {

using namespace Tressel;
using Vantor::PhysicalSpace::point;
namespace fs = std::filesystem;

StrongPtr<Basalt::ChunkBase> chunkOf(const std::string& kind) {
  if (kind == "point")
    return std::make_shared<Basalt::Chunk<point>>(2);
  if (kind == "pointf")
    return std::make_shared<Basalt::Chunk<Vantor::PhysicalSpace::FloatPoint>>(2);
  if (kind == "vector")
    return std::make_shared<Basalt::Chunk<Vantor::PhysicalSpace::vector>>(2);
  return std::make_shared<Basalt::Chunk<float>>(2);
}

TEST(MyStorage, TheThreeQuestions) {
  Wexlin::MyStorage policy;
  const FieldID positions("Positions"), positions2("Positions2"), classes("Classification");
  const Field field(nullptr);
  auto ask = [&](const FieldID& id) {
    return policy.isSaveableField(id, field, {}, "grid", 0.0, "t0", SkeletonID(0, 0));
  };
  EXPECT_TRUE(ask(positions)); // no list: every field
  policy.saveableFields = std::make_shared<Basalt::StringList>();
  EXPECT_FALSE(ask(positions)); // an empty list: no field
  policy.saveableFields->push_back("Positions");
  EXPECT_TRUE(ask(positions));
  EXPECT_FALSE(ask(positions2));
  EXPECT_FALSE(ask(classes));

  EXPECT_FALSE(policy.EnableNumericalShift("Positions", chunkOf("point")));
  EXPECT_FALSE(policy.WriteAsSinglePrecision("Positions", chunkOf("point")));
  policy.numericalShift = true;
  policy.writeSinglePrecision = true;
  EXPECT_TRUE(policy.EnableNumericalShift("Positions2", chunkOf("point")));
  EXPECT_TRUE(policy.EnableNumericalShift("Anything", chunkOf("pointf")));
  EXPECT_FALSE(policy.EnableNumericalShift("Positions", chunkOf("float")));
  EXPECT_FALSE(policy.EnableNumericalShift("Positions", chunkOf("vector")));
  EXPECT_TRUE(policy.WriteAsSinglePrecision("Positions", chunkOf("point")));
  EXPECT_TRUE(policy.WriteAsSinglePrecision("Positions", chunkOf("pointf")));
  EXPECT_FALSE(policy.WriteAsSinglePrecision("Positions2", chunkOf("point")));
  EXPECT_FALSE(policy.WriteAsSinglePrecision("Positions", chunkOf("float")));
  EXPECT_FALSE(policy.EnableNumericalShift("Positions", nullptr));
}

class StoredFiles : public ScratchDirectory {
protected:
  // A georeferenced cloud with a second point field and a scalar field.
  struct Written {
    std::vector<point> xyz;
    std::vector<float> amplitude;
    std::uintmax_t bytes;
    StrongPtr<Grid> loaded;
  };
  Written write(const std::string& name, const StrongPtr<Wexlin::MyStorage>& policy) {
    Written w;
    std::mt19937 random(3);
    std::uniform_real_distribution<double> u(0.0, 50.0);
    for (int i = 0; i < 4000; ++i) {
      w.xyz.push_back({3.2e6 + u(random), 5.7e6 + u(random), 400 + u(random) / 10});
      w.amplitude.push_back(static_cast<float>(u(random)) + 1e-3f);
    }
    PointCloudBuilder builder(w.xyz);
    builder.addField("Positions2", w.xyz).addField("Amplitude", w.amplitude);
    Bundle out;
    const std::string path = file(name);
    EXPECT_TRUE(out.bindToNew(path, policy));
    out[0.0]->setGrid("cloud", builder.build(sequentialPartition(w.xyz.size(), 1000)));
    EXPECT_TRUE(out.save()) << out.lastError();
    w.bytes = fs::file_size(path);
    Bundle in;
    EXPECT_TRUE(in.bindTo(path)) << in.lastError();
    w.loaded = (*in.findSlice(0.0))["cloud"];
    return w;
  }
};

TEST_F(StoredFiles, ShiftAndSinglePrecisionInTheWrittenFile) {
  const auto plain = write("plain.h5", std::make_shared<Wexlin::MyStorage>());
  auto policy = std::make_shared<Wexlin::MyStorage>();
  policy->numericalShift = true;
  policy->writeSinglePrecision = true;
  const auto compact = write("compact.h5", policy);

  // Positions take 12 instead of 24 bytes per point; nothing else shrinks.
  EXPECT_NEAR(static_cast<double>(plain.bytes - compact.bytes), 4000.0 * 12, 4000.0);

  const Partition order = sequentialPartition(4000, 1000);
  const auto positions = readField<point>(*compact.loaded->CartesianPositions(), order);
  const auto positions2 =
      readField<point>(*(*compact.loaded)(StandardCartesianChart3D, "Positions2"), order);
  const auto amplitude =
      readField<float>(*(*compact.loaded)(StandardCartesianChart3D, "Amplitude"), order);
  double worst = 0;
  for (std::size_t i = 0; i < positions.size(); ++i)
    for (int k = 0; k < 3; ++k)
      worst = std::max(worst, std::fabs(positions[i][k] - compact.xyz[i][k]));
  // Offsets of at most ~25 m from the shift: float resolution ~2e-6 m, not the ~0.25 m of
  // floats at 5.7e6.
  EXPECT_LT(worst, 4e-6);
  EXPECT_GT(worst, 0.0);
  EXPECT_EQ(positions2, compact.xyz);      // shifted, kept in double: exact
  EXPECT_EQ(amplitude, compact.amplitude); // a scalar is never shifted or narrowed

  // A loaded grid is a grid like any other: the algorithms run on it.
  EXPECT_EQ(Quorvel::setCellSize(compact.loaded, nullptr),
            "setCellSize: CellTensor for 4000 points in 4 fragments");

  auto none = std::make_shared<Wexlin::MyStorage>();
  none->saveableFields = std::make_shared<Basalt::StringList>();
  const auto empty = write("empty.h5", none);
  EXPECT_EQ(empty.loaded->CartesianPositions(), nullptr);
  EXPECT_LT(empty.bytes, plain.bytes / 10);
}

} // namespace
