// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: the shape of a command. Each command lives in one file of cli/commands/ and is
// listed once in the table of commands.cpp.
#pragma once

#include "cli/checks.hpp"
#include "cli/host.hpp"
#include "quorvel/core/kept.hpp"
#include "quorvel/features/features.hpp"
#include "vantor/multi_range.hpp"
#include "vantor/physical_space.hpp"

// CLI11's App and Option alone: the whole library (CLI/CLI.hpp) also brings its help formatter,
// its configuration files and global validators, compiled again into every file that includes
// them, about 40% of a command's build time. Only the files that make and parse an App include it.
#include <CLI/App.hpp>

#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Quorvel::Cli {

// A command: its options, bound straight to the fields of a default-built parameter box (so that
// defaults and help text come from the box), and its run.
class Command {
public:
  virtual ~Command() = default;
  // Adds the command's options and operands to its sub-application.
  virtual void addOptions(CLI::App& app) = 0;
  // Runs the command once its options are parsed; returns the exit code.
  virtual int run(const Host& host) = 0;
  // For a command that does not change a cloud but can run as a pipeline stage beside one (dtm
  // makes a raster), that stage; empty otherwise.
  virtual std::unique_ptr<class CloudCommand> stage() const { return nullptr; }
};

// A command that changes a loaded cloud. Alone it reads IN (or what inputName() calls it),
// changes the cloud and writes -o OUT; in a pipeline it is one stage on the pipeline's cloud.
class CloudCommand : public Command {
public:
  explicit CloudCommand(std::string name) : name_(std::move(name)) {}

  // The options of the change itself: all a pipeline stage may set.
  virtual void addStageOptions(CLI::App& app) = 0;
  // Options naming files that must exist before anything runs (or that a stage before makes).
  virtual std::vector<const CLI::Option*> inputFiles() const { return {}; }
  // Files a stage makes beside the cloud (rasters in Cloud::rasters), by their names.
  virtual std::vector<std::string> outputFiles() const { return {}; }
  // Changes the cloud; throws Error on failure.
  virtual void apply(Cloud& cloud, const Host& host) = 0;
  // For a command that keeps some of the points and changes nothing else (with the options
  // given): the points it keeps, worked out on the cloud; it throws as apply() does, and apply()
  // is then keep() of them. Alone on a LAS file, the host then copies the kept records straight
  // into the output, which costs less than copying every field and encoding the records again.
  // nullopt: the command changes the points, and apply() runs.
  virtual std::optional<KeptPoints> keptPoints(Cloud&, const Host&) { return std::nullopt; }
  // For a command that keeps points (keptPoints), with the options given: the fields besides the
  // positions that choosing them reads. Alone on a LAS file whose records can be copied, the host
  // then reads only those before it copies the kept records. nullopt: the whole cloud is read.
  virtual std::optional<std::set<std::string>> fieldsForKeeping() const { return std::nullopt; }
  // For a command that, with the options given, reads the positions and classes of the points
  // alone and changes their classes alone: alone on a LAS file, the host then reads only those
  // and writes the output by copying the input's records with their new classes.
  virtual bool changesOnlyClasses() const { return false; }
  // Whether a run alone will surely open the GDAL module (polygons, coordinate transforms): it
  // is then opened on a thread of its own while the cloud is read.
  virtual bool opensGdal() const { return false; }

  void addOptions(CLI::App& app) final;
  int run(const Host& host) final;
  // apply(), with what a user can do added to a failure's message (the command that makes a
  // missing field, or the fields there are).
  void change(Cloud& cloud, const Host& host);

protected:
  // False for a command that may run for what it prints alone (then -o is optional).
  virtual bool outputRequired() const { return true; }
  // Once parsed, whether such a command prints a result; without it and without -o a run would
  // leave nothing, and is refused naming what it needs.
  virtual bool printsResult() const { return false; }
  virtual std::string resultOptions() const { return "--output"; }
  // Operands that follow the input on the command line (quorvel map CLOUD RASTER).
  virtual void addOperandsAfterInput(CLI::App&) {}
  // True for a command with a second form that reads and writes files itself (map --files):
  // IN and -o are then optional, and runFiles() runs when IN is not given.
  virtual bool hasFilesForm() const { return false; }
  virtual int runFiles(const Host&) { return 0; }
  const std::string& input() const { return input_; }
  // True for a command whose result is a raster: -o may then name a GeoTIFF as well.
  virtual bool writesRasters() const { return false; }
  // The cloud of the kept points; throws Error naming the command on a field without arrays.
  void keep(Cloud& cloud, const std::optional<KeptPoints>& kept) const;
  // What the operand of the cloud to change is called in the help.
  virtual std::string inputName() const { return "IN"; }
  const std::string& name() const { return name_; }

private:
  // step() with what a user can do added to an Error's message (the command that makes a
  // missing field, or the fields there are).
  template <class Step>
  auto advised(const Cloud& cloud, const Step& step) -> decltype(step());
  // Whether a run alone may write the kept points by copying the records of IN: a plain LAS
  // file in, read whole in one fragment, LAS or LAZ out with its scale and offset.
  bool copiesRecords(const Host& host, const Cloud& cloud) const;
  // The run of a command that changes only classes, reading positions and classes alone and
  // copying the records; false, with nothing written, where the records cannot pass (a class the
  // input's format cannot hold) or the change fails: the run then starts again on the whole
  // cloud.
  bool copiedWithClasses(const Host& host);
  // The run of a command that keeps points, reading only the fields that choosing them reads and
  // copying the kept records; false, with nothing written, where the records cannot be copied or
  // the choice fails: the run then starts again on the whole cloud.
  bool copiedKept(const Host& host);
  // Writes the kept points of a cloud of one fragment by copying their records from IN, with the
  // run's summary; false where the records cannot be copied.
  bool wroteKept(const Host& host, const KeptPoints& kept, const Cloud& cloud) const;

  std::string name_;
  std::string input_, output_;
  Las::WriteOptions write_;
};

// One entry of the table of commands.
struct CommandEntry {
  const char* name;
  const char* help;
  std::function<std::unique_ptr<Command>()> make;
};

// Every command of the host, in the order of the help.
const std::vector<CommandEntry>& commands();

// The factories, one per file of cli/commands/.
std::unique_ptr<Command> makeInfo();
std::unique_ptr<Command> makeConvert();
std::unique_ptr<Command> makeCompare();
std::unique_ptr<Command> makeTransfer();
std::unique_ptr<Command> makeCellSize();
std::unique_ptr<Command> makeDate();
std::unique_ptr<Command> makePipeline();
// Reads and checks a pipeline file as `quorvel pipeline` does before anything runs; throws
// Error naming the file and the element.
void checkPipeline(const std::string& path);
std::unique_ptr<Command> makeGround();
std::unique_ptr<Command> makeRegress();
std::unique_ptr<Command> makeRelHeight();
std::unique_ptr<Command> makeShapeFactors();
std::unique_ptr<Command> makeWeights();
std::unique_ptr<Command> makeReduce();
std::unique_ptr<Command> makeSelect();
std::unique_ptr<Command> makeAssign();
std::unique_ptr<Command> makeExtrapolate();
std::unique_ptr<Command> makeMap();
std::unique_ptr<Command> makeRaster();
std::unique_ptr<Command> makeDtm();
// dsm, chm and density (surfaces.cpp).
std::unique_ptr<Command> makeDsm();
std::unique_ptr<Command> makeChm();
std::unique_ptr<Command> makeDensity();
std::unique_ptr<Command> makeMapField();
std::unique_ptr<Command> makeTile();
std::unique_ptr<Command> makeMerge();
std::unique_ptr<Command> makeIndex();
std::unique_ptr<Command> makeCatalog();
std::unique_ptr<Command> makeRender();
std::unique_ptr<Command> makeCrop();
std::unique_ptr<Command> makeOutliers();
std::unique_ptr<Command> makeThin();
std::unique_ptr<Command> makeReproject();

// The options of shape factors and of reduction weights, shared by the commands that compute
// them (reduce computes both when a cloud has no weights yet), and their runs; a run's messages
// become an Error.
void addShapeFactorOptions(CLI::App& app, ShapeFactorComputationParameterBox& box);
void computeShapeFactors(Cloud& cloud, const Host& host, ShapeFactorComputationParameterBox& box);
void addWeightOptions(CLI::App& app, PointCloudReductionParameterBox& box);
void computeWeights(Cloud& cloud, const Host& host, PointCloudReductionParameterBox& box);

// ---- Binding helpers for parameter-box fields ---------------------------------------------

// Runs step; a library error (std::runtime_error that is not already an Error) becomes an Error
// naming the file it concerns.
void aboutFile(const std::string& path, const std::function<void()>& step);

// A range as a user types it: "2", "0:255", "-0.2:0.2,9" (the library's own text has six
// decimals).
std::string typedRange(const Vantor::MultiRange<double>& range);
// Says on standard error that a run has nothing to do when no point's "Classification" lies in
// classes (the seeds of a growing run, named by option): the run then changes nothing.
void warnWithoutSeeds(const std::string& command, const Tressel::Grid& grid,
                      const Vantor::MultiRange<double>& classes, const std::string& option);
// A MultiRange field set from its text form ("2:5,9").
CLI::Option* addRange(CLI::App& app, const std::string& name, Vantor::MultiRange<double>& range,
                      const std::string& help);
// The fields an expression reads (X, Y and Z among them), none for an empty one; nullopt for
// one that does not parse.
std::optional<std::set<std::string>> fieldsOf(const std::string& expression);
// An expression field (docs/expressions.md), its syntax checked when the option is read.
CLI::Option* addExpression(CLI::App& app, const std::string& name, std::string& text,
                           const std::string& help);
// A vector field set from "X,Y,Z".
CLI::Option* addVector(CLI::App& app, const std::string& name, Vantor::PhysicalSpace::vector& v,
                       const std::string& help);
// --dimension in one vocabulary for every command: 2, 3, 2D or 3D, kept in the box's own form
// (a number, or the text "2D"/"3D").
CLI::Option* addDimension(CLI::App& app, int& dimension, const std::string& help);
CLI::Option* addDimension(CLI::App& app, std::string& dimension, const std::string& help);

// Whether an option's help shows its default: hidden where the default is not what a run takes
// (an option that chooses a mode when given).
enum class Default { Shown, Hidden };

// addField's work once the field is found; throws std::logic_error for a field whose
// description has no option (a programming error).
template <class T>
CLI::Option* addDescribed(CLI::App& app, std::string_view box, std::string_view field,
                          std::string_view option, std::string_view help, T& value, Default shown) {
  if (option.empty())
    throw std::logic_error(std::string(box) + "::" + std::string(field) + " has no option");
  const std::string name(option), text(help);
  if constexpr (std::is_same_v<T, bool>) {
    return app.add_flag(name, value, text);
  } else if constexpr (std::is_same_v<T, Vantor::MultiRange<double>>) {
    return addRange(app, name, value, text);
  } else {
    CLI::Option* added = app.add_option(name, value, text);
    bool unset = false;
    if constexpr (std::is_floating_point_v<T>)
      unset = std::isnan(value);
    if (shown == Default::Shown && !unset)
      added->capture_default_str();
    if (Checks::checkOf(box, field))
      added->check(boxRule(box, field));
    return added;
  }
}

// The option that a box's description (quorvel/core/fields.hpp) gives one of its fields, with
// the description's name and help: a switch for a bool, a range text for a MultiRange (addRange),
// else a value with its default shown (unless NaN, "not set", or hidden) and the checks table's
// rule for the field, if it has one. Options are bound one field at a time so that each command
// keeps the order of its help.
template <class Box, class T>
CLI::Option* addField(CLI::App& app, Box& box, T Box::*member, Default shown = Default::Shown) {
  CLI::Option* added = nullptr;
  forEachField<Box>([&](const auto& described) {
    if (describes(described, member))
      added = addDescribed(app, Box::fields().name, described.name, described.cliOption,
                           described.cliHelp, box.*member, shown);
  });
  return added;
}

// A box's thread count: set by --threads after the command name, or by the common --threads
// before it.
CLI::Option* addThreads(CLI::App& app, std::int32_t& threads);
// Applies the common --threads to a box's thread count unless the command's own option (own)
// was given.
void applyCommonThreads(const CLI::Option* own, const Host& host, std::int32_t& threads);

} // namespace Quorvel::Cli
