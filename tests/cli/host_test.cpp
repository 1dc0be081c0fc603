// SPDX-License-Identifier: BSD-3-Clause
// The host's own pieces: the order in which it reads fields (the writer's rule), the checks of
// option values and their words, the nearest-option finder, what it advises on a failure and the
// run's thread count.
#include "cli/advice.hpp"
#include "cli/checks.hpp"
#include "cli/commands/command.hpp"
#include "cli/host.hpp"
#include "io/las.hpp"
#include "quorvel/quorvel.hpp"
#include "tressel/point_cloud.hpp"

#include <gtest/gtest.h>
#include <omp.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace Quorvel;

Basalt::StrongPtr<Tressel::Grid> cloud(const std::vector<unsigned char>& classes,
                                       const std::vector<unsigned long long>& index,
                                       std::size_t fragmentSize) {
  std::vector<Vantor::PhysicalSpace::point> xyz;
  for (std::size_t k = 0; k < classes.size(); ++k)
    xyz.push_back({double(k), 0, 0});
  Tressel::PointCloudBuilder builder(xyz);
  builder.addField("Classification", classes);
  if (!index.empty())
    builder.addField("PointIndex", index);
  return builder.build(Tressel::sequentialPartition(classes.size(), fragmentSize));
}

// --threads is the run's: a command whose box takes the count keeps its reading and writing to
// it too, unless it asks for more than the runtime offers or for none (0 or less, which a box's
// own option allows): the box then corrects it, and the run keeps the runtime's count.
TEST(RunThreads, BoundTheReadingAndWritingOfEveryCommand) {
  const int offered = omp_get_max_threads();
  std::ostream* const sink = Basalt::Console::setSink(nullptr); // setUpRun sets it too
  Cli::Common common;
  for (const bool hostThreads : {true, false}) {
    common.threads = 1;
    Cli::setUpRun(common, hostThreads);
    EXPECT_EQ(omp_get_max_threads(), 1) << hostThreads;
    omp_set_num_threads(offered);
  }
  for (const int asked : {offered + 5, 0, -1}) { // a box's own count may be 0 or less
    common.threads = asked;
    Cli::setUpRun(common, false);
    EXPECT_EQ(omp_get_max_threads(), offered) << asked;
  }
  common.threads = offered + 5;
  Cli::setUpRun(common, true);
  EXPECT_EQ(omp_get_max_threads(), offered + 5);
  omp_set_num_threads(offered);
  Basalt::Console::setSink(sink);
}

// File order is one rule: a permutation places each point at its index; gaps and repeats (points
// removed, clouds merged) rank the points, ties in the order of the fragments.
TEST(FileOrder, PermutationsPlaceGapsAndRepeatsRank) {
  EXPECT_EQ(Las::filePlaces({0, 1, 2}), (std::vector<std::uint64_t>{0, 1, 2}));
  EXPECT_EQ(Las::filePlaces({2, 0, 1}), (std::vector<std::uint64_t>{2, 0, 1}));
  EXPECT_EQ(Las::filePlaces({10, 3, 7}), (std::vector<std::uint64_t>{2, 0, 1}));
  EXPECT_EQ(Las::filePlaces({5, 5, 1, 5}), (std::vector<std::uint64_t>{1, 2, 0, 3}));
  EXPECT_EQ(Las::filePlaces({}), (std::vector<std::uint64_t>{}));
}

// classesOf reads the classes in the order the writer would write them, over fragments too:
// before, an index beyond the point count (a thinned cloud) dropped its point's class.
TEST(FileOrder, ClassesAreReadInTheWritersOrder) {
  const auto permuted = cloud({7, 8, 9, 6}, {2, 3, 1, 0}, 3);
  EXPECT_EQ(Cli::classesOf(*permuted, "Classification", "p"),
            (std::vector<unsigned char>{6, 9, 7, 8}));
  const auto thinned = cloud({7, 8, 9}, {40, 4, 12}, 2);
  EXPECT_EQ(Cli::classesOf(*thinned, "Classification", "t"), (std::vector<unsigned char>{8, 9, 7}));
  const auto plain = cloud({1, 2, 3}, {}, 2);
  EXPECT_EQ(Cli::classesOf(*plain, "Classification", "q"), (std::vector<unsigned char>{1, 2, 3}));
  EXPECT_THROW(Cli::classesOf(*plain, "Intensity", "q"), Cli::Error);
}

// The validators take their rules and words from the library's table.
TEST(OptionChecks, RulesOfTheTableWithTheirWords) {
  auto refusal = [](CLI::Validator rule, std::string text) { return rule(text); };
  const auto step = Cli::boxRule("ShapeFactorComputationParameterBox", "step");
  EXPECT_EQ(refusal(step, "0.5"), "");
  EXPECT_EQ(refusal(step, "-1"), "\"-1\" is not a positive finite number");
  EXPECT_EQ(refusal(step, "inf"), "\"inf\" is not a positive finite number");
  const auto maxstep = Cli::boxRule("ShapeFactorComputationParameterBox", "maxstep");
  EXPECT_EQ(refusal(maxstep, "2.5"), "\"2.5\" is not a whole number from 0 to 1000");
  EXPECT_EQ(refusal(maxstep, "1000"), "");
  const auto quantile = Cli::boxRule("PlanarRegressionParameterBox", "quantile");
  EXPECT_EQ(refusal(quantile, "101"), "\"101\" is not a number from 0 to 100");
  const auto threshold = Cli::boxRule("PointCloudSizeReductionParameterBox", "threshold");
  EXPECT_EQ(refusal(threshold, "-3.5"), "");
  EXPECT_EQ(threshold.get_description(), "NUMBER");
  const auto dimension = Cli::oneOf("2|3|2D|3D");
  EXPECT_EQ(refusal(dimension, "2D"), "");
  EXPECT_EQ(refusal(dimension, "4"), "\"4\" is not one of 2, 3, 2D, 3D");
  EXPECT_EQ(dimension.get_description(), "{2, 3, 2D, 3D}");
  EXPECT_THROW(Cli::boxRule("ShapeFactorComputationParameterBox", "nothing"), std::logic_error);
  EXPECT_THROW(Cli::checkRange("--classes", "two"), CLI::ValidationError);
  EXPECT_NO_THROW(Cli::checkRange("--classes", "2:5,9"));
  EXPECT_THROW(Cli::checkBands("--bands", "1=x"), CLI::ValidationError);
}

// Ranges print as a user types them, whatever the library's six decimals.
TEST(OptionChecks, RangesPrintAsTyped) {
  EXPECT_EQ(Cli::typedRange(Vantor::MultiRange<double>("0:255")), "0:255");
  EXPECT_EQ(Cli::typedRange(Vantor::MultiRange<double>("2")), "2");
  EXPECT_EQ(Cli::typedRange(Vantor::MultiRange<double>("-0.2:0.2;9")), "-0.2:0.2,9");
  EXPECT_EQ(Cli::typedRange(Vantor::MultiRange<double>()), "");
}

TEST(NearestOption, EditsBetweenNames) {
  EXPECT_EQ(Cli::editDistance("--stepp", "--step"), 1u);
  EXPECT_EQ(Cli::editDistance("--bandz", "--bands"), 1u);
  EXPECT_EQ(Cli::editDistance("", "abc"), 3u);
  EXPECT_EQ(Cli::editDistance("kitten", "sitting"), 3u);
  EXPECT_EQ(Cli::editDistance("same", "same"), 0u);
}

// A missing field gets the command that makes it, else the fields there are; other failures
// get nothing added.
TEST(Advice, NamesTheMakerOrTheFields) {
  const auto grid = cloud({1, 2}, {}, 2);
  EXPECT_EQ(Cli::advice("ERROR: no f_normalvector", *grid),
            " (it needs \"NormalVector\": run quorvel shapefactors --normals first; the fields "
            "there are: Positions, Classification)");
  EXPECT_EQ(Cli::advice("Selection: ERROR: no numeric f_Z", *grid),
            " (the fields there are: Positions, Classification)");
  EXPECT_EQ(Cli::advice("ERROR: no m_vertices", *grid), "");
  EXPECT_EQ(Cli::advice("the raster could not be mapped", *grid), "");
}

// {option name: help} of every option of every command.
std::map<std::string, std::vector<std::string>> commandOptions() {
  std::map<std::string, std::vector<std::string>> options;
  for (const Cli::CommandEntry& entry : Cli::commands()) {
    CLI::App app;
    auto command = entry.make();
    command->addOptions(app);
    for (const CLI::Option* option : app.get_options())
      for (const std::string& name : option->get_lnames())
        options["--" + name].push_back(option->get_description());
  }
  return options;
}

template <class Box>
void expectOptionsBound(const std::map<std::string, std::vector<std::string>>& options) {
  forEachField<Box>([&](const auto& described) {
    if (described.cliOption.empty())
      return;
    const auto found = options.find(std::string(described.cliOption));
    ASSERT_NE(found, options.end()) << Box::fields().name << "::" << described.name;
    EXPECT_NE(std::find(found->second.begin(), found->second.end(), described.cliHelp),
              found->second.end())
        << Box::fields().name << "::" << described.name;
  });
}

// A field whose description names an option reaches the command line with the described help:
// a description edited without the command that binds the field shows here.
TEST(DescribedFields, EveryDescribedOptionIsACommandsOption) {
  const auto options = commandOptions();
  expectOptionsBound<ShapeFactorComputationParameterBox>(options);
  expectOptionsBound<PointCloudReductionParameterBox>(options);
  expectOptionsBound<PointCloudSizeReductionParameterBox>(options);
  expectOptionsBound<ComputeNeighboursParameterBox>(options);
  expectOptionsBound<RenderParameterBox>(options);
  expectOptionsBound<CropParameterBox>(options);
  expectOptionsBound<OutlierParameterBox>(options);
  expectOptionsBound<ThinParameterBox>(options);
  expectOptionsBound<ReprojectionParameterBox>(options);
  expectOptionsBound<MapRasterOnPointCloudParameterBox>(options);
  expectOptionsBound<GroundRasterParameterBox>(options);
  expectOptionsBound<SurfaceParameterBox>(options);
  expectOptionsBound<PlanarRegressionParameterBox>(options);
  expectOptionsBound<ExtrapolationParameterBox>(options);
  expectOptionsBound<GroundFilterParameterBox>(options);
  expectOptionsBound<ClassificationTransferParameterBox>(options);
  expectOptionsBound<SelectionParameterBox>(options);
  expectOptionsBound<FieldAssignmentParameterBox>(options);
}

} // namespace
