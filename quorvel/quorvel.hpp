// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: point-cloud algorithms for airborne and terrestrial LIDAR. Including this header
// reaches every exported function and parameter box, and the framework types they take.
#pragma once

#include "basalt/cache.hpp"
#include "basalt/console.hpp"
#include "basalt/loader_progress.hpp"
#include "basalt/string_list.hpp"
#include "basalt/strong_ptr.hpp"
#include "tressel/bounding_boxes.hpp"
#include "tressel/bundle.hpp"
#include "tressel/data_range.hpp"
#include "tressel/grid.hpp"
#include "tressel/mem_array.hpp"
#include "tressel/point_cloud.hpp"
#include "tressel/uniform_grid.hpp"
#include "vantor/bounding_box.hpp"
#include "vantor/multi_range.hpp"
#include "vantor/physical_space.hpp"

#include "quorvel/classification/classification.hpp"
#include "quorvel/core/core.hpp"
#include "quorvel/features/features.hpp"
#include "quorvel/filters/filters.hpp"
#include "quorvel/geometry/geometry.hpp"
#include "quorvel/metadata/metadata.hpp"
#include "quorvel/raster/raster.hpp"
#include "quorvel/render/render.hpp"
#include "quorvel/selection/selection.hpp"
#include "quorvel/spatial/spatial.hpp"
#include "quorvel/storage/storage.hpp"
#include "quorvel/terrain/terrain.hpp"
