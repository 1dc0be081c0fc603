// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: representations and field slots.
#include "tressel/representation.hpp"

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

Representation::Entry* Representation::entry(const std::string& name) {
  const auto place = places_.find(name);
  return place == places_.end() ? nullptr : &fields_[place->second];
}

const Representation::Entry* Representation::entry(const std::string& name) const {
  const auto place = places_.find(name);
  return place == places_.end() ? nullptr : &fields_[place->second];
}

void Representation::append(StrongPtr<FieldID> id, StrongPtr<Field> field) {
  places_.emplace(id->Name(), fields_.size());
  fields_.emplace_back(std::move(id), std::move(field));
}

StrongPtr<FieldID> Representation::findFieldID(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const Entry* found = entry(name);
  return found ? found->first : nullptr;
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
  const Entry* found = entry(name);
  return found ? found->second : nullptr;
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
  if (const Entry* found = entry(id->Name())) {
    const StrongPtr<Field>& field = found->second;
    const TresselTypeBase* type = field->getElementType();
    if (!elementType || !type)
      return field;
    return sameType(*type, *elementType) && field->getRank() == rank ? field : nullptr;
  }
  auto field = std::make_shared<Field>(fragments, elementType, rank);
  append(id, field);
  return field;
}

void Representation::setField(const std::string& name, const StrongPtr<Field>& field) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (Entry* found = entry(name))
    found->second = field;
  else
    append(std::make_shared<FieldID>(name), field);
}

bool Representation::removeField(const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto place = places_.find(name);
  if (place == places_.end())
    return false;
  const std::size_t removed = place->second;
  fields_.erase(fields_.begin() + static_cast<std::ptrdiff_t>(removed));
  places_.erase(place);
  for (auto& [other, at] : places_)
    if (at > removed)
      --at;
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
