// SPDX-License-Identifier: BSD-3-Clause
// Quorvel for Python: what the catalogue engine (quorvel/catalog.py) asks of the library: the
// facts of a survey's files from their headers, and the run of one chunk in a worker.
#include "cloud.hpp"

#include "cli/chunk.hpp"
#include "cli/stages.hpp"
#include "io/raster.hpp"

#include <pybind11/stl.h>

namespace Quorvel::Python {

void bindCatalog(py::module_& m) {
  m.def(
      "_catalog_headers",
      [](const std::vector<std::string>& paths) {
        py::list facts;
        for (const std::string& path : paths) {
          py::dict f;
          f["path"] = path;
          std::optional<Las::Reader> reader;
          std::string problem;
          {
            py::gil_scoped_release released;
            try {
              reader.emplace(path, readWarnings(path));
            } catch (const std::exception& e) {
              problem = e.what();
            }
          }
          if (!reader) {
            f["error"] = problem; // the file's chunk fails with it, the others go on
            facts.append(f);
            continue;
          }
          const Las::FileInfo& info = reader->info();
          const Las::Header& h = info.header;
          f["points"] = h.pointCount;
          f["min"] = h.min;
          f["max"] = h.max;
          f["crs"] = Raster::coordinateSystemKey(info);
          f["point_format"] = static_cast<int>(h.pointFormat);
          facts.append(f);
        }
        return facts;
      },
      py::arg("paths"),
      "The header facts of LAS and LAZ files (path, points, min, max, crs, point_format), or\n"
      "(path, error) for a file that cannot be read.");
  m.def(
      "_catalog_check_pipeline",
      [](const std::string& pipeline) { Cli::readPipeline(pipeline, false); }, py::arg("pipeline"),
      "Reads a pipeline file and checks every stage, as a catalogue's chunks will read it.");
  m.def(
      "_catalog_run_chunk",
      [](const std::string& pipeline, const std::vector<std::string>& files,
         const std::array<double, 4>& read, std::optional<std::size_t> ownFile,
         const std::array<double, 4>& square, const std::string& output, int threads,
         const std::string& thumbnail) {
        Cli::ChunkJob job{pipeline, files,    {read[0], read[1], read[2], read[3], {}},
                          ownFile,  square,   output,
                          threads,  thumbnail};
        Cli::ChunkResult result;
        {
          py::gil_scoped_release released;
          result = Cli::runChunk(job);
        }
        py::dict r;
        r["read"] = result.read;
        r["own"] = result.own;
        r["written"] = result.written;
        r["ground"] = result.ground;
        py::list rasters;
        for (const auto& [stem, path] : result.rasters)
          rasters.append(py::make_tuple(stem, path));
        r["rasters"] = rasters;
        return r;
      },
      py::arg("pipeline"), py::arg("files"), py::arg("read"), py::arg("own_file"),
      py::arg("square"), py::arg("output"), py::arg("threads") = 1, py::arg("thumbnail") = "",
      "Runs one chunk of a catalogue: the points of files within read (x0, y0, x1, y1), the\n"
      "pipeline's stages on them all, and the chunk's own points (those of files[own_file], or\n"
      "else those in the half-open square) written to output, and the rasters stages made cut\n"
      "to the square; with thumbnail a path, the top view by classification of the points\n"
      "written goes there. Returns the counts (read, own, written, ground: class 2 points\n"
      "written) and the rasters written.");
  m.def(
      "_catalog_mosaic",
      [](const std::string& path, const std::vector<std::string>& files) {
        py::gil_scoped_release released;
        Raster::writeMosaic(path, files);
      },
      py::arg("path"), py::arg("files"), "Writes a GDAL VRT mosaic of the rasters at path.");
}

} // namespace Quorvel::Python
