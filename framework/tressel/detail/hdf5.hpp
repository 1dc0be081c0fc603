// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework: small owning wrappers of HDF5 handles, private to the bundle code.
#pragma once

#include <hdf5.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace Tressel::detail {

// A failed HDF5 call inside the bundle code; the bundle turns it into its error text.
struct Hdf5Error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Owns one HDF5 identifier and closes it with the matching call.
class Handle {
public:
  using Closer = herr_t (*)(hid_t);

  Handle() = default;
  Handle(hid_t id, Closer closer, const std::string& what) : id_(id), closer_(closer) {
    if (id_ < 0)
      throw Hdf5Error(what);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  Handle(Handle&& other) noexcept : id_(std::exchange(other.id_, -1)), closer_(other.closer_) {}
  Handle& operator=(Handle&& other) noexcept {
    if (this != &other) {
      reset();
      id_ = std::exchange(other.id_, -1);
      closer_ = other.closer_;
    }
    return *this;
  }
  ~Handle() { reset(); }

  hid_t get() const { return id_; }
  operator hid_t() const { return id_; }
  // Closes now; false when the close failed (data may not have reached the file).
  bool reset() {
    bool ok = true;
    if (id_ >= 0 && closer_)
      ok = closer_(id_) >= 0;
    id_ = -1;
    return ok;
  }

private:
  hid_t id_ = -1;
  Closer closer_ = nullptr;
};

} // namespace Tressel::detail
