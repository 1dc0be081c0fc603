// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: LAS and LAZ files cut into square tiles, streamed batch by batch, with buffers of the
// neighbouring tiles' points marked in an extra-bytes field.
#include "io/detail/copc.hpp"
#include "io/tiles.hpp"
#include "quorvel/core/parallel.hpp"

#include "basalt/text.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <sys/resource.h>

namespace Quorvel::Las {

namespace {

namespace fs = std::filesystem;

// Records waiting in the tiles' writers, all together, before they are written out: memory
// stays bounded however many tiles there are.
constexpr std::size_t PendingBytes = std::size_t(16) << 20;

// The cell k of a line cut into cells of size from origin: origin + k * size <= v <
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
  std::unique_ptr<Writer> writer;
  std::string path;
  std::uint64_t core = 0; // points of the tile's own square
  // The records of the batch in hand that go to this tile, and whether each is a buffer point;
  // gathered and appended in one piece once the batch is sorted out.
  std::vector<std::uint32_t> records;
  std::vector<std::uint8_t> buffer;
};

class Tiler {
public:
  Tiler(const std::string& folder, const TileOptions& options, const FileInfo& first,
        bool compressed);
  // Sorts a batch of records into the tiles.
  void add(const std::uint8_t* records, std::size_t count);
  // Writes the tiles out (COPC ones made from LAS ones); the files written.
  std::vector<std::string> finish(const StreamSettings& settings);

private:
  std::string nameOf(std::int64_t i, std::int64_t j) const;
  Tile& tileAt(std::int64_t i, std::int64_t j);
  void put(std::uint32_t record, std::int64_t i, std::int64_t j, bool buffer);
  void spread(std::uint32_t record, double x, double y, std::int64_t i, std::int64_t j);
  void gather(const std::uint8_t* records);
  void flushAll();

  std::string folder_;
  TileOptions o_;
  FileInfo out_;
  std::size_t length_ = 0, inLength_ = 0;
  int decimals_ = 0;
  std::map<std::pair<std::int64_t, std::int64_t>, Tile> tiles_;
  std::vector<Tile*> touched_; // the tiles of the batch in hand
  // Tiles found lately, by a hash of their place: points of a batch mostly fall into a few.
  struct Recent {
    std::int64_t i = 0, j = 0;
    Tile* tile = nullptr;
  };
  std::array<Recent, 256> recent_{};
};

Tiler::Tiler(const std::string& folder, const TileOptions& options, const FileInfo& first,
             bool compressed)
    : folder_(folder), o_(options), out_(first), inLength_(first.header.recordLength) {
  if (!(std::isfinite(o_.size) && o_.size > 0))
    throw Error(folder + ": the tiles' size must be a positive number");
  if (!(std::isfinite(o_.buffer) && o_.buffer >= 0) || !std::isfinite(o_.origin[0]) ||
      !std::isfinite(o_.origin[1]))
    throw Error(folder + ": the tiles' buffer must be 0 or more, their origin finite");
  if (o_.format.empty())
    o_.format = compressed ? "laz" : "las";
  if (o_.format != "las" && o_.format != "laz" && o_.format != "copc")
    throw Error(folder + ": tiles are written as las, laz or copc, not \"" + o_.format + "\"");
  decimals_ = std::max({decimalsOf(o_.size), decimalsOf(o_.origin[0]), decimalsOf(o_.origin[1])});
  if (o_.buffer > 0)
    out_ = withDimension(out_, "Buffer", "uint8");
  length_ = out_.header.recordLength;
  // Every tile's writer holds its file open.
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
  }
}

std::string Tiler::nameOf(std::int64_t i, std::int64_t j) const {
  // Each corner with the decimals it needs, at most those of the size and origin.
  const auto corner = [this](double origin, std::int64_t k) {
    const double v = origin + static_cast<double>(k) * o_.size;
    return Basalt::format("%.*f", std::min(decimalsOf(v), decimals_), v == 0 ? 0.0 : v);
  };
  // COPC tiles are made from LAS ones at the end.
  const std::string ext = o_.format == "laz" ? ".laz" : ".las";
  return (fs::path(folder_) / (corner(o_.origin[0], i) + "_" + corner(o_.origin[1], j) + ext))
      .string();
}

Tile& Tiler::tileAt(std::int64_t i, std::int64_t j) {
  const auto found = tiles_.find({i, j});
  if (found != tiles_.end())
    return found->second;
  Tile& tile = tiles_[{i, j}];
  tile.path = nameOf(i, j);
  try {
    tile.writer = std::make_unique<Writer>(tile.path, out_);
  } catch (const Error& e) {
    if (errno != EMFILE)
      throw;
    throw Error(std::string(e.what()) + " (" + std::to_string(tiles_.size()) +
                " tiles open at once: a larger size makes fewer)");
  }
  return tile;
}
void Tiler::put(std::uint32_t record, std::int64_t i, std::int64_t j, bool buffer) {
  Recent& r = recent_[static_cast<std::size_t>(i * 31 + j) & (recent_.size() - 1)];
  if (!r.tile || r.i != i || r.j != j)
    r = {i, j, &tileAt(i, j)};
  Tile& tile = *r.tile;
  if (tile.records.empty())
    touched_.push_back(&tile);
  tile.records.push_back(record);
  tile.buffer.push_back(buffer ? 1 : 0);
  tile.core += buffer ? 0 : 1;
}

// Appends to every tile the records of the batch that went to it, in one piece.
void Tiler::gather(const std::uint8_t* records) {
  for (Tile* tile : touched_) {
    tile->writer->append(tile->records.size(), [&](std::uint8_t* to) {
      for (std::size_t k = 0; k < tile->records.size(); ++k, to += length_) {
        std::memcpy(to, records + std::size_t(tile->records[k]) * inLength_, inLength_);
        if (length_ > inLength_)
          to[inLength_] = tile->buffer[k];
      }
    });
    tile->records.clear();
    tile->buffer.clear();
  }
  touched_.clear();
}

// Puts a point into the tiles whose grown squares hold it besides its own (i, j).
void Tiler::spread(std::uint32_t record, double x, double y, std::int64_t i, std::int64_t j) {
  const double ox = o_.origin[0], oy = o_.origin[1], s = o_.size, b = o_.buffer;
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

void Tiler::flushAll() {
  std::vector<Writer*> writers;
  for (auto& [key, tile] : tiles_)
    if (tile.writer->pending() > 0)
      writers.push_back(tile.writer.get());
  // Of the tiles that fail, the first in the table's order is reported, whatever the threads.
  FirstError errors;
  forEachItem(writers.size(), allThreads(), errors, [&](std::size_t k) { writers[k]->flush(); });
  if (!errors.empty())
    throw Error(errors.message());
}

void Tiler::add(const std::uint8_t* records, std::size_t count) {
  const Header& h = out_.header;
  for (std::size_t k = 0; k < count; ++k) {
    std::int32_t raw[2];
    std::memcpy(raw, records + k * inLength_, 8);
    const double x = raw[0] * h.scale[0] + h.offset[0];
    const double y = raw[1] * h.scale[1] + h.offset[1];
    const std::int64_t i = cellOf(x, o_.origin[0], o_.size), j = cellOf(y, o_.origin[1], o_.size);
    const auto record = static_cast<std::uint32_t>(k);
    put(record, i, j, false);
    if (o_.buffer > 0)
      spread(record, x, y, i, j);
  }
  gather(records);
  std::size_t pending = 0;
  for (const auto& [key, tile] : tiles_)
    pending += tile.writer->pending() * length_;
  if (pending > PendingBytes)
    flushAll();
}

// Writes out the tiles that hold points of their own square (the others hold buffer points
// only and are dropped); COPC tiles are made from the LAS ones. A warning that every COPC tile
// repeats (format 1 tiles all move to format 6) is said for the first, then once for the folder
// with the count of the others: a line a tile would bury the rest under thousands of equal lines.
std::vector<std::string> Tiler::finish(const StreamSettings& settings) {
  std::vector<std::string> written;
  for (auto& [key, tile] : tiles_) {
    if (tile.core > 0)
      tile.writer->finish();
    tile.writer.reset();
  }
  std::vector<std::string> said;
  std::map<std::string, std::size_t> repeats;
  for (auto& [key, tile] : tiles_) {
    if (tile.core == 0)
      continue;
    if (o_.format == "copc") {
      const std::string copc = tile.path.substr(0, tile.path.size() - 4) + ".copc.laz";
      const Warn warn = settings.writeWarnings ? settings.writeWarnings(copc) : Warn{};
      Copc::rewriteAsCopc(tile.path, copc, [&](const std::string& text) {
        const auto [at, first] = repeats.emplace(text, 0);
        if (!first) {
          ++at->second;
          return;
        }
        said.push_back(text);
        if (warn)
          warn(text);
      });
      tile.path = copc;
    }
    written.push_back(tile.path);
  }
  for (const std::string& text : said)
    if (const std::size_t n = repeats.at(text); n > 0 && settings.writeWarnings)
      settings.writeWarnings(folder_)("the same for " + std::to_string(n) + " more tile" +
                                      (n == 1 ? "" : "s") + ": " + text);
  return written;
}

} // namespace

TileResult tile(const std::vector<std::string>& paths, const std::string& folder,
                const TileOptions& options, const StreamSettings& settings) {
  Sources sources(paths, settings);
  std::error_code error;
  if (fs::exists(folder, error) && !fs::is_directory(folder, error))
    throw Error(folder + ": is not a folder");
  const bool made = !fs::exists(folder, error);
  if (made && !fs::create_directory(folder, error))
    throw Error(folder + ": cannot make the folder: " + error.message());
  TileResult result;
  try {
    Tiler tiler(folder, options, sources.first(), sources.compressed());
    sources.forEachBatch([&](const std::uint8_t* records, std::size_t n) {
      tiler.add(records, n);
      result.points += n;
    });
    result.files = tiler.finish(settings);
  } catch (...) {
    if (made && fs::is_empty(folder, error)) // unfinished tiles leave nothing behind
      fs::remove(folder, error);
    throw;
  }
  return result;
}

} // namespace Quorvel::Las
