// Quorvel: the instances of the spatial index that the library exports.
#include "quorvel/spatial/spatial.hpp"

namespace Tarrow {

template class OcTreeStd<unsigned int, point, 2>;
template class OcTreeStd<unsigned int, point, 3>;
template class OcTreeStd<unsigned long long, point, 2>;
template class OcTreeStd<unsigned long long, point, 3>;

} // namespace Tarrow
