// quorvel date: the acquisition date read from file names, and its GPS week.
#include "cli/commands/command.hpp"
#include "quorvel/metadata/metadata.hpp"

#include <iostream>

namespace Quorvel::Cli {

namespace {

class Date final : public Command {
public:
  void addOptions(CLI::App& app) override {
    app.add_option("NAME", names_, "file names holding a date")->required();
  }

  int run(const Host&) override {
    for (const auto& name : names_) {
      const Chronometry when(name);
      when.print();
      std::cout << "gps week: " << when.gps_week << "\n";
    }
    return 0;
  }

private:
  std::vector<std::string> names_;
};

} // namespace

std::unique_ptr<Command> makeDate() {
  return std::make_unique<Date>();
}

} // namespace Quorvel::Cli
