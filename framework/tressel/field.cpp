// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: fields.
#include "tressel/field.hpp"

#include <mutex>

namespace Tressel {

bool sameType(const TresselTypeBase& a, const TresselTypeBase& b) {
  return &a == &b || (a.name() == b.name() && a.typeInfo() == b.typeInfo());
}

Field::Field(StrongPtr<FragmentIDCollection> fragments, const TresselTypeBase* elementType,
             int rank)
    : fragments_(fragments ? std::move(fragments) : std::make_shared<FragmentIDCollection>()),
      elementType_(elementType), rank_(elementType ? rank : 0) {}

const StrongPtr<Field>& Field::NullPtrField() {
  static const StrongPtr<Field> none;
  return none;
}

StrongPtr<FragmentID> Field::makeFragmentID(const std::string& name) {
  return fragments_->makeFragmentID(name);
}

bool Field::iterate(FragmentIterator& iterator, const FragmentSelector& selector) const {
  for (const auto& id : fragments_->fragments()) {
    if (selector && !selector(*id))
      continue;
    if (!iterator.apply(id, getCreator(*id)))
      return false;
  }
  return true;
}

StrongPtr<CreativeArrayBase> Field::getCreator(const FragmentID& id) const {
  std::shared_lock<std::shared_mutex> lock(mutex_);
  auto it = creators_.find(&id);
  return it == creators_.end() ? nullptr : it->second;
}

StrongPtr<CreativeArrayBase> Field::getCreator(const StrongPtr<FragmentID>& id) const {
  return id ? getCreator(*id) : nullptr;
}

StrongPtr<MemBase> Field::getData(const FragmentID& id) const {
  auto creator = getCreator(id);
  return creator ? creator->getData() : nullptr;
}

StrongPtr<MemBase> Field::getData(const StrongPtr<FragmentID>& id) const {
  return id ? getData(*id) : nullptr;
}

const TresselTypeBase* Field::getElementType() const {
  std::shared_lock<std::shared_mutex> lock(mutex_);
  return elementType_;
}

int Field::getRank() const {
  std::shared_lock<std::shared_mutex> lock(mutex_);
  return rank_;
}

StrongPtr<CreativeArrayBase> Field::createCreator(const StrongPtr<MemBase>& data,
                                                  const std::string& name,
                                                  CreationFailAlternative onFail,
                                                  const StrongPtr<Basalt::Cache>& cache) const {
  return std::make_shared<CreativeArrayBase>(data, name, onFail, cache);
}

// Called with the write lock held.
bool Field::accepts(const FragmentID& id, const MemBase* data) {
  if (id.owner() != fragments_.get())
    return false;
  if (!data)
    return true;
  if (!elementType_) {
    elementType_ = &data->elementType();
    rank_ = data->rank();
    return true;
  }
  return sameType(*elementType_, data->elementType()) && rank_ == data->rank();
}

StrongPtr<CreativeArrayBase> Field::setPersistentData(const StrongPtr<MemBase>& data,
                                                      const StrongPtr<FragmentID>& id,
                                                      const StrongPtr<Basalt::Cache>& cache,
                                                      const std::string& name) {
  if (!id)
    return nullptr;
  auto creator = std::make_shared<CreativeArrayBase>(data, name.empty() ? id->Name() : name,
                                                     CreationFailAlternative::ReturnEmpty, cache);
  return setCreator(id, creator) ? creator : nullptr;
}

bool Field::setCreator(const StrongPtr<FragmentID>& id,
                       const StrongPtr<CreativeArrayBase>& creator) {
  if (!id || !creator)
    return false;
  const auto& data = creator->peekData();
  std::unique_lock<std::shared_mutex> lock(mutex_);
  if (!accepts(*id, data.get()))
    return false;
  creators_[id.get()] = creator;
  return true;
}

} // namespace Tressel
