// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: pictures out through GDAL: PNG with a world file beside it, or GeoTIFF with the
// coordinate system; and the heights of raster grids for pictures of them.
#include "io/detail/gdal.hpp"
#include "io/detail/raster.hpp"

#include "basalt/replacing_file.hpp"

#include <cpl_conv.h>
#include <cpl_error.h>
#include <gdal_priv.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>

namespace Quorvel::Raster {

namespace {

using detail::Dataset;
using detail::fail;
using detail::gdalError;

std::string extensionOf(const std::string& path) {
  std::string ext = std::filesystem::path(path).extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ext;
}

// Creates the picture's four bands with the driver, from the pixels, georeferenced where the
// picture is; a PNG (which GDAL only copies) goes through an in-memory dataset.
Dataset create(GDALDriver& driver, const std::string& file, const Image& image, char** options) {
  const int w = static_cast<int>(image.width), h = static_cast<int>(image.height);
  Dataset out(driver.Create(file.c_str(), w, h, 4, GDT_Byte, options));
  if (!out)
    return out;
  auto* bytes = const_cast<std::uint8_t*>(&image.pixels.front().r);
  if (out->RasterIO(GF_Write, 0, 0, w, h, bytes, w, h, GDT_Byte, 4, nullptr, 4,
                    static_cast<GSpacing>(4) * w, 1, nullptr) != CE_None)
    return nullptr;
  out->GetRasterBand(4)->SetColorInterpretation(GCI_AlphaBand);
  return out;
}

void geoTransform(const Image& image, double t[6]) {
  t[0] = image.left;
  t[1] = image.pixelX;
  t[2] = 0.0;
  t[3] = image.top;
  t[4] = 0.0;
  t[5] = -image.pixelY;
}

// Closes the dataset, reporting a failure GDAL raises only on flushing (a full disk).
void close(Dataset& data, const std::string& path) {
  CPLErrorReset();
  data->FlushCache();
  data.reset();
  if (CPLGetLastErrorType() >= CE_Failure)
    fail(path, "cannot write the picture: " + gdalError("write error"));
}

void writePng(const std::string& path, const std::string& file, const Image& image) {
  GDALDriver* memory = GetGDALDriverManager()->GetDriverByName("MEM");
  GDALDriver* png = GetGDALDriverManager()->GetDriverByName("PNG");
  if (!memory || !png)
    fail(path, "GDAL has no PNG driver");
  Dataset pixels = create(*memory, "", image, nullptr);
  if (!pixels)
    fail(path, "cannot make the picture: " + gdalError("out of memory"));
  // zlib's fastest level: a picture of a million points is written in a third of the time of the
  // default level, and comes out about a tenth larger.
  char** options = CSLSetNameValue(nullptr, "ZLEVEL", "1");
  Dataset out(png->CreateCopy(file.c_str(), pixels.get(), FALSE, options, nullptr, nullptr));
  CSLDestroy(options);
  if (!out)
    fail(path, "cannot write the PNG: " + gdalError("write error"));
  close(out, path);
}

void writeTiff(const std::string& path, const std::string& file, const Image& image,
               const std::string& wkt) {
  GDALDriver* tiff = GetGDALDriverManager()->GetDriverByName("GTiff");
  if (!tiff)
    fail(path, "GDAL has no GeoTIFF driver");
  char** options = CSLSetNameValue(nullptr, "COMPRESS", "DEFLATE");
  options = CSLSetNameValue(options, "PHOTOMETRIC", "RGB");
  options = CSLSetNameValue(options, "ALPHA", "UNASSOCIATED");
  Dataset out = create(*tiff, file, image, options);
  CSLDestroy(options);
  if (!out)
    fail(path, "cannot write the GeoTIFF: " + gdalError("create error"));
  double t[6];
  geoTransform(image, t);
  if (image.georeferenced && (out->SetGeoTransform(t) != CE_None ||
                              (!wkt.empty() && out->SetProjection(wkt.c_str()) != CE_None)))
    fail(path, "cannot georeference the GeoTIFF: " + gdalError("write error"));
  close(out, path);
}

// The world file's six lines: pixel sizes and rotations, then the centre of the upper-left pixel.
std::string worldFileText(const Image& image) {
  char text[256];
  std::snprintf(text, sizeof text, "%.10f\n0.0\n0.0\n%.10f\n%.10f\n%.10f\n", image.pixelX,
                -image.pixelY, image.left + image.pixelX / 2, image.top - image.pixelY / 2);
  return text;
}

} // namespace

namespace Gdal {

void writePicture(const std::string& path, const Image& image, const std::string& wkt) {
  detail::registerDrivers();
  const std::string ext = extensionOf(path);
  if (ext != ".png" && ext != ".tif" && ext != ".tiff")
    fail(path, "a picture is written as .png or .tif, not \"" + ext + "\"");
  if (image.width == 0 || image.height == 0 || image.pixels.size() != image.width * image.height)
    fail(path, "the picture holds no pixels");
  try {
    Basalt::ReplacingFile file(path);
    if (ext == ".png")
      writePng(path, file.temporary(), image);
    else
      writeTiff(path, file.temporary(), image, wkt);
    if (ext == ".png" && image.georeferenced) {
      Basalt::ReplacingFile world(worldFilePath(path));
      const std::string text = worldFileText(image);
      world.write(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
      file.commit();
      world.commit();
    } else
      file.commit();
  } catch (const Basalt::ReplacingFile::Error& e) {
    throw Las::Error(e.what());
  }
}

void writeThumbnail(const std::string& path, const Tressel::Grid& cloud, std::size_t size) {
  writePicture(path, thumbnail(cloud, size), coordinateSystemOf(cloud, {}));
}

} // namespace Gdal

} // namespace Quorvel::Raster
