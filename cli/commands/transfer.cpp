// SPDX-License-Identifier: BSD-3-Clause
// quorvel transfer: classes from a classified SOURCE cloud onto TARGET by nearest neighbours.
#include "cli/commands/command.hpp"
#include "quorvel/classification/classification.hpp"

namespace Quorvel::Cli {

namespace {

class Transfer final : public CloudCommand {
public:
  Transfer() : CloudCommand("transfer") {}

  void addStageOptions(CLI::App& app) override {
    source_ = app.add_option("SOURCE,--source", sourcePath_, "the classified cloud")->required();
    // The distance/class text builds the whole box, so it comes first: the options after it
    // then set their fields on the box it made.
    app.add_option_function<std::string>(
        "--bands",
        [this](const std::string& text) {
          checkBands("--bands", text);
          box_ = ClassificationTransferParameterBox(text);
        },
        "distance bands in metres and the class given within each, e.g. 1 (nearest source "
        "point's class within 1 m) or 0.5=2;1=3 (class 2 within 0.5 m, 3 within 1 m); classes 0 to "
        "255; left out: 0.001");
    addDimension(app, box_.dimension, "3: distances in x, y, z; 2: in x, y");
    using Box = ClassificationTransferParameterBox;
    addField(app, box_, &Box::source);
    addField(app, box_, &Box::target);
    addField(app, box_, &Box::unclassify);
    addVector(app, "--offset", box_.offset, "translation from source to target, X,Y,Z in metres");
    threads_ = addThreads(app, box_.threads);
    addField(app, box_, &Box::fieldname);
    app.add_flag("--old", old_, "run classificationTransferOLD");
    addField(app, box_, &Box::onetree);
    addField(app, box_, &Box::expand);
    addField(app, box_, &Box::maxradius);
    addField(app, box_, &Box::positions);
  }

  std::vector<const CLI::Option*> inputFiles() const override { return {source_}; }
  // The target's positions and classes are all it reads, its classes all it changes.
  bool changesOnlyClasses() const override {
    return box_.fieldname == "Classification" && !box_.positions;
  }

  void apply(Cloud& target, const Host& host) override {
    applyCommonThreads(threads_, host, box_.threads);
    // The source is only searched: its positions and classes are all it needs.
    const Cloud source = host.load(sourcePath_, {box_.fieldname});
    box_.sourcefilename = sourcePath_;
    std::string message;
    host.run("transfer", pointCount(*target.grid), [&] {
      message = old_ ? classificationTransferOLD(source.grid, target.grid, box_)
                     : classificationTransfer(source.grid, target.grid, box_);
    });
    if (!message.empty())
      throw Error("transfer: " + message);
  }

protected:
  std::string inputName() const override { return "TARGET"; }

private:
  ClassificationTransferParameterBox box_;
  std::string sourcePath_;
  bool old_ = false;
  const CLI::Option* source_ = nullptr;
  const CLI::Option* threads_ = nullptr;
};

} // namespace

std::unique_ptr<Command> makeTransfer() {
  return std::make_unique<Transfer>();
}

} // namespace Quorvel::Cli
