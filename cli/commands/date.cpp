// SPDX-License-Identifier: BSD-3-Clause
// quorvel date: the acquisition date read from file names, and its GPS week.
#include "cli/commands/command.hpp"
#include "quorvel/metadata/metadata.hpp"

#include "basalt/text.hpp"

#include <cstdio>
#include <iostream>

namespace Quorvel::Cli {

namespace {

class Date final : public Command {
public:
  void addOptions(CLI::App& app) override {
    app.add_option("NAME", names_, "file names holding a date (they need not exist)")->required();
    app.footer("Prints one line per name: NAME: YYYY-MM-DD hh:mm:ss, day of week D (0: Sunday), "
               "gps week W. A name without a date is reported on standard error, and the "
               "command then exits with 1.");
  }

  int run(const Host&) override {
    int code = 0;
    for (const auto& name : names_) {
      const Chronometry when(name);
      when.print();
      if (when.year == 0) {
        std::fprintf(stderr, "quorvel date: no date in \"%s\"\n", name.c_str());
        code = 1;
        continue;
      }
      std::cout << Basalt::format(
          "%s: %04d-%02u-%02u %02u:%02u:%02u, day of week %u, gps week %d\n", name.c_str(),
          when.year, when.month, when.day, when.hour, when.minute, when.second,
          unsigned{when.day_of_week}, when.gps_week);
    }
    return code;
  }

private:
  std::vector<std::string> names_;
};

} // namespace

std::unique_ptr<Command> makeDate() {
  return std::make_unique<Date>();
}

} // namespace Quorvel::Cli
