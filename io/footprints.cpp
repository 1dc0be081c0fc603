// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the footprints of a survey's files as a GeoPackage, through GDAL's vector drivers.
#include "io/detail/gdal.hpp"
#include "io/detail/raster.hpp"

#include "basalt/replacing_file.hpp"

#include <cpl_error.h>
#include <gdal_priv.h>
#include <ogrsf_frmts.h>

#include <cstdio>
#include <memory>

namespace Quorvel::Raster {

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& what) {
  const char* text = CPLGetLastErrorMsg();
  throw Las::Error(path + ": cannot write the index: " + (text && *text ? text : what));
}

// The layer's fields, in their order.
void addFields(OGRLayer& layer, const std::string& path) {
  const std::pair<const char*, OGRFieldType> fields[] = {
      {"file", OFTString},          {"type", OFTString}, {"points", OFTInteger64},
      {"point_format", OFTInteger}, {"min_z", OFTReal},  {"max_z", OFTReal}};
  for (const auto& [name, type] : fields) {
    OGRFieldDefn field(name, type);
    if (layer.CreateField(&field) != OGRERR_NONE)
      fail(path, std::string("field ") + name);
  }
}

void addFeature(OGRLayer& layer, const Footprint& f, const std::string& path) {
  OGRFeature feature(layer.GetLayerDefn());
  feature.SetField("file", f.file.c_str());
  feature.SetField("type", f.type.c_str());
  feature.SetField("points", static_cast<GIntBig>(f.points));
  feature.SetField("point_format", f.pointFormat);
  feature.SetField("min_z", f.min[2]);
  feature.SetField("max_z", f.max[2]);
  OGRLinearRing ring;
  ring.addPoint(f.min[0], f.min[1]);
  ring.addPoint(f.max[0], f.min[1]);
  ring.addPoint(f.max[0], f.max[1]);
  ring.addPoint(f.min[0], f.max[1]);
  ring.closeRings();
  OGRPolygon polygon;
  polygon.addRing(&ring);
  feature.SetGeometry(&polygon);
  if (layer.CreateFeature(&feature) != OGRERR_NONE)
    fail(path, "feature of " + f.file);
}

} // namespace

namespace Gdal {

void writeFootprints(const std::string& path, const std::vector<Footprint>& footprints,
                     const std::optional<CoordinateSystem>& cs) {
  detail::registerDrivers();
  GDALDriver* driver = GetGDALDriverManager()->GetDriverByName("GPKG");
  if (!driver)
    throw Las::Error(path + ": GDAL has no GeoPackage driver");
  try {
    Basalt::ReplacingFile file(path);
    // The driver makes its file itself: the empty temporary goes first, its name stays ours.
    std::remove(file.temporary().c_str());
    {
      CPLErrorReset();
      detail::Dataset out(driver->Create(file.temporary().c_str(), 0, 0, 0, GDT_Unknown, nullptr));
      if (!out)
        fail(path, "create error");
      OGRSpatialReference reference;
      const bool located =
          cs && (cs->epsg > 0 ? reference.importFromEPSG(cs->epsg)
                              : reference.importFromWkt(cs->wkt.c_str())) == OGRERR_NONE;
      reference.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
      OGRLayer* layer =
          out->CreateLayer("footprints", located ? &reference : nullptr, wkbPolygon, nullptr);
      if (!layer)
        fail(path, "layer error");
      addFields(*layer, path);
      for (const Footprint& f : footprints)
        addFeature(*layer, f, path);
      CPLErrorReset();
      out.reset(); // closing writes what GDAL still holds
      if (CPLGetLastErrorType() >= CE_Failure)
        fail(path, "write error");
    }
    file.commit();
  } catch (const Basalt::ReplacingFile::Error& e) {
    throw Las::Error(e.what());
  }
}

} // namespace Gdal

} // namespace Quorvel::Raster
