// SPDX-License-Identifier: BSD-3-Clause
// LAZ against native LASzip (the library PDAL and most LIDAR tools decode LAZ with), file by
// file: every .laz of QUORVEL_LAZ_DIR (by default the shared LAZ corpus) decoded into memory, and
// its points encoded as LAZ again, by our codec on 1 and 2 threads and by LASzip (one thread: it
// has no other) in the same iteration. ratio = our wall seconds / LASzip's, cpu_ratio = our
// processor seconds / LASzip's (what counts on a shared machine): below 1 is faster.
// Built only when bench/build-laszip has put LASzip into build/laszip.
#include "io/las.hpp"

#include <laszip/laszip_api.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <omp.h>

namespace {

namespace fs = std::filesystem;

double processSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// Wall and processor seconds of one step, added up over the iterations: on a loaded machine the
// processor time of a one-thread run is what it would take alone.
struct Clock {
  double wall = 0, processor = 0;
  template <class Step>
  void time(Step&& step) {
    const auto start = std::chrono::steady_clock::now();
    const double cpu = processSeconds();
    step();
    processor += processSeconds() - cpu;
    wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
};

void check(laszip_POINTER laszip, laszip_I32 status, const std::string& what) {
  if (status == 0)
    return;
  laszip_CHAR* message = nullptr;
  laszip_get_error(laszip, &message);
  throw std::runtime_error("LASzip " + what + ": " + (message ? message : "failed"));
}

// One LASzip object, destroyed on every way out.
class Laszip {
public:
  Laszip() {
    if (laszip_create(&pointer_) != 0)
      throw std::runtime_error("LASzip cannot be created");
  }
  ~Laszip() { laszip_destroy(pointer_); }
  Laszip(const Laszip&) = delete;
  Laszip& operator=(const Laszip&) = delete;
  laszip_POINTER get() const { return pointer_; }

private:
  laszip_POINTER pointer_ = nullptr;
};

// The points of a file as LASzip decodes them, kept for the encoding benchmark: the records and
// their extra bytes side by side.
struct LaszipPoints {
  std::vector<laszip_point> points;
  std::vector<laszip_U8> extraBytes;
  laszip_U16 extraPerPoint = 0;
};

// Decodes every point of path with LASzip; keeps them when `keep` is given.
std::uint64_t laszipDecode(const std::string& path, LaszipPoints* keep = nullptr,
                           Laszip* reader = nullptr) {
  std::optional<Laszip> own; // a reader of its own unless the caller keeps one open
  const laszip_POINTER laszip = (reader ? *reader : own.emplace()).get();
  laszip_BOOL compressed = 0;
  check(laszip, laszip_open_reader(laszip, path.c_str(), &compressed), "open " + path);
  laszip_header* header = nullptr;
  laszip_point* point = nullptr;
  laszip_get_header_pointer(laszip, &header);
  laszip_get_point_pointer(laszip, &point);
  const std::uint64_t count = header->extended_number_of_point_records
                                  ? header->extended_number_of_point_records
                                  : header->number_of_point_records;
  if (keep) {
    keep->points.resize(count);
    keep->extraPerPoint = static_cast<laszip_U16>(point->num_extra_bytes);
    keep->extraBytes.resize(count * keep->extraPerPoint);
  }
  for (std::uint64_t i = 0; i < count; ++i) {
    check(laszip, laszip_read_point(laszip), "read " + path);
    if (!keep)
      continue;
    keep->points[i] = *point;
    std::copy_n(point->extra_bytes, keep->extraPerPoint,
                keep->extraBytes.data() + i * keep->extraPerPoint);
  }
  if (own)
    check(laszip, laszip_close_reader(laszip), "close " + path);
  return count;
}

// Encodes the kept points with the header of the LASzip reader they came from.
void laszipEncode(Laszip& reader, LaszipPoints& kept, const std::string& out) {
  laszip_header* header = nullptr;
  laszip_get_header_pointer(reader.get(), &header);
  Laszip writer;
  check(writer.get(), laszip_set_header(writer.get(), header), "header for " + out);
  check(writer.get(), laszip_open_writer(writer.get(), out.c_str(), 1), "open " + out);
  for (std::size_t i = 0; i < kept.points.size(); ++i) {
    laszip_point& p = kept.points[i];
    p.extra_bytes = kept.extraBytes.data() + i * kept.extraPerPoint;
    check(writer.get(), laszip_set_point(writer.get(), &p), "point for " + out);
    check(writer.get(), laszip_write_point(writer.get()), "write " + out);
  }
  check(writer.get(), laszip_close_writer(writer.get()), "close " + out);
}

void report(benchmark::State& state, const Clock& ours, const Clock& theirs, std::uint64_t points) {
  const double iterations = static_cast<double>(state.iterations());
  const double total = static_cast<double>(points) * iterations;
  state.counters["ours_s"] = ours.wall / iterations;
  state.counters["laszip_s"] = theirs.wall / iterations;
  state.counters["ratio"] = ours.wall / theirs.wall;
  state.counters["cpu_ratio"] = ours.processor / theirs.processor;
  state.counters["points/s"] = total / ours.wall;
  state.counters["cpu_points/s"] = total / ours.processor;
  state.counters["laszip_cpu_points/s"] = total / theirs.processor;
}

void decode(benchmark::State& state, const std::string& path) {
  omp_set_num_threads(static_cast<int>(state.range(0)));
  Clock ours, theirs;
  std::uint64_t points = 0, theirPoints = 0;
  for (auto _ : state) {
    ours.time([&] { points = Quorvel::Las::read(path).info.header.pointCount; });
    theirs.time([&] { theirPoints = laszipDecode(path); });
  }
  if (points != theirPoints)
    state.SkipWithError("LASzip and Quorvel count different points");
  report(state, ours, theirs, points);
}

void encode(benchmark::State& state, const std::string& path) {
  omp_set_num_threads(static_cast<int>(state.range(0)));
  const auto read = Quorvel::Las::read(path);
  Laszip reader;
  LaszipPoints kept;
  laszipDecode(path, &kept, &reader);
  const std::string stem = (fs::temp_directory_path() / "quorvel-laszip-bench").string();
  Clock ours, theirs;
  for (auto _ : state) {
    ours.time([&] { Quorvel::Las::write(stem + "-ours.laz", *read.grid); });
    theirs.time([&] { laszipEncode(reader, kept, stem + "-laszip.laz"); });
  }
  report(state, ours, theirs, read.info.header.pointCount);
  state.counters["size/laszip"] = static_cast<double>(fs::file_size(stem + "-ours.laz")) /
                                  static_cast<double>(fs::file_size(stem + "-laszip.laz"));
  laszip_close_reader(reader.get());
}

std::vector<fs::path> lazFiles() {
  const char* set = std::getenv("QUORVEL_LAZ_DIR");
  const fs::path folder = set ? fs::path(set) : fs::path(QUORVEL_SHARED_DATA) / "laz";
  std::vector<fs::path> files;
  if (fs::is_directory(folder))
    for (const auto& entry : fs::directory_iterator(folder))
      if (entry.path().extension() == ".laz")
        files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

} // namespace

int main(int argc, char** argv) {
  for (const fs::path& file : lazFiles()) {
    const std::string path = file.string(), name = file.filename().string();
    benchmark::RegisterBenchmark(("decode/" + name).c_str(), decode, path)
        ->Arg(1)
        ->Arg(2)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark(("encode/" + name).c_str(), encode, path)
        ->Arg(1)
        ->Arg(2)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
