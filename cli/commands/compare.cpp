// SPDX-License-Identifier: BSD-3-Clause
// quorvel compare: agreement of a one-byte per-point field of two files, overall and per class
// of the second file.
#include "basalt/text.hpp"
#include "cli/commands/command.hpp"

#include <iostream>
#include <map>

namespace Quorvel::Cli {

namespace {

double percent(std::size_t part, std::size_t whole) {
  return whole ? 100.0 * static_cast<double>(part) / static_cast<double>(whole) : 0.0;
}

class Compare final : public Command {
public:
  void addOptions(CLI::App& app) override {
    app.add_option("A", a_, "the file to judge")->required();
    app.add_option("B", b_, "the file holding the true values")->required();
    app.add_option("--field", field_,
                   "the per-point field compared (whole numbers such as classes)")
        ->capture_default_str();
  }

  int run(const Host& host) override {
    const auto first = classesOf(*host.load(a_).grid, field_, a_);
    const auto second = classesOf(*host.load(b_).grid, field_, b_);
    if (first.size() != second.size())
      throw Error(a_ + " holds " + std::to_string(first.size()) + " points, " + b_ + " " +
                  std::to_string(second.size()));
    std::map<int, std::pair<std::size_t, std::size_t>> perClass; // class of B: (agreeing, all)
    std::size_t agree = 0;
    for (std::size_t i = 0; i < first.size(); ++i) {
      auto& [same, all] = perClass[second[i]];
      ++all;
      if (first[i] == second[i]) {
        ++same;
        ++agree;
      }
    }
    std::cout << "points: " << first.size() << "\n";
    std::cout << Basalt::format("agreement: %zu of %zu (%.2f%%)\n", agree, first.size(),
                                percent(agree, first.size()));
    for (const auto& [c, counts] : perClass)
      std::cout << Basalt::format("class %d: %zu of %zu (%.2f%%)\n", c, counts.first, counts.second,
                                  percent(counts.first, counts.second));
    return 0;
  }

private:
  std::string a_, b_, field_ = "Classification";
};

} // namespace

std::unique_ptr<Command> makeCompare() {
  return std::make_unique<Compare>();
}

} // namespace Quorvel::Cli
