// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: what the filters need from GDAL: polygons from vector files, coordinate transforms
// through OSR and PROJ, and the coordinate-system records of a reprojected LAS file.
#include "io/detail/gdal.hpp"
#include "io/detail/raster.hpp"

#include <cpl_conv.h>
#include <cpl_error.h>
#include <gdal_priv.h>
#include <ogr_geometry.h>
#include <ogr_spatialref.h>
#include <ogrsf_frmts.h>
#include <proj.h>

#include <cstring>
#include <memory>
#include <set>

namespace Quorvel::Raster {

namespace {

std::string gdalMessage() {
  const char* text = CPLGetLastErrorMsg();
  return text && *text ? std::string(": ") + text : std::string();
}

// A coordinate system from what a user types (EPSG:n, WKT, a PROJ string), in x-y (easting,
// longitude first) order whatever the authority's axis order.
std::unique_ptr<OGRSpatialReference> referenceOf(const std::string& text, const std::string& what) {
  auto reference = std::make_unique<OGRSpatialReference>();
  CPLErrorReset();
  if (text.empty() || reference->SetFromUserInput(text.c_str()) != OGRERR_NONE)
    throw Las::Error(what + " \"" + text + "\" is no coordinate system GDAL reads" + gdalMessage());
  reference->SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
  return reference;
}

void appendPolygon(const OGRPolygon& polygon, std::vector<Polygon>& out) {
  Polygon p;
  for (const OGRLinearRing* ring : polygon) {
    Ring r;
    for (const OGRPoint& v : *ring)
      r.push_back({v.getX(), v.getY()});
    p.rings.push_back(std::move(r));
  }
  out.push_back(std::move(p));
}

// The polygons of a geometry (polygons, multipolygons, curved ones as line segments, and
// collections of them); false for any other kind.
bool appendGeometry(const OGRGeometry& geometry, std::vector<Polygon>& out) {
  switch (wkbFlatten(geometry.getGeometryType())) {
  case wkbPolygon:
    appendPolygon(*geometry.toPolygon(), out);
    return true;
  case wkbMultiPolygon:
  case wkbGeometryCollection:
    for (const OGRGeometry* part : *geometry.toGeometryCollection())
      if (!appendGeometry(*part, out))
        return false;
    return true;
  case wkbCurvePolygon:
  case wkbMultiSurface: {
    const std::unique_ptr<OGRGeometry> linear(geometry.getLinearGeometry());
    return linear && appendGeometry(*linear, out);
  }
  default:
    return false;
  }
}

// PROJ's objects, freed by their own functions.
template <auto Free>
struct Freeing {
  template <class T>
  void operator()(T* p) const {
    Free(p);
  }
};
template <class T, auto Free>
using Owned = std::unique_ptr<T, Freeing<Free>>;

// A system as PROJ reads it, through its WKT2 (which keeps the grids of a bound system).
Owned<PJ, proj_destroy> projSystem(PJ_CONTEXT* context, const OGRSpatialReference& reference) {
  char* wkt = nullptr;
  const char* const options[] = {"FORMAT=WKT2_2019", nullptr};
  Owned<PJ, proj_destroy> system;
  if (reference.exportToWkt(&wkt, options) == OGRERR_NONE && wkt)
    system.reset(proj_create(context, wkt));
  CPLFree(wkt);
  return system;
}

// The grids PROJ lacks when every operation between the systems, ballpark ones aside, needs
// one of them; empty when one can run. Without this, PROJ would fall back on a ballpark
// operation and leave heights unchanged without a word.
std::string missingGrids(const OGRSpatialReference& from, const OGRSpatialReference& to) {
  const Owned<PJ_CONTEXT, proj_context_destroy> context(proj_context_create());
  proj_log_level(context.get(), PJ_LOG_NONE);
  const auto a = projSystem(context.get(), from), b = projSystem(context.get(), to);
  const Owned<PJ_OPERATION_FACTORY_CONTEXT, proj_operation_factory_context_destroy> factory(
      proj_create_operation_factory_context(context.get(), nullptr));
  if (!a || !b || !factory)
    return {};
  proj_operation_factory_context_set_grid_availability_use(context.get(), factory.get(),
                                                           PROJ_GRID_AVAILABILITY_USED_FOR_SORTING);
  proj_operation_factory_context_set_allow_ballpark_transformations(context.get(), factory.get(),
                                                                    0);
  const Owned<PJ_OBJ_LIST, proj_list_destroy> operations(
      proj_create_operations(context.get(), a.get(), b.get(), factory.get()));
  std::set<std::string> missing;
  bool runs = false;
  const int count = operations ? proj_list_get_count(operations.get()) : 0;
  for (int k = 0; k < count && !runs; ++k) {
    const Owned<PJ, proj_destroy> operation(proj_list_get(context.get(), operations.get(), k));
    runs = proj_coordoperation_is_instantiable(context.get(), operation.get());
    for (int g = 0; g < proj_coordoperation_get_grid_used_count(context.get(), operation.get());
         ++g) {
      const char* name = nullptr;
      int available = 1;
      proj_coordoperation_get_grid_used(context.get(), operation.get(), g, &name, nullptr, nullptr,
                                        nullptr, nullptr, nullptr, &available);
      if (!available && name)
        missing.insert(name);
    }
  }
  std::string names;
  for (const std::string& name : missing)
    names += (names.empty() ? "" : " or ") + name;
  return runs ? std::string() : names;
}

} // namespace

namespace Gdal {

std::vector<Polygon> readPolygons(const std::string& path, const std::string& layerName,
                                  const std::string& filter, const std::string& cloudWkt) {
  detail::registerDrivers();
  CPLErrorReset();
  const std::unique_ptr<GDALDataset, void (*)(GDALDataset*)> data(
      GDALDataset::FromHandle(
          GDALOpenEx(path.c_str(), GDAL_OF_VECTOR | GDAL_OF_READONLY, nullptr, nullptr, nullptr)),
      [](GDALDataset* d) { GDALClose(d); });
  if (!data)
    throw Las::Error(path + ": not a vector file GDAL reads" + gdalMessage());
  OGRLayer* layer = layerName.empty() ? data->GetLayer(0) : data->GetLayerByName(layerName.c_str());
  if (!layer)
    throw Las::Error(path + ": no layer" + (layerName.empty() ? "" : " \"" + layerName + "\""));
  CPLErrorReset();
  if (!filter.empty() && layer->SetAttributeFilter(filter.c_str()) != OGRERR_NONE)
    throw Las::Error(path + ": feature filter \"" + filter + "\" refused" + gdalMessage());
  std::unique_ptr<OGRCoordinateTransformation> transform;
  const OGRSpatialReference* own = layer->GetSpatialRef();
  if (own && !cloudWkt.empty()) {
    OGRSpatialReference source(*own);
    source.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    const auto target = referenceOf(cloudWkt, "the cloud's coordinate system");
    if (!source.IsSame(target.get())) {
      transform.reset(OGRCreateCoordinateTransformation(&source, target.get()));
      if (!transform)
        throw Las::Error(path + ": no transform to the cloud's coordinate system" + gdalMessage());
    }
  }
  std::vector<Polygon> polygons;
  layer->ResetReading();
  for (auto& feature : *layer) {
    OGRGeometry* geometry = feature->GetGeometryRef();
    if (!geometry)
      continue;
    if (transform && geometry->transform(transform.get()) != OGRERR_NONE)
      throw Las::Error(path + ": feature " + std::to_string(feature->GetFID()) +
                       " cannot be carried into the cloud's coordinate system");
    if (!appendGeometry(*geometry, polygons))
      throw Las::Error(path + ": feature " + std::to_string(feature->GetFID()) + " is a " +
                       OGRGeometryTypeToName(geometry->getGeometryType()) + ", not a polygon");
  }
  return polygons;
}

Transformation transformation(const std::string& from, const std::string& to) {
  detail::registerDrivers();
  const auto source = referenceOf(from, "--from");
  const auto target = referenceOf(to, "--to");
  Transformation t;
  char* wkt = nullptr;
  if (target->exportToWkt(&wkt) == OGRERR_NONE && wkt)
    if (const auto cs = coordinateSystemOfWkt(wkt))
      t.target = *cs;
  CPLFree(wkt);
  if (source->IsVertical() || target->IsVertical())
    if (const std::string grids = missingGrids(*source, *target); !grids.empty())
      throw Las::Error("from \"" + from + "\" to \"" + to + "\" needs the grid " + grids +
                       ", which PROJ does not find (put it in PROJ's data directory or name "
                       "that directory in PROJ_DATA)");
  std::shared_ptr<const OGRSpatialReference> a(source->Clone()), b(target->Clone());
  // Checked once here, so that a refusal names the systems before any point is read.
  if (!std::unique_ptr<OGRCoordinateTransformation>(
          OGRCreateCoordinateTransformation(a.get(), b.get())))
    throw Las::Error("no transform from \"" + from + "\" to \"" + to + "\"" + gdalMessage());
  t.factory = [a, b]() -> PointTransform {
    std::shared_ptr<OGRCoordinateTransformation> ct(
        OGRCreateCoordinateTransformation(a.get(), b.get()));
    return [ct](std::size_t n, double* x, double* y, double* z) {
      std::vector<int> ok(n);
      if (!ct || !ct->Transform(static_cast<int>(n), x, y, z, nullptr, ok.data()))
        return false;
      for (const int o : ok)
        if (!o)
          return false;
      return true;
    };
  };
  return t;
}

void setCoordinateSystem(Las::FileInfo& info, const CoordinateSystem& cs) {
  const auto projection = [](const Las::Vlr& v) { return v.userId == "LASF_Projection"; };
  std::erase_if(info.vlrs, projection);
  std::erase_if(info.evlrs, projection);
  Las::Vlr record;
  record.userId = "LASF_Projection";
  if (info.header.versionMajor == 1 && info.header.versionMinor >= 4) {
    record.recordId = 2112;
    record.description = "OGC WKT";
    record.data.assign(cs.wkt.begin(), cs.wkt.end());
    record.data.push_back(0);
    info.header.globalEncoding |= 16;
    info.vlrs.push_back(std::move(record));
    return;
  }
  if (cs.epsg == 0)
    throw Las::Error("LAS " + std::to_string(info.header.versionMinor) +
                     " holds a coordinate system as GeoTIFF keys, which need an EPSG code; \"" +
                     cs.name + "\" has none (write LAS 1.4, e.g. convert the input first)");
  OGRSpatialReference reference;
  reference.importFromWkt(cs.wkt.c_str());
  const bool angular = reference.IsGeographic();
  // The key directory: version 1.1.0, then GTModelType (2 geographic, 1 projected),
  // GTRasterType (1: pixel is area) and the EPSG code of the system.
  const std::uint16_t keys[] = {1,
                                1,
                                0,
                                3,
                                1024,
                                0,
                                1,
                                static_cast<std::uint16_t>(angular ? 2 : 1),
                                1025,
                                0,
                                1,
                                1,
                                static_cast<std::uint16_t>(angular ? 2048 : 3072),
                                0,
                                1,
                                static_cast<std::uint16_t>(cs.epsg)};
  record.recordId = 34735;
  record.description = "GeoTIFF GeoKeyDirectoryTag";
  record.data.resize(sizeof keys);
  std::memcpy(record.data.data(), keys, sizeof keys);
  info.header.globalEncoding &= static_cast<std::uint16_t>(~16u);
  info.vlrs.push_back(std::move(record));
}

} // namespace Gdal

} // namespace Quorvel::Raster
