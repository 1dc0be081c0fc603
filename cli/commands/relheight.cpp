// SPDX-License-Identifier: BSD-3-Clause
// quorvel relheight: every point's height above the lowest point of its square x-y neighbourhood
// ("RelativeHeight", float) and the share of that square's points below it ("RelativeBelows",
// 0 to 255), fragment by fragment.
#include "cli/commands/command.hpp"
#include "quorvel/terrain/terrain.hpp"

#include <optional>

namespace Quorvel::Cli {

namespace {

class RelHeight final : public CloudCommand {
public:
  RelHeight() : CloudCommand("relheight") {}

  void addStageOptions(CLI::App& app) override {
    app.add_option("--half-width", halfWidth_,
                   "half the side of the square x-y neighbourhood, in metres")
        ->check(boxRule("relativeHeightAndBelows", "squareHalfWidth"))
        ->required();
    app.add_option_function<std::string>(
        "--classes",
        [this](const std::string& text) {
          checkRange("--classes", text);
          classes_.emplace(text);
        },
        "only these classes take part in the height (class numbers); class 4 gets no below "
        "value");
    app.footer("Writes \"RelativeHeight\" (float, metres above the lowest point of the square) "
               "and \"RelativeBelows\" (byte: the share of the square's points strictly below "
               "the point, scaled to 0..254 as int(share * 255); 255 where the square holds no "
               "point; points of class 4 keep 0 with --classes).");
  }

  void apply(Cloud& cloud, const Host& host) override {
    std::string message;
    host.run("relheight", pointCount(*cloud.grid), [&] {
      message = relativeHeightAndBelows(cloud.grid, halfWidth_, classes_ ? &*classes_ : nullptr);
    });
    if (!message.empty())
      throw Error("relheight: " + message);
  }

private:
  double halfWidth_ = Tressel::RelativeHeightBox().squareHalfWidth;
  std::optional<Vantor::MultiRange<double>> classes_;
};

} // namespace

std::unique_ptr<Command> makeRelHeight() {
  return std::make_unique<RelHeight>();
}

} // namespace Quorvel::Cli
