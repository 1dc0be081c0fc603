// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: what every command shares: the cloud-changing command's run and the binding of
// box fields to options.
#include "cli/commands/command.hpp"

#include "cli/advice.hpp"
#include "cli/checks.hpp"

#include "basalt/text.hpp"
#include "io/raster.hpp"
#include "quorvel/core/core.hpp"
#include "quorvel/selection/selection.hpp"
#include "tressel/representation.hpp"

#include <array>
#include <cstdio>
#include <new>
#include <optional>

namespace Quorvel::Cli {

void CloudCommand::addOptions(CLI::App& app) {
  addStageOptions(app);
  auto* input =
      app.add_option(inputName(), input_, "the point cloud to change (LAS, LAZ or bundle)");
  addOperandsAfterInput(app);
  auto* output = app.add_option("-o,--output", output_,
                                writesRasters() ? "where to write the result (bundle or GeoTIFF)"
                                                : "where to write the result (LAS, LAZ or bundle)")
                     ->check(writesRasters() ? rasterOutputFile() : outputFile());
  if (!hasFilesForm())
    input->required();
  if (outputRequired() && !hasFilesForm())
    output->required();
  addWriteOptions(app, write_);
}

int CloudCommand::run(const Host& host) {
  if (hasFilesForm() && input_.empty())
    return runFiles(host);
  if (output_.empty() && !printsResult())
    throw CLI::RequiredError(resultOptions());
  if (Files::isStream(output_) && printsResult())
    throw CLI::ValidationError("--output", "- (standard output) holds the LAS file alone, so it "
                                           "does not go with what the command prints");
  if (!output_.empty())
    checkOutput(output_);
  const Raster::OpenedAhead modules(opensGdal() || Files::isGeoTiff(output_),
                                    Files::isBundle(input_) || Files::isBundle(output_));
  const bool canPass = recordsCanPass(input_, output_, write_, host.common());
  if (canPass && changesOnlyClasses() && copiedWithClasses(host))
    return 0;
  if (canPass && fieldsForKeeping() && copiedKept(host))
    return 0;
  Cloud cloud = host.load(input_);
  const auto kept = copiesRecords(host, cloud)
                        ? advised(cloud, [&] { return keptPoints(cloud, host); })
                        : std::nullopt;
  if (kept) {
    if (wroteKept(host, *kept, cloud))
      return 0;
    keep(cloud, kept);
  } else {
    change(cloud, host);
  }
  if (!output_.empty())
    host.save(output_, cloud, write_);
  host.summary(name_, *cloud.grid);
  return 0;
}

template <class Step>
auto CloudCommand::advised(const Cloud& cloud, const Step& step) -> decltype(step()) {
  const auto grid = cloud.grid;
  try {
    return step();
  } catch (const Error& e) {
    throw Error(e.what() + advice(e.what(), *grid));
  }
}

void CloudCommand::change(Cloud& cloud, const Host& host) {
  advised(cloud, [&] { apply(cloud, host); });
}

void CloudCommand::keep(Cloud& cloud, const std::optional<KeptPoints>& kept) const {
  std::string message;
  Quorvel::Messages log(name_ + ": ", &message);
  auto grid = Quorvel::keptCloud(*cloud.grid, kept, log);
  if (!grid)
    throw Error(name_ + ": " + message);
  cloud.grid = std::move(grid);
}

bool CloudCommand::copiesRecords(const Host& host, const Cloud& cloud) const {
  return recordsCanPass(input_, output_, write_, host.common()) &&
         !Quorvel::findOptionalField(cloud.grid, "PointIndex") &&
         cloud.grid->CartesianPositions() && cloud.grid->CartesianPositions()->nFragments() == 1;
}

bool CloudCommand::copiedWithClasses(const Host& host) {
  Cloud cloud = host.load(input_, {"Classification"});
  if (!copiesRecords(host, cloud))
    return false;
  try {
    change(cloud, host);
  } catch (const Error&) {
    return false; // said again by the run on the whole cloud, with the fields it has
  }
  const auto field = Quorvel::findOptionalField(cloud.grid, "Classification");
  const auto slots = field ? fragmentsOf(*field) : std::vector<FragmentSlot>{};
  const auto classes = slots.size() == 1 ? fragmentArray<unsigned char>(*field, slots[0]) : nullptr;
  if (!classes || !host.copyRecordsWithClasses(input_, {classes->data(), classes->size()}, output_))
    return false;
  host.summary(name_, *cloud.grid);
  return true;
}

bool CloudCommand::copiedKept(const Host& host) {
  // The positions named too: a read given no name reads every field.
  std::set<std::string> fields = *fieldsForKeeping();
  fields.insert(Tressel::PositionsFieldName);
  Cloud cloud = host.load(input_, fields);
  if (!copiesRecords(host, cloud))
    return false;
  std::optional<KeptPoints> kept;
  try {
    kept = keptPoints(cloud, host);
  } catch (const Error&) {
    return false; // said again by the run on the whole cloud, with the fields it has
  }
  return kept && wroteKept(host, *kept, cloud);
}

bool CloudCommand::wroteKept(const Host& host, const KeptPoints& kept, const Cloud& cloud) const {
  if (kept.indices.size() != 1 ||
      !host.copyRecords(input_, kept.indices.front(), pointCount(*cloud.grid), output_))
    return false;
  const std::size_t count = kept.indices.front().size();
  host.summary(name_, count, count == 0 ? "0 fragments" : "1 fragments");
  return true;
}

std::optional<std::set<std::string>> fieldsOf(const std::string& expression) {
  if (expression.empty())
    return std::set<std::string>{};
  const Expression parsed(expression);
  if (!parsed.error().empty())
    return std::nullopt;
  const auto fields = parsed.fields();
  return std::set<std::string>(fields.begin(), fields.end());
}

void aboutFile(const std::string& path, const std::function<void()>& step) {
  try {
    step();
  } catch (const Error&) {
    throw;
  } catch (const std::runtime_error& e) {
    throw Error(path + ": " + e.what());
  } catch (const std::bad_alloc&) {
    throw Error(path + ": out of memory while working on its points");
  }
}

std::string typedRange(const Vantor::MultiRange<double>& range) {
  std::string text;
  for (const auto& [low, high] : range.intervals)
    text += (text.empty() ? "" : ",") +
            (low == high ? Basalt::format("%g", low) : Basalt::format("%g:%g", low, high));
  return text;
}

void warnWithoutSeeds(const std::string& command, const Tressel::Grid& grid,
                      const Vantor::MultiRange<double>& classes, const std::string& option) {
  if (!grid(Tressel::StandardCartesianChart3D, "Classification"))
    return;
  for (unsigned char c : classesOf(grid, "Classification", command))
    if (classes.contains(c, 1e-9))
      return;
  std::fprintf(stderr,
               "quorvel %s: warning: no point has a class in %s %s, so there are no seeds and "
               "nothing changes (quorvel ground finds the ground of an unclassified cloud; "
               "quorvel info lists the classes there are)\n",
               command.c_str(), option.c_str(), typedRange(classes).c_str());
}

CLI::Option* addRange(CLI::App& app, const std::string& name, Vantor::MultiRange<double>& range,
                      const std::string& help) {
  return app
      .add_option_function<std::string>(
          name,
          [&range, name](const std::string& text) {
            checkRange(name, text);
            range = Vantor::MultiRange<double>(text);
          },
          help)
      ->default_str(typedRange(range));
}

CLI::Option* addExpression(CLI::App& app, const std::string& name, std::string& text,
                           const std::string& help) {
  return app.add_option_function<std::string>(
      name,
      [&text, name](const std::string& value) {
        const Expression parsed(value);
        if (!parsed.error().empty())
          throw CLI::ValidationError(name, "\"" + value + "\": " + parsed.error());
        text = value;
      },
      help);
}

CLI::Option* addVector(CLI::App& app, const std::string& name, Vantor::PhysicalSpace::vector& v,
                       const std::string& help) {
  return app
      .add_option_function<std::string>(
          name,
          [&v, name](const std::string& text) {
            const auto parts = Basalt::splitAt(text, ",");
            std::array<std::optional<double>, 3> xyz;
            for (std::size_t k = 0; k < 3 && parts.size() == 3; ++k)
              xyz[k] = finiteNumber(parts[k]);
            if (!xyz[0] || !xyz[1] || !xyz[2])
              throw CLI::ValidationError(name,
                                         "takes X,Y,Z of finite numbers, not \"" + text + "\"");
            v = {*xyz[0], *xyz[1], *xyz[2]};
          },
          help)
      ->default_str(Basalt::format("%g,%g,%g", v[0], v[1], v[2]));
}

namespace {

const std::string DimensionSpellings = "2|3|2D|3D";

// 2 or 3 from any spelling that oneOf(DimensionSpellings) let through.
int dimensionOf(const std::string& text) {
  return text.front() == '2' ? 2 : 3;
}

} // namespace

CLI::Option* addDimension(CLI::App& app, int& dimension, const std::string& help) {
  return app
      .add_option_function<std::string>(
          "--dimension", [&dimension](const std::string& text) { dimension = dimensionOf(text); },
          help + " (2, 3, 2D or 3D)")
      ->check(oneOf(DimensionSpellings))
      ->default_str(std::to_string(dimension));
}

CLI::Option* addDimension(CLI::App& app, std::string& dimension, const std::string& help) {
  return app
      .add_option_function<std::string>(
          "--dimension",
          [&dimension](const std::string& text) {
            dimension = dimensionOf(text) == 2 ? "2D" : "3D";
          },
          help + " (2, 3, 2D or 3D)")
      ->check(oneOf(DimensionSpellings))
      ->default_str(dimension);
}

CLI::Option* addThreads(CLI::App& app, std::int32_t& threads) {
  return app
      .add_option("--threads", threads,
                  "worker threads (0 or less, or more than the machine has: all but one)")
      ->capture_default_str();
}

void applyCommonThreads(const CLI::Option* own, const Host& host, std::int32_t& threads) {
  if (host.common().threads && own->count() == 0)
    threads = *host.common().threads;
}

} // namespace Quorvel::Cli
