// SPDX-License-Identifier: BSD-3-Clause
// quorvel assign: values given to fields at the points where an expression holds; fields made
// on request (0 elsewhere).
#include "cli/commands/command.hpp"
#include "quorvel/selection/selection.hpp"

#include "tressel/element_types.hpp"

namespace Quorvel::Cli {

namespace {

// FIELD=VALUE with a VALUE that parses, checked when the option is read.
std::string checkedItem(const std::string& item) {
  const auto equals = item.find('=');
  if (equals == std::string::npos || equals == 0)
    return "\"" + item + "\" is not FIELD=VALUE";
  const Expression value(item.substr(equals + 1));
  return value.error().empty() ? "" : "\"" + item + "\": the value: " + value.error();
}

// FIELD:TYPE with a type of plain numbers, checked when the option is read.
std::string checkedCreation(const std::string& item) {
  const auto colon = item.rfind(':');
  const auto kind = colon == std::string::npos ? Tressel::ScalarKind::Opaque
                                               : Tressel::plainScalar(item.substr(colon + 1));
  if (colon == 0 || kind == Tressel::ScalarKind::Opaque || kind == Tressel::ScalarKind::Float80)
    return "\"" + item +
           "\" is not FIELD:TYPE with TYPE one of int8, uint8, int16, uint16, int32, uint32, "
           "int64, uint64, float32, float64";
  return "";
}

class Assign final : public CloudCommand {
public:
  Assign() : CloudCommand("assign") {}

  void addStageOptions(CLI::App& app) override {
    addExpression(app, "--where", box_.where,
                  "the points that change: an expression (docs/expressions.md), e.g. "
                  "\"Classification == 1 && Z < 200\"; without it every point");
    app.add_option("--set", box_.set,
                   "FIELD=VALUE, VALUE a number or an expression of the fields (all evaluated "
                   "before any is set); repeatable")
        ->required()
        ->check(CLI::Validator(checkedItem, "FIELD=VALUE"));
    app.add_option("--create", box_.create,
                   "FIELD:TYPE, a field made first, 0 at every point (TYPE as quorvel info "
                   "prints it: uint8, int32, float32, ...); repeatable")
        ->check(CLI::Validator(checkedCreation, "FIELD:TYPE"));
  }

  void apply(Cloud& cloud, const Host& host) override {
    box_.message.clear();
    std::string report;
    host.run("assign", pointCount(*cloud.grid), [&] { report = assignFields(cloud.grid, box_); });
    if (!box_.message.empty())
      throw Error("assign: " + box_.message);
    host.note("quorvel assign: " + report);
  }

private:
  FieldAssignmentParameterBox box_;
};

} // namespace

std::unique_ptr<Command> makeAssign() {
  return std::make_unique<Assign>();
}

} // namespace Quorvel::Cli
