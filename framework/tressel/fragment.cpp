// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: fragment identifiers, layouts and creators.
#include "tressel/fragment.hpp"
#include "tressel/creative_array.hpp"

#include "basalt/console.hpp"

#include <mutex>

namespace Tressel {

StrongPtr<FragmentID> FragmentIDCollection::makeFragmentID(const std::string& name) {
  std::unique_lock<std::shared_mutex> lock(mutex_);
  const auto [at, added] = byName_.try_emplace(name, ids_.size());
  if (added)
    ids_.push_back(std::make_shared<FragmentID>(name, static_cast<unsigned>(ids_.size()), this));
  return ids_[at->second];
}

StrongPtr<FragmentID> FragmentIDCollection::findFragmentID(unsigned number) const {
  std::shared_lock<std::shared_mutex> lock(mutex_);
  return number < ids_.size() ? ids_[number] : nullptr;
}

StrongPtr<FragmentID> FragmentIDCollection::findFragmentID(const std::string& name) const {
  std::shared_lock<std::shared_mutex> lock(mutex_);
  const auto at = byName_.find(name);
  return at == byName_.end() ? nullptr : ids_[at->second];
}

std::size_t FragmentIDCollection::size() const {
  std::shared_lock<std::shared_mutex> lock(mutex_);
  return ids_.size();
}

std::vector<StrongPtr<FragmentID>> FragmentIDCollection::fragments() const {
  std::shared_lock<std::shared_mutex> lock(mutex_);
  return ids_;
}

CreativeArrayBase::CreativeArrayBase(StrongPtr<MemBase> data, std::string name,
                                     CreationFailAlternative onFail,
                                     const StrongPtr<Basalt::Cache>& cache)
    : data_(std::move(data)), name_(std::move(name)), onFail_(onFail), age_(advanceAge()) {
  if (data_ && cache)
    cache->remember(data_->myChunk());
}

StrongPtr<MemBase> CreativeArrayBase::getData() const {
  if (!data_ && onFail_ == CreationFailAlternative::Report)
    Basalt::Console() << "CreativeArrayBase: no data for " << name_;
  return data_;
}

const TresselTypeBase* CreativeArrayBase::getTresselType() const {
  return data_ ? &data_->elementType() : nullptr;
}

MemBase::Extents CreativeArrayBase::getSize() const {
  return data_ ? data_->extents() : MemBase::Extents{};
}

StrongPtr<MemBase> CreativeArrayBase::pullData() const {
  return data_ ? data_->clone() : nullptr;
}

void CreativeArrayBase::touch() {
  age_.store(advanceAge(), std::memory_order_release);
}

unsigned long long CreativeArrayBase::advanceAge() {
  static std::atomic<unsigned long long> globalAge{0};
  return globalAge.fetch_add(1, std::memory_order_acq_rel) + 1;
}

} // namespace Tressel
