// quorvel info: points, fragments, fields with their types, bounding box and classes of a file.
#include "basalt/Text.hpp"
#include "cli/commands/command.hpp"
#include "tressel/BoundingBoxes.hpp"

#include <iostream>
#include <map>

namespace Quorvel::Cli {

namespace {

class Info final : public Command {
public:
  void addOptions(CLI::App& app) override {
    app.add_option("FILE", path_, "a LAS, LAZ or bundle file")->required();
  }

  int run(const Host& host) override {
    // A LAS file read as one fragment is described from one pass over its records, without
    // building a grid: seconds for a file of a gigabyte.
    if (!isBundle(path_) && host.common().fragmentPoints == 0)
      return describe(Las::summarize(path_));
    const Cloud cloud = host.load(path_);
    const Tressel::Grid& grid = *cloud.grid;
    std::cout << "file: " << path_ << "\n";
    std::cout << "points: " << pointCount(grid) << "\n";
    auto positions = grid.CartesianPositions();
    std::cout << "fragments: " << (positions ? positions->nFragments() : 0) << "\n";
    if (auto box = positions ? Tressel::getBoundingBox(*positions) : nullptr)
      std::cout << Basalt::format("bbox: %.3f %.3f %.3f - %.3f %.3f %.3f\n", box->min().x,
                                  box->min().y, box->min().z, box->max().x, box->max().y,
                                  box->max().z);
    std::cout << "fields:\n";
    if (auto rep = grid.getCartesianRepresentation(Tressel::StandardCartesianChart3D))
      for (const auto& [id, field] : rep->snapshot())
        std::cout << "  " << id->Name() << ": "
                  << (field->getElementType() ? field->getElementType()->name() : "-") << "\n";
    if (grid(Tressel::StandardCartesianChart3D, "Classification")) {
      std::map<int, std::size_t> histogram;
      for (unsigned char c : classesOf(grid, "Classification", path_))
        ++histogram[c];
      std::cout << "classes:";
      for (const auto& [c, n] : histogram)
        std::cout << " " << c << ":" << n;
      std::cout << "\n";
    }
    return 0;
  }

private:
  int describe(const Las::Summary& summary) const {
    std::cout << "file: " << path_ << "\n";
    std::cout << "points: " << summary.pointCount << "\n";
    std::cout << "fragments: 1\n";
    const auto& lo = summary.min;
    const auto& hi = summary.max;
    if (summary.pointCount > 0)
      std::cout << Basalt::format("bbox: %.3f %.3f %.3f - %.3f %.3f %.3f\n", lo[0], lo[1], lo[2],
                                  hi[0], hi[1], hi[2]);
    std::cout << "fields:\n";
    bool classes = false;
    for (const auto& [name, type] : summary.fields) {
      std::cout << "  " << name << ": " << type << "\n";
      classes = classes || name == "Classification";
    }
    if (classes) {
      std::cout << "classes:";
      for (std::size_t c = 0; c < summary.classCounts.size(); ++c)
        if (summary.classCounts[c] > 0)
          std::cout << " " << c << ":" << summary.classCounts[c];
      std::cout << "\n";
    }
    return 0;
  }

  std::string path_;
};

} // namespace

std::unique_ptr<Command> makeInfo() {
  return std::make_unique<Info>();
}

} // namespace Quorvel::Cli
