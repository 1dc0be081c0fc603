// SPDX-License-Identifier: BSD-3-Clause
// quorvel outliers: isolated points by the statistical or the radius rule, classified (class 7,
// low noise, by default) or removed.
#include "basalt/text.hpp"
#include "cli/commands/command.hpp"
#include "quorvel/filters/filters.hpp"

namespace Quorvel::Cli {

namespace {

constexpr const char* Footer =
    "statistical: d_i is the mean distance from point i to its K nearest other points; mu and "
    "sigma are the mean and the standard deviation (over n) of d_i over all n points; i is an "
    "outlier when d_i > mu + M * sigma.\n"
    "radius: i is an outlier when fewer than N other points lie within R of it (distance <= R, "
    "in x, y and z).\n"
    "Outliers get --classify's class unless --remove drops them. Every point is a neighbour, and "
    "no result depends on --threads.";

class Outliers final : public CloudCommand {
public:
  Outliers() : CloudCommand("outliers") {}

  void addStageOptions(CLI::App& app) override {
    using Box = OutlierParameterBox;
    addField(app, box_, &Box::method);
    addField(app, box_, &Box::neighbours);
    addField(app, box_, &Box::multiplier);
    addField(app, box_, &Box::radius);
    addField(app, box_, &Box::minPoints);
    CLI::Option* classify = addField(app, box_, &Box::classify);
    addField(app, box_, &Box::remove)->excludes(classify);
    addExpression(app, "--where", box_.where,
                  "test only the points for which an expression holds (docs/expressions.md); "
                  "every point stays a neighbour");
    threads_ = addThreads(app, box_.threads);
    app.footer(Footer);
  }

  // Classifying without --where, positions and classes are all it reads, classes all it changes.
  // A class above 31 may need a newer point format than the file's, and so the whole cloud.
  bool changesOnlyClasses() const override {
    return !box_.remove && box_.where.empty() && box_.classify < 32;
  }

  // Removing, the points kept are all it decides: alone on a LAS file, the positions and the
  // fields of --where are all it reads, and the kept records are copied.
  std::optional<std::set<std::string>> fieldsForKeeping() const override {
    return box_.remove ? fieldsOf(box_.where) : std::nullopt;
  }

  std::optional<KeptPoints> keptPoints(Cloud& cloud, const Host& host) override {
    if (!box_.remove)
      return std::nullopt;
    std::optional<KeptPoints> kept;
    run(cloud, host, [&] {
      kept = keptByOutliers(cloud.grid, box_);
      return kept.has_value();
    });
    return kept;
  }

  void apply(Cloud& cloud, const Host& host) override {
    if (box_.remove)
      return keep(cloud, keptPoints(cloud, host));
    Basalt::StrongPtr<Tressel::Grid> out;
    run(cloud, host, [&] {
      out = filterOutliers(cloud.grid, box_);
      return out != nullptr;
    });
    cloud.grid = out;
  }

private:
  // step() on the run's threads, which says whether it found the outliers; throws Error with the
  // library's message when it did not, else notes how many there are.
  template <class Step>
  void run(const Cloud& cloud, const Host& host, const Step& step) {
    applyCommonThreads(threads_, host, box_.threads);
    box_.message.clear();
    bool done = false;
    host.run("outliers", pointCount(*cloud.grid), [&] { done = step(); });
    if (!done)
      throw Error("outliers: " + box_.message);
    host.note(
        Basalt::format("outliers: %zu of %zu points", box_.outliers, pointCount(*cloud.grid)));
  }

  OutlierParameterBox box_;
  CLI::Option* threads_ = nullptr;
};

} // namespace

std::unique_ptr<Command> makeOutliers() {
  return std::make_unique<Outliers>();
}

} // namespace Quorvel::Cli
