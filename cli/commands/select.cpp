// SPDX-License-Identifier: BSD-3-Clause
// quorvel select: the points whose value in one field lies in value ranges (or outside them), or
// for which an expression holds, with all their fields; --count prints how many instead of (or
// besides) writing them.
#include "cli/commands/command.hpp"
#include "quorvel/selection/selection.hpp"

#include <cstdio>

namespace Quorvel::Cli {

namespace {

class Select final : public CloudCommand {
public:
  Select() : CloudCommand("select") {}

  void addStageOptions(CLI::App& app) override {
    using Box = SelectionParameterBox;
    addField(app, box_, &Box::fieldname);
    addField(app, box_, &Box::selection);
    addExpression(app, "--where", box_.where,
                  "the points for which an expression holds (docs/expressions.md), e.g. "
                  "\"Classification == 2 && Z > 300\"; with --range, both must hold");
    addField(app, box_, &Box::inverse);
    addField(app, box_, &Box::coordinate);
    app.add_flag("--count", count_, "print how many points are selected (on standard output)");
  }

  void apply(Cloud& cloud, const Host& host) override { keep(cloud, keptPoints(cloud, host)); }
  // A run that prints its count reads the whole cloud, so that a second try never prints it twice.
  std::optional<std::set<std::string>> fieldsForKeeping() const override {
    auto fields = count_ ? std::nullopt : fieldsOf(box_.where);
    if (fields && !box_.selection.empty())
      fields->insert(box_.fieldname);
    return fields;
  }

  std::optional<KeptPoints> keptPoints(Cloud& cloud, const Host& host) override {
    if (box_.selection.empty() && box_.where.empty())
      throw CLI::RequiredError("--range or --where");
    box_.message.clear();
    std::optional<KeptPoints> kept;
    host.run("select", pointCount(*cloud.grid), [&] { kept = keptBySelection(cloud.grid, box_); });
    if (!kept)
      throw Error("select: " + box_.message);
    if (count_) {
      std::size_t n = 0;
      for (const auto& indices : kept->indices)
        n += indices.size();
      std::printf("%zu\n", n);
    }
    return kept;
  }

protected:
  bool outputRequired() const override { return false; }
  bool printsResult() const override { return count_; }
  std::string resultOptions() const override { return "--output or --count"; }

private:
  SelectionParameterBox box_;
  bool count_ = false;
};

} // namespace

std::unique_ptr<Command> makeSelect() {
  return std::make_unique<Select>();
}

} // namespace Quorvel::Cli
