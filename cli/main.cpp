// quorvel: the command-line host. Loads LAS or bundle files, runs one algorithm with its
// parameter box filled from options, writes the result.
#include "io/las.hpp"
#include "quorvel/quorvel.hpp"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>

namespace {

using Basalt::StrongPtr;
using Tressel::Grid;

// A point cloud as loaded, with what writing it back needs.
struct Cloud {
  StrongPtr<Grid> grid;
  std::optional<Quorvel::Las::FileInfo> las;
};

bool isBundle(const std::string& path) {
  const auto extension = std::filesystem::path(path).extension().string();
  return extension == ".h5" || extension == ".hdf5";
}

Cloud load(const std::string& path, std::size_t fragmentPoints) {
  if (isBundle(path)) {
    Tressel::Bundle bundle;
    if (!bundle.bindTo(path))
      throw std::runtime_error(bundle.lastError());
    const auto ids = bundle.getGridIdentifiers();
    if (ids.empty())
      throw std::runtime_error(path + ": the bundle holds no grid");
    return {(*bundle.findSlice(ids.front().time))[ids.front().grid], std::nullopt};
  }
  auto read = Quorvel::Las::read(path, fragmentPoints);
  return {read.grid, std::move(read.info)};
}

void save(const std::string& path, const Cloud& cloud) {
  if (isBundle(path)) {
    Tressel::Bundle bundle;
    if (!bundle.bindToNew(path, std::make_shared<Wexlin::MyStorage>()))
      throw std::runtime_error(bundle.lastError());
    bundle[0.0]->setGrid(cloud.grid->Name().empty() ? "cloud" : cloud.grid->Name(), cloud.grid);
    if (!bundle.save())
      throw std::runtime_error(bundle.lastError());
    return;
  }
  Quorvel::Las::write(path, *cloud.grid, cloud.las ? &*cloud.las : nullptr);
}

std::size_t pointCount(const Grid& grid) {
  std::size_t n = 0;
  if (auto positions = grid.CartesianPositions())
    positions->iterate([&](const auto&, const auto& creator) {
      if (creator && creator->peekData())
        n += creator->peekData()->nElements();
      return true;
    });
  return n;
}

// The host's one summary line, on standard error so that the library's output stays as it is.
void summary(const std::string& command, const Grid& grid,
             std::chrono::steady_clock::time_point start) {
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const std::size_t n = pointCount(grid);
  const auto positions = grid.CartesianPositions();
  std::fprintf(stderr, "quorvel %s: %zu points, %zu fragments, %.3f s, %.0f points/s\n",
               command.c_str(), n, positions ? positions->nFragments() : 0, seconds,
               seconds > 0 ? static_cast<double>(n) / seconds : 0.0);
}

std::vector<unsigned char> classesOf(const Grid& grid, const std::string& field,
                                     const std::string& path) {
  auto classes = grid(Tressel::StandardCartesianChart3D, field);
  if (!classes)
    throw std::runtime_error(path + ": no field " + field);
  auto values = Tressel::readField<unsigned char>(*classes);
  // In file order, where the file gave one.
  if (auto index = grid(Tressel::StandardCartesianChart3D, "PointIndex")) {
    const auto order = Tressel::readField<unsigned long long>(*index);
    std::vector<unsigned char> sorted(values.size());
    for (std::size_t k = 0; k < values.size() && k < order.size(); ++k)
      if (order[k] < sorted.size())
        sorted[order[k]] = values[k];
    return sorted;
  }
  return values;
}

int info(const std::string& path, std::size_t fragmentPoints) {
  const Cloud cloud = load(path, fragmentPoints);
  const Grid& grid = *cloud.grid;
  std::cout << "file: " << path << "\n";
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
    for (unsigned char c : classesOf(grid, "Classification", path))
      ++histogram[c];
    std::cout << "classes:";
    for (const auto& [c, n] : histogram)
      std::cout << " " << c << ":" << n;
    std::cout << "\n";
  }
  return 0;
}

int compare(const std::string& a, const std::string& b, const std::string& field,
            std::size_t fragmentPoints) {
  const auto first = classesOf(*load(a, fragmentPoints).grid, field, a);
  const auto second = classesOf(*load(b, fragmentPoints).grid, field, b);
  if (first.size() != second.size())
    throw std::runtime_error(a + " holds " + std::to_string(first.size()) + " points, " + b + " " +
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
  auto percent = [](std::size_t part, std::size_t whole) {
    return whole ? 100.0 * static_cast<double>(part) / static_cast<double>(whole) : 0.0;
  };
  std::cout << "points: " << first.size() << "\n";
  std::cout << Basalt::format("agreement: %zu of %zu (%.2f%%)\n", agree, first.size(),
                              percent(agree, first.size()));
  for (const auto& [c, counts] : perClass)
    std::cout << Basalt::format("class %d: %zu of %zu (%.2f%%)\n", c, counts.first, counts.second,
                                percent(counts.first, counts.second));
  return 0;
}

} // namespace

int main(int argc, char** argv) {
  CLI::App app{"quorvel: point-cloud algorithms on LAS and bundle files"};
  app.require_subcommand(1);
  std::size_t fragmentPoints = 250000;
  app.add_option("--fragment-points", fragmentPoints, "target number of points per fragment")
      ->capture_default_str();

  std::string in, out, second, field = "Classification";
  auto* infoCommand = app.add_subcommand("info", "points, fragments, fields, bbox, classes");
  infoCommand->add_option("FILE", in)->required();

  auto* convert = app.add_subcommand("convert", "LAS <-> bundle (.h5), by extension");
  convert->add_option("IN", in)->required();
  convert->add_option("OUT", out)->required();

  auto* compareCommand = app.add_subcommand("compare", "agreement of a per-point field");
  compareCommand->add_option("A", in)->required();
  compareCommand->add_option("B", second)->required();
  compareCommand->add_option("--field", field)->capture_default_str();

  // Transfer options take their defaults from a default-built box.
  const Quorvel::ClassificationTransferParameterBox defaults;
  std::string bands, sourceClasses = defaults.source.to_string(),
                     targetClasses = defaults.target.to_string(), offset;
  int dimension = defaults.dimension, threads = defaults.threads;
  double maxradius = defaults.maxradius;
  std::string transferField = defaults.fieldname;
  bool unclassify = defaults.unclassify, old = false, onetree = defaults.onetree,
       expand = defaults.expand, positions = defaults.positions;
  auto* transfer = app.add_subcommand("transfer", "classes from SOURCE onto TARGET");
  transfer->add_option("SOURCE", in)->required();
  transfer->add_option("TARGET", second)->required();
  transfer->add_option("-o,--output", out)->required();
  transfer->add_option("--bands", bands, "distance/class text, e.g. 1 or 0.5=2;1=3");
  transfer->add_option("--dimension", dimension)->capture_default_str();
  transfer->add_option("--source-classes", sourceClasses)->capture_default_str();
  transfer->add_option("--target-classes", targetClasses)->capture_default_str();
  transfer->add_flag("--unclassify", unclassify);
  transfer->add_option("--offset", offset, "X,Y,Z");
  transfer->add_option("--threads", threads)->capture_default_str();
  transfer->add_option("--field", transferField)->capture_default_str();
  transfer->add_flag("--old", old, "run classificationTransferOLD");
  transfer->add_flag("--onetree", onetree);
  transfer->add_flag("--expand", expand);
  transfer->add_option("--maxradius", maxradius)->capture_default_str();
  transfer->add_flag("--positions", positions);

  auto* cellsize = app.add_subcommand("cellsize", "voxel-density cell size of every point");
  cellsize->add_option("IN", in)->required();
  cellsize->add_option("-o,--output", out)->required();

  std::vector<std::string> names;
  auto* date = app.add_subcommand("date", "acquisition date and GPS week of file names");
  date->add_option("NAME", names)->required();

  CLI11_PARSE(app, argc, argv);
  const auto start = std::chrono::steady_clock::now();
  try {
    if (*infoCommand)
      return info(in, fragmentPoints);
    if (*compareCommand)
      return compare(in, second, field, fragmentPoints);
    if (*date) {
      for (const auto& name : names) {
        const Quorvel::Chronometry when(name);
        when.print();
        std::cout << "gps week: " << when.gps_week << "\n";
      }
      return 0;
    }
    if (*convert) {
      const Cloud cloud = load(in, fragmentPoints);
      save(out, cloud);
      summary("convert", *cloud.grid, start);
      return 0;
    }
    if (*cellsize) {
      const Cloud cloud = load(in, fragmentPoints);
      std::cout << Quorvel::setCellSize(cloud.grid, nullptr) << "\n";
      save(out, cloud);
      summary("cellsize", *cloud.grid, start);
      return 0;
    }
    if (*transfer) {
      const Cloud source = load(in, fragmentPoints);
      const Cloud target = load(second, fragmentPoints);
      Quorvel::ClassificationTransferParameterBox box(bands);
      box.dimension = dimension;
      box.source = Vantor::MultiRange<double>(sourceClasses);
      box.target = Vantor::MultiRange<double>(targetClasses);
      box.unclassify = unclassify;
      box.threads = threads;
      box.fieldname = transferField;
      box.onetree = onetree;
      box.expand = expand;
      box.maxradius = maxradius;
      box.positions = positions;
      box.sourcefilename = in;
      if (!offset.empty()) {
        const auto parts = Basalt::splitAt(offset, ",");
        if (parts.size() != 3)
          throw std::runtime_error("--offset takes X,Y,Z");
        box.offset = {Basalt::cAtof(parts[0]), Basalt::cAtof(parts[1]), Basalt::cAtof(parts[2])};
      }
      const std::string message =
          old ? Quorvel::classificationTransferOLD(source.grid, target.grid, box)
              : Quorvel::classificationTransfer(source.grid, target.grid, box);
      if (!message.empty())
        throw std::runtime_error("transfer: " + message);
      save(out, target);
      summary("transfer", *target.grid, start);
      return 0;
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "quorvel: error: %s\n", e.what());
    return 1;
  }
  return 0;
}
