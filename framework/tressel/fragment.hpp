// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: fragment identifiers and fragment layouts.
#pragma once

#include "basalt/strong_ptr.hpp"

#include <cstddef>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace Tressel {

using Basalt::StrongPtr;

class FragmentIDCollection;

// Names one fragment (a block of points stored and loaded as one unit). Fragments are numbered
// 0, 1, 2, ... in the order their collection made them.
class FragmentID : public Basalt::ReferenceBase {
public:
  FragmentID(std::string name, unsigned number, const FragmentIDCollection* owner)
      : name_(std::move(name)), number_(number), owner_(owner) {}

  const std::string& Name() const { return name_; }
  unsigned number() const { return number_; }
  const FragmentIDCollection* owner() const { return owner_; }

private:
  std::string name_;
  unsigned number_;
  const FragmentIDCollection* owner_;
};

// The fragment layout shared by all fields of one representation: the same fragment IDs in the
// same order. Appending is thread-safe, and readers see a consistent list.
class FragmentIDCollection : public Basalt::ReferenceBase {
public:
  // Appends a fragment; a name already present returns the existing ID.
  StrongPtr<FragmentID> makeFragmentID(const std::string& name);
  // The fragment of that number (0-based), or empty.
  StrongPtr<FragmentID> findFragmentID(unsigned number) const;
  StrongPtr<FragmentID> findFragmentID(const std::string& name) const;
  std::size_t size() const;
  // The fragment IDs in order, as a copy that stays valid while others append.
  std::vector<StrongPtr<FragmentID>> fragments() const;

private:
  mutable std::shared_mutex mutex_;
  std::vector<StrongPtr<FragmentID>> ids_;
  // Each name's place in ids_: a layout of tens of thousands of fragments (a raster in small
  // tiles) is built and searched by name without a scan per fragment.
  std::unordered_map<std::string, std::size_t> byName_;
};

} // namespace Tressel
