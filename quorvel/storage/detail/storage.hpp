// Quorvel: the library's own storage policy for the files it writes back.
#pragma once

#include "quorvel/storage/storage.hpp"

namespace Quorvel::detail {

// The same rules as Wexlin::MyStorage: the library writes results with the policy a host would
// use, so a file it writes back reads the same as one the host wrote.
class MyStorage final : public Wexlin::MyStorage {};

} // namespace Quorvel::detail
