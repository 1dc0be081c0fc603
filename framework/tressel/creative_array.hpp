// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: the creator of a fragment's data.
#pragma once

#include "basalt/attributes.hpp"
#include "basalt/cache.hpp"
#include "basalt/intercube.hpp"
#include "tressel/mem_base.hpp"

#include <atomic>
#include <string>

namespace Tressel {

// What a creator does when it is asked for data that it does not hold.
enum class CreationFailAlternative {
  ReturnEmpty, // answer with an empty pointer; the caller reports
  Report       // also write "CreativeArrayBase: no data for <name>" to standard output
};

// The object that holds (and for file-bound data, loads) the array of one fragment of a field.
// A creator's data does not change after construction: attaching new data to a fragment makes a
// new creator, so readers holding the old one are never disturbed. Arrays written in place are
// marked with touch(), which gives them a new age. Values ranges and the stored bounding box of
// a fragment are attached to its creator as interfaces.
class CreativeArrayBase : public Basalt::ReferenceBase, public Basalt::Intercube {
public:
  CreativeArrayBase(StrongPtr<MemBase> data, std::string name,
                    CreationFailAlternative onFail = CreationFailAlternative::ReturnEmpty,
                    const StrongPtr<Basalt::Cache>& cache = Basalt::Cache::MemCache());

  // The fragment's data; empty when the creator holds none.
  StrongPtr<MemBase> getData() const;
  // The data without the report of a missing array.
  const StrongPtr<MemBase>& peekData() const { return data_; }
  // Element type of the data, or null when there is none.
  const TresselTypeBase* getTresselType() const;
  // Extents of the data; empty when there is none.
  MemBase::Extents getSize() const;
  // A copy of the data in a new array (empty when there is none).
  StrongPtr<MemBase> pullData() const;
  const std::string& name() const { return name_; }

  // Marks the data as changed after it was written in place.
  void touch();
  // The global age at creation or at the last touch(); later changes have larger ages.
  unsigned long long age() const { return age_.load(std::memory_order_acquire); }
  // Advances the process-wide age counter and returns the new age.
  static unsigned long long advanceAge();

  Basalt::Attributes& attributes() { return attributes_; }
  const Basalt::Attributes& attributes() const { return attributes_; }

private:
  StrongPtr<MemBase> data_;
  std::string name_;
  CreationFailAlternative onFail_;
  std::atomic<unsigned long long> age_;
  Basalt::Attributes attributes_;
};

} // namespace Tressel
