// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: one chunk of a catalogue run, read with its buffer, changed by the pipeline's
// stages, and written without its buffer.
#include "cli/chunk.hpp"
#include "cli/stages.hpp"
#include "io/raster.hpp"
#include "io/tiles.hpp"
#include "quorvel/core/core.hpp"
#include "quorvel/selection/selection.hpp"

#include "tressel/grid.hpp"

#include <cmath>
#include <cstring>
#include <filesystem>
#include <omp.h>
#include <unistd.h>

namespace Quorvel::Cli {

namespace {

namespace fs = std::filesystem;

// The name of the field that marks the buffer's points while the stages run (1; 0 for the
// chunk's own points), a name of its own, since tiles may carry the "Buffer" of `quorvel tile`.
const char* const BufferField = "CatalogBuffer";

// A file removed when the chunk is done with it, however it ends.
struct Scratch {
  std::string path;
  ~Scratch() {
    std::error_code ignored;
    fs::remove(path, ignored);
  }
};

// What a chunk reads goes to the machine's temporary folder (TMPDIR), not to the shared output.
std::string scratchName(const ChunkJob& job, const std::string& ending) {
  return (fs::temp_directory_path() / ("quorvel-chunk-" + std::to_string(::getpid()) + "-" +
                                       fs::path(job.output).filename().string() + "." + ending))
      .string();
}

bool ownPoint(const ChunkJob& job, std::size_t file, double x, double y) {
  if (job.ownFile)
    return file == *job.ownFile;
  const auto& s = job.square;
  return x >= s[0] && x < s[2] && y >= s[1] && y < s[3];
}

// Writes every point of the files within job.read, marked, to scratch as LAS; the header is that
// of the chunk's own file where it has one, so that its records pass unchanged.
Las::FileInfo gather(const ChunkJob& job, const std::string& scratch, ChunkResult& result) {
  Las::StreamSettings settings;
  settings.box = job.read;
  Las::Sources sources(job.files, settings, job.ownFile.value_or(0));
  const Las::FileInfo marked = Las::withDimension(sources.first(), BufferField, "uint8");
  const Las::Header& h = marked.header;
  const std::size_t in = sources.first().header.recordLength, out = h.recordLength;
  Las::Writer writer(scratch, marked);
  sources.forEachBatchOf([&](std::size_t file, const std::uint8_t* records, std::size_t count) {
    writer.append(count, [&](std::uint8_t* to) {
      for (std::size_t k = 0; k < count; ++k, to += out) {
        const std::uint8_t* from = records + k * in;
        std::int32_t raw[2];
        std::memcpy(raw, from, 8);
        const bool own = ownPoint(job, file, raw[0] * h.scale[0] + h.offset[0],
                                  raw[1] * h.scale[1] + h.offset[1]);
        std::memcpy(to, from, in);
        to[in] = own ? 0 : 1;
        result.own += own ? 1 : 0;
      }
    });
    result.read += count;
  });
  writer.finish();
  return sources.first();
}

// The chunk's own points of the changed cloud, without the buffer's mark, with the header of
// the files read.
Basalt::StrongPtr<Tressel::Grid> ownPoints(const Cloud& cloud, const Las::FileInfo& info) {
  SelectionParameterBox box;
  box.fieldname = BufferField;
  box.selection = Vantor::MultiRange<double>("0");
  auto own = computeSelection(cloud.grid, box);
  if (!own)
    throw Error("the chunk's own points: " + box.message);
  if (const auto representation = own->getCartesianRepresentation("StandardCartesianChart3D"))
    representation->removeField(BufferField);
  Las::setFileInfo(*own, info);
  return own;
}

// The points of class 2 (ground) of a cloud; none when it has no "Classification".
std::uint64_t groundPoints(const Tressel::Grid& cloud) {
  const auto rep = cloud.getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  const auto classes = rep ? rep->findField("Classification") : nullptr;
  if (!classes)
    return 0;
  std::uint64_t ground = 0;
  for (const FragmentSlot& slot : fragmentsOf(*classes))
    if (const auto c = fragmentArray<unsigned char>(*classes, slot))
      for (std::size_t k = 0; k < c->size(); ++k)
        ground += (*c)[k] == 2 ? 1 : 0;
  return ground;
}

// A name without its folder and extension ("out/dtm.tif": "dtm").
std::string stemOf(const std::string& path) {
  return fs::path(path).stem().string();
}

// Writes each raster the stages made, cut to the chunk: the square of a grid chunk, the bounds
// of a file chunk's file.
void writeRasters(const ChunkJob& job, const Cloud& cloud, const Host& host, ChunkResult& result) {
  const fs::path target(job.output);
  for (const Cloud::Raster& made : cloud.rasters) {
    const std::string stem = stemOf(made.name);
    const std::string whole = scratchName(job, stem + ".tif");
    const Scratch removed{whole};
    host.save(whole, {made.grid, made.field, {}});
    const std::string cut =
        (target.parent_path() / (stemOf(job.output) + "_" + stem + ".tif")).string();
    if (Raster::cutGeoTiff(whole, cut, job.square))
      result.rasters.emplace_back(stem, cut);
  }
}

} // namespace

ChunkResult runChunk(const ChunkJob& job) {
  PipelineFile pipeline = readPipeline(job.pipeline, false);
  Common common;
  common.quiet = true;
  if (job.threads > 0)
    omp_set_num_threads(job.threads);
  const Host host(common);
  ChunkResult result;
  if (job.files.empty())
    return result;
  const Scratch scratch{scratchName(job, "las")};
  const Las::FileInfo info = gather(job, scratch.path, result);
  if (result.own == 0)
    return result;
  Cloud cloud = host.load(scratch.path);
  fs::remove(scratch.path);
  runStages(pipeline, cloud, host);
  writeRasters(job, cloud, host, result);
  cloud.grid = ownPoints(cloud, info);
  result.written = pointCount(*cloud.grid);
  if (result.written == 0)
    return result;
  host.save(job.output, cloud);
  result.ground = groundPoints(*cloud.grid);
  if (!job.thumbnail.empty())
    Raster::writeThumbnail(job.thumbnail, *cloud.grid, job.thumbnailSize);
  return result;
}

} // namespace Quorvel::Cli
