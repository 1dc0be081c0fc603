// Quorvel: point-cloud algorithms for airborne and terrestrial LIDAR. Including this header
// reaches every exported function and parameter box, and the framework types they take.
#pragma once

#include "basalt/Cache.hpp"
#include "basalt/Console.hpp"
#include "basalt/LoaderProgress.hpp"
#include "basalt/StringList.hpp"
#include "basalt/StrongPtr.hpp"
#include "tressel/BoundingBoxes.hpp"
#include "tressel/Bundle.hpp"
#include "tressel/DataRange.hpp"
#include "tressel/Grid.hpp"
#include "tressel/MemArray.hpp"
#include "tressel/PointCloud.hpp"
#include "tressel/UniformGrid.hpp"
#include "vantor/BoundingBox.hpp"
#include "vantor/MultiRange.hpp"
#include "vantor/PhysicalSpace.hpp"

#include "quorvel/classification/classification.hpp"
#include "quorvel/core/core.hpp"
#include "quorvel/features/features.hpp"
#include "quorvel/geometry/geometry.hpp"
#include "quorvel/metadata/metadata.hpp"
#include "quorvel/selection/selection.hpp"
#include "quorvel/spatial/spatial.hpp"
#include "quorvel/storage/storage.hpp"
#include "quorvel/terrain/terrain.hpp"
