// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: representations and field slots.
#include "tressel/representation.hpp"

#include <algorithm>

namespace Tressel {

FieldProxy::operator StrongPtr<Field>() const {
  if (!representation_)
    return nullptr;
  return representation_->makeField(representation_->makeFieldID(name_),
                                    representation_->fragmentLayout(), nullptr, 0);
}

FieldProxy& FieldProxy::operator=(const StrongPtr<Field>& field) {
  if (representation_)
    representation_->setField(name_, field);
  return *this;
}

StrongPtr<Field> FieldProxy::find() const {
  return representation_ ? representation_->findField(name_) : nullptr;
}

StrongPtr<FieldID> Representation::findFieldID(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [id, field] : fields_)
    if (id->Name() == name)
      return id;
  return nullptr;
}

StrongPtr<FieldID> Representation::makeFieldID(const std::string& name) {
  if (auto id = findFieldID(name))
    return id;
  return std::make_shared<FieldID>(name);
}

StrongPtr<Field> Representation::findField(const StrongPtr<FieldID>& id) const {
  return id ? findField(id->Name()) : nullptr;
}

StrongPtr<Field> Representation::findField(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [id, field] : fields_)
    if (id->Name() == name)
      return field;
  return nullptr;
}

StrongPtr<Field> Representation::makeField(const StrongPtr<FieldID>& id,
                                           const StrongPtr<FragmentIDCollection>& fragments,
                                           const MemBase& prototype) {
  return makeField(id, fragments, &prototype.elementType(), prototype.rank());
}

StrongPtr<Field> Representation::makeField(const StrongPtr<FieldID>& id,
                                           const StrongPtr<FragmentIDCollection>& fragments,
                                           const TresselTypeBase* elementType, int rank) {
  if (!id)
    return nullptr;
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [existingID, field] : fields_) {
    if (existingID->Name() != id->Name())
      continue;
    const TresselTypeBase* type = field->getElementType();
    if (!elementType || !type)
      return field;
    return sameType(*type, *elementType) && field->getRank() == rank ? field : nullptr;
  }
  auto field = std::make_shared<Field>(fragments, elementType, rank);
  fields_.emplace_back(id, field);
  return field;
}

void Representation::setField(const std::string& name, const StrongPtr<Field>& field) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& [id, existing] : fields_)
    if (id->Name() == name) {
      existing = field;
      return;
    }
  fields_.emplace_back(std::make_shared<FieldID>(name), field);
}

bool Representation::removeField(const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto found = std::find_if(fields_.begin(), fields_.end(),
                                  [&](const auto& entry) { return entry.first->Name() == name; });
  if (found == fields_.end())
    return false;
  fields_.erase(found);
  return true;
}

StrongPtr<FragmentIDCollection> Representation::fragmentLayout() const {
  if (auto positions = findField(PositionsFieldName))
    return positions->getFragmentIDCollection();
  std::lock_guard<std::mutex> lock(mutex_);
  if (!ownLayout_)
    ownLayout_ = std::make_shared<FragmentIDCollection>();
  return ownLayout_;
}

bool Representation::iterate(FieldIterator& iterator) const {
  for (const auto& [id, field] : snapshot())
    if (!iterator.apply(id, field))
      return false;
  return true;
}

std::vector<std::pair<StrongPtr<FieldID>, StrongPtr<Field>>> Representation::snapshot() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return fields_;
}

} // namespace Tressel
