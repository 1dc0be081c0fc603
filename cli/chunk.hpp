// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: one chunk of a catalogue run. A chunk is a square of the survey (or one of its
// files); its points are read together with those of a buffer around it from every file that
// meets it, the pipeline runs on them all, and only the chunk's own points are written, so that
// neighbourhoods near its edges see the same points as in one run over the whole area.
#pragma once

#include "io/stream.hpp"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Quorvel::Cli {

struct ChunkJob {
  std::string pipeline;           // the pipeline file (its input and output elements ignored)
  std::vector<std::string> files; // every file whose bounds meet `read`, in the catalogue's order
  Las::Box read;                  // the chunk grown by the buffer: what is read
  // The chunk's own points: those of files[*ownFile] (a file chunk), or else those with
  // square[0] <= x < square[2] and square[1] <= y < square[3].
  std::optional<std::size_t> ownFile;
  std::array<double, 4> square{0, 0, 0, 0};
  std::string output; // where the chunk's own points go (LAS or LAZ by the name)
  int threads = 1;    // the threads of the run (OpenMP)
  // Where the top view by classification of the written points goes (PNG with its world file,
  // for a catalogue's overview page), thumbnailSize pixels along its longer side; empty: none.
  std::string thumbnail;
  std::size_t thumbnailSize = 128;
};

struct ChunkResult {
  std::uint64_t read = 0;    // points read, the buffer's included
  std::uint64_t own = 0;     // the chunk's own points before the pipeline
  std::uint64_t written = 0; // points written (none: no file is written)
  std::uint64_t ground = 0;  // points written of class 2 (ground)
  // The rasters that stages made, each cut to the chunk: the stem of the name the stage gave
  // ("dtm" for "dtm.tif") and the GeoTIFF written, OUTPUT-STEM_NAME-STEM.tif beside the output.
  std::vector<std::pair<std::string, std::string>> rasters;
};

// Runs one chunk; the output appears only when complete. Throws Error naming the file and the
// problem.
ChunkResult runChunk(const ChunkJob& job);

} // namespace Quorvel::Cli
