// SPDX-License-Identifier: BSD-3-Clause
// quorvel thin: fewer points, by voxel (one per cube), at random (a seeded fraction) or every
// N-th point in file order.
#include "cli/commands/command.hpp"
#include "quorvel/filters/filters.hpp"

namespace Quorvel::Cli {

namespace {

class Thin final : public CloudCommand {
public:
  Thin() : CloudCommand("thin") {}

  void addStageOptions(CLI::App& app) override {
    using Box = ThinParameterBox;
    voxel_ = addField(app, box_, &Box::voxel, Default::Hidden);
    addField(app, box_, &Box::keep)->needs(voxel_);
    random_ = addField(app, box_, &Box::fraction, Default::Hidden);
    addField(app, box_, &Box::seed)->needs(random_);
    every_ = addField(app, box_, &Box::every, Default::Hidden);
    voxel_->excludes(random_)->excludes(every_);
    random_->excludes(every_);
  }

  void apply(Cloud& cloud, const Host& host) override { keep(cloud, keptPoints(cloud, host)); }
  std::optional<std::set<std::string>> fieldsForKeeping() const override {
    return std::set<std::string>{}; // the positions alone
  }

  std::optional<KeptPoints> keptPoints(Cloud& cloud, const Host& host) override {
    if (voxel_->count() + random_->count() + every_->count() == 0)
      throw Error("thin: give one of --voxel, --random and --every");
    box_.mode = voxel_->count() ? "voxel" : (random_->count() ? "random" : "every");
    box_.message.clear();
    std::optional<KeptPoints> kept;
    host.run("thin", pointCount(*cloud.grid), [&] { kept = keptByThin(cloud.grid, box_); });
    if (!kept)
      throw Error("thin: " + box_.message);
    return kept;
  }

private:
  ThinParameterBox box_;
  CLI::Option *voxel_ = nullptr, *random_ = nullptr, *every_ = nullptr;
};

} // namespace

std::unique_ptr<Command> makeThin() {
  return std::make_unique<Thin>();
}

} // namespace Quorvel::Cli
