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
    const auto rule = [](const char* field) { return boxRule("ThinParameterBox", field); };
    voxel_ = app.add_option("--voxel", box_.voxel,
                            "one point per cube of this side; cubes at multiples of it from the "
                            "coordinate origin")
                 ->check(rule("voxel"));
    app.add_option("--keep", box_.keep,
                   "the point a cube keeps: first (in file order), lowest, highest, centre "
                   "(nearest the cube's centre); ties go to the first")
        ->capture_default_str()
        ->check(rule("keep"))
        ->needs(voxel_);
    random_ =
        app.add_option("--random", box_.fraction, "keep each point with this probability (0 to 1)")
            ->check(rule("fraction"));
    app.add_option("--seed", box_.seed,
                   "seed of --random: point i in file order is kept when the i-th number of the "
                   "SplitMix64 sequence from the seed, over 2^64, is below the fraction")
        ->capture_default_str()
        ->needs(random_);
    every_ = app.add_option("--every", box_.every, "keep the 1st, (N+1)th, 2N+1th, ... point")
                 ->check(rule("every"));
    voxel_->excludes(random_)->excludes(every_);
    random_->excludes(every_);
  }

  void apply(Cloud& cloud, const Host& host) override {
    if (voxel_->count() + random_->count() + every_->count() == 0)
      throw Error("thin: give one of --voxel, --random and --every");
    box_.mode = voxel_->count() ? "voxel" : (random_->count() ? "random" : "every");
    box_.message.clear();
    Basalt::StrongPtr<Tressel::Grid> kept;
    host.run("thin", pointCount(*cloud.grid), [&] { kept = thin(cloud.grid, box_); });
    if (!kept)
      throw Error("thin: " + box_.message);
    cloud.grid = kept;
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
