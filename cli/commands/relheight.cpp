// quorvel relheight: every point's height above the lowest point of its square x-y neighbourhood
// ("RelativeHeight", float) and the share of that square's points below it ("RelativeBelows",
// 0 to 255), fragment by fragment.
#include "cli/commands/command.hpp"
#include "quorvel/core/core.hpp"
#include "quorvel/terrain/terrain.hpp"

#include <optional>

namespace Quorvel::Cli {

namespace {

class RelHeight final : public CloudCommand {
public:
  RelHeight() : CloudCommand("relheight") {}

  void addStageOptions(CLI::App& app) override {
    app.add_option("--half-width", height_.squareHalfWidth, "half the side of the square")
        ->check(positiveNumber())
        ->required()
        ->check(CLI::PositiveNumber);
    app.add_option_function<std::string>(
        "--classes", [this](const std::string& text) { classes_.emplace(text); },
        "only these classes take part in the height; class 4 gets no below value");
  }

  void apply(Cloud& cloud, const Host& host) override {
    const StrongPtr<Grid>& grid = cloud.grid;
    const StrongPtr<Field> positions = grid->CartesianPositions();
    if (!positions)
      throw Error("relheight: the cloud has no positions");
    StrongPtr<Field> classes;
    if (classes_ && !(classes = findOptionalField(grid, "Classification")))
      throw Error("relheight: --classes needs a \"Classification\" field");
    const StrongPtr<Field> heights = outputField<float>(grid, "RelativeHeight");
    const StrongPtr<Field> belows = outputField<unsigned char>(grid, "RelativeBelows");
    if (!heights || !belows)
      throw Error("relheight: \"RelativeHeight\" or \"RelativeBelows\" exists with another type");
    Tressel::RelativeBelowsBox below;
    below.squareHalfWidth = height_.squareHalfWidth;

    host.run("relheight", pointCount(*grid), [&] {
      for (const FragmentSlot& slot : fragmentsOf(*positions)) {
        const auto xyz = fragmentArray<point>(*positions, slot);
        const auto bbox = xyz ? fragmentBBox(slot) : nullptr;
        if (!bbox)
          continue; // nothing to compute: no positions, or none of them finite
        const auto cls = classes ? fragmentArray<unsigned char>(*classes, slot) : nullptr;
        if (classes && (!cls || cls->size() != xyz->size()))
          throw Error("relheight: a fragment has no class of every point");
        FragmentOutput<float> h(heights, slot.id, xyz->size());
        FragmentOutput<unsigned char> b(belows, slot.id, xyz->size());
        if (cls) {
          height_.compute(h.view(), xyz->view(), cls->view(), *classes_, bbox);
          below.compute(b.view(), xyz->view(), cls->view(), bbox);
        } else {
          height_.compute(h.view(), xyz->view(), bbox);
          below.compute(b.view(), xyz->view(), bbox);
        }
        h.commit();
        b.commit();
      }
    });
  }

private:
  Tressel::RelativeHeightBox height_;
  std::optional<MultiRange<double>> classes_;
};

} // namespace

std::unique_ptr<Command> makeRelHeight() {
  return std::make_unique<RelHeight>();
}

} // namespace Quorvel::Cli
