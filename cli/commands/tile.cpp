// quorvel tile: LAS and LAZ files cut into square tiles, streamed record by record, with
// buffers of the neighbouring tiles' points marked in an extra-bytes field.
#include "cli/commands/command.hpp"
#include "cli/commands/las_inputs.hpp"

#include "basalt/Text.hpp"

#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <sys/resource.h>

namespace Quorvel::Cli {

namespace {

namespace fs = std::filesystem;

// Records waiting in the tiles' writers, all together, before they are written out: memory
// stays bounded however many tiles there are.
constexpr std::size_t PendingBytes = std::size_t(16) << 20;

// The tile k of a line cut into cells of size from origin: origin + k * size <= v <
// origin + (k + 1) * size, with the edges computed as the file names give them.
std::int64_t cellOf(double v, double origin, double size) {
  double k = std::floor((v - origin) / size);
  if (origin + (k + 1) * size <= v)
    k += 1;
  else if (origin + k * size > v)
    k -= 1;
  return static_cast<std::int64_t>(k);
}

// Decimals that v needs (up to 9): 12.5 needs 1, 100 none.
int decimalsOf(double v) {
  for (int d = 0; d < 9; ++d) {
    const double scaled = v * std::pow(10.0, d);
    if (std::abs(scaled - std::round(scaled)) <= 1e-9 * std::max(1.0, std::abs(scaled)))
      return d;
  }
  return 9;
}

struct Tile {
  std::unique_ptr<Las::Writer> writer;
  std::string path;
  std::uint64_t core = 0; // points of the tile's own square
  // The records of the batch in hand that go to this tile, and whether each is a buffer point;
  // gathered and appended in one piece once the batch is sorted out.
  std::vector<std::uint32_t> records;
  std::vector<std::uint8_t> buffer;
};

class TileCommand final : public Command {
public:
  void addOptions(CLI::App& app) override {
    app.add_option("IN", inputs_, "LAS or LAZ files")->required();
    app.add_option("-o,--output", folder_,
                   "the folder of the tiles (made when missing), named X_Y.EXT by their "
                   "lower-left corners")
        ->required();
    app.add_option("--size", size_, "the side of the square tiles, in the files' units")
        ->required()
        ->check(CLI::PositiveNumber);
    app.add_option("--origin", origin_, "X,Y: a corner of the tiles' grid")
        ->delimiter(',')
        ->expected(2)
        ->capture_default_str();
    app.add_option("--buffer", buffer_,
                   "tiles also hold the points within B of their square (in x and in y), marked "
                   "by the extra-bytes field \"Buffer\" (1; 0 for a tile's own points)")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    app.add_option("--format", format_, "las, laz or copc (default: the first input's)")
        ->check(CLI::IsMember({"las", "laz", "copc"}));
  }

  int run(const Host& host) override;

private:
  void prepareFolder();
  std::string nameOf(std::int64_t i, std::int64_t j) const;
  Tile& tileAt(std::int64_t i, std::int64_t j);
  void put(std::uint32_t record, std::int64_t i, std::int64_t j, bool buffer);
  void spread(std::uint32_t record, double x, double y, std::int64_t i, std::int64_t j);
  void gather(const std::uint8_t* records);
  void flushAll();
  void finishAll(const Host& host);

  std::vector<std::string> inputs_;
  std::string folder_, format_;
  double size_ = 0, buffer_ = 0;
  std::vector<double> origin_{0, 0};
  Las::FileInfo out_;
  std::size_t length_ = 0, inLength_ = 0;
  std::vector<std::uint8_t> scratch_;
  std::map<std::pair<std::int64_t, std::int64_t>, Tile> tiles_;
  std::vector<Tile*> touched_; // the tiles of the batch in hand
  Tile* last_ = nullptr;
  std::pair<std::int64_t, std::int64_t> lastKey_;
  int decimals_ = 0;
  bool madeFolder_ = false;
};

void TileCommand::prepareFolder() {
  std::error_code error;
  if (fs::exists(folder_, error) && !fs::is_directory(folder_, error))
    throw Error(folder_ + ": is not a folder");
  if (!fs::exists(folder_, error)) {
    if (!fs::create_directory(folder_, error))
      throw Error(folder_ + ": cannot make the folder: " + error.message());
    madeFolder_ = true;
  }
  checkOutput((fs::path(folder_) / "tile.las").string());
}

std::string TileCommand::nameOf(std::int64_t i, std::int64_t j) const {
  // Each corner with the decimals it needs, at most those of the size and origin.
  const auto corner = [this](double origin, std::int64_t k) {
    const double v = origin + static_cast<double>(k) * size_;
    return Basalt::format("%.*f", std::min(decimalsOf(v), decimals_), v == 0 ? 0.0 : v);
  };
  const std::string format = format_ == "copc" ? "las" : format_; // COPC made from LAS at the end
  return (fs::path(folder_) /
          withFormat(corner(origin_[0], i) + "_" + corner(origin_[1], j), format))
      .string();
}

Tile& TileCommand::tileAt(std::int64_t i, std::int64_t j) {
  const auto found = tiles_.find({i, j});
  if (found != tiles_.end())
    return found->second;
  Tile& tile = tiles_[{i, j}];
  tile.path = nameOf(i, j);
  try {
    tile.writer = std::make_unique<Las::Writer>(tile.path, out_);
  } catch (const Las::Error& e) {
    throw Error(std::string(e.what()) + (errno == EMFILE ? " (too many tiles at once: a larger "
                                                           "--size makes fewer)"
                                                         : ""));
  }
  return tile;
}

void TileCommand::put(std::uint32_t record, std::int64_t i, std::int64_t j, bool buffer) {
  // Neighbouring records mostly share a tile: the last one found is tried first.
  if (!last_ || lastKey_ != std::pair{i, j}) {
    last_ = &tileAt(i, j);
    lastKey_ = {i, j};
  }
  if (last_->records.empty())
    touched_.push_back(last_);
  last_->records.push_back(record);
  last_->buffer.push_back(buffer ? 1 : 0);
  last_->core += buffer ? 0 : 1;
}

// Appends to every tile the records of the batch that went to it, in one piece.
void TileCommand::gather(const std::uint8_t* records) {
  for (Tile* tile : touched_) {
    scratch_.resize(tile->records.size() * length_);
    std::uint8_t* to = scratch_.data();
    for (std::size_t k = 0; k < tile->records.size(); ++k, to += length_) {
      std::memcpy(to, records + std::size_t(tile->records[k]) * inLength_, inLength_);
      if (length_ > inLength_)
        to[inLength_] = tile->buffer[k];
    }
    tile->writer->append(scratch_.data(), tile->records.size());
    tile->records.clear();
    tile->buffer.clear();
  }
  touched_.clear();
}

// Puts a point into the tiles whose grown squares hold it besides its own (i, j).
void TileCommand::spread(std::uint32_t record, double x, double y, std::int64_t i, std::int64_t j) {
  const double ox = origin_[0], oy = origin_[1], s = size_, b = buffer_;
  for (std::int64_t p = cellOf(x - b, ox, s) - 1; p <= cellOf(x + b, ox, s); ++p) {
    const double cx = ox + static_cast<double>(p) * s;
    if (x < cx - b || x > cx + s + b)
      continue;
    for (std::int64_t q = cellOf(y - b, oy, s) - 1; q <= cellOf(y + b, oy, s); ++q) {
      const double cy = oy + static_cast<double>(q) * s;
      if ((p != i || q != j) && y >= cy - b && y <= cy + s + b)
        put(record, p, q, true);
    }
  }
}

void TileCommand::flushAll() {
  std::vector<Las::Writer*> writers;
  for (auto& [key, tile] : tiles_)
    if (tile.writer->pending() > 0)
      writers.push_back(tile.writer.get());
  std::string problem;
#pragma omp parallel for schedule(dynamic, 1)
  for (long long k = 0; k < static_cast<long long>(writers.size()); ++k) {
    try {
      writers[static_cast<std::size_t>(k)]->flush();
    } catch (const std::exception& e) {
#pragma omp critical
      problem = e.what();
    }
  }
  if (!problem.empty())
    throw Error(problem);
}

// Writes out the tiles that hold points of their own square (the others hold buffer points
// only and are dropped); COPC tiles are made from the LAS ones.
void TileCommand::finishAll(const Host& host) {
  for (auto& [key, tile] : tiles_) {
    if (tile.core == 0) {
      tile.writer.reset();
      continue;
    }
    tile.writer->finish();
    tile.writer.reset();
    if (format_ == "copc") {
      const std::string copc = tile.path.substr(0, tile.path.size() - 4) + ".copc.laz";
      const Cloud cloud = host.load(tile.path);
      host.save(copc, cloud);
      fs::remove(tile.path);
      tile.path = copc;
    }
    std::printf("%s\n", tile.path.c_str());
  }
}

int TileCommand::run(const Host& host) {
  LasInputs inputs(inputs_, host.common().box);
  if (format_.empty())
    format_ = inputs.compressed() ? "laz" : "las";
  prepareFolder();
  decimals_ = std::max({decimalsOf(size_), decimalsOf(origin_[0]), decimalsOf(origin_[1])});
  out_ = inputs.first();
  inLength_ = out_.header.recordLength;
  if (buffer_ > 0)
    out_ = Las::withDimension(out_, "Buffer", "uint8");
  length_ = out_.header.recordLength;
  scratch_.resize(length_);
  // Every tile's writer holds its file open.
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
  }
  const Las::Header& h = out_.header;
  std::uint64_t points = 0;
  try {
    inputs.forEachBatch([&](const std::string&, const std::uint8_t* records, std::size_t n) {
      for (std::size_t k = 0; k < n; ++k) {
        const std::uint8_t* r = records + k * inLength_;
        std::int32_t raw[2];
        std::memcpy(raw, r, 8);
        const double x = raw[0] * h.scale[0] + h.offset[0];
        const double y = raw[1] * h.scale[1] + h.offset[1];
        const std::int64_t i = cellOf(x, origin_[0], size_), j = cellOf(y, origin_[1], size_);
        const auto record = static_cast<std::uint32_t>(k);
        put(record, i, j, false);
        if (buffer_ > 0)
          spread(record, x, y, i, j);
      }
      gather(records);
      points += n;
      std::size_t pending = 0;
      for (const auto& [key, tile] : tiles_)
        pending += tile.writer->pending() * length_;
      if (pending > PendingBytes)
        flushAll();
    });
    finishAll(host);
  } catch (...) {
    tiles_.clear(); // unfinished tiles leave nothing behind
    std::error_code error;
    if (madeFolder_ && fs::is_empty(folder_, error))
      fs::remove(folder_, error);
    throw;
  }
  std::size_t written = 0;
  for (const auto& [key, tile] : tiles_)
    written += tile.core > 0 ? 1 : 0;
  host.summary("tile", points, std::to_string(written) + " tiles");
  return 0;
}

} // namespace

std::unique_ptr<Command> makeTile() {
  return std::make_unique<TileCommand>();
}

} // namespace Quorvel::Cli
