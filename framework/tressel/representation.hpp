// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: representations, the fields of one skeleton in one chart.
#pragma once

#include "tressel/field.hpp"

#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace Tressel {

// Names of the point-cloud model.
inline constexpr const char* StandardCartesianChart3D = "StandardCartesianChart3D";
inline constexpr const char* PositionsFieldName = "Positions";

// Identifies a field within its representation.
class FieldID : public Basalt::ReferenceBase {
public:
  explicit FieldID(std::string name) : name_(std::move(name)) {}
  const std::string& Name() const { return name_; }

private:
  std::string name_;
};

class Representation;

// Visitor of a representation's fields; return false to stop.
class FieldIterator {
public:
  virtual ~FieldIterator() = default;
  virtual bool apply(const StrongPtr<FieldID>& id, const StrongPtr<Field>& field) = 0;
};

// The slot of one named field: converts to the field, creating it (with the representation's
// fragment layout and no element type yet) when it is absent; can be assigned a field.
class FieldProxy {
public:
  FieldProxy(StrongPtr<Representation> representation, std::string name)
      : representation_(std::move(representation)), name_(std::move(name)) {}

  operator StrongPtr<Field>() const;
  FieldProxy& operator=(const StrongPtr<Field>& field);
  // The field if it exists, without creating it.
  StrongPtr<Field> find() const;

private:
  StrongPtr<Representation> representation_;
  std::string name_;
};

// The fields of one skeleton (for point clouds: the vertices) in one chart, in creation order.
// Thread-safe; field lookups from several threads need no lock of the caller.
class Representation : public Basalt::ReferenceBase,
                       public std::enable_shared_from_this<Representation> {
public:
  explicit Representation(std::string chartName) : chartName_(std::move(chartName)) {}

  const std::string& chartName() const { return chartName_; }

  StrongPtr<FieldID> findFieldID(const std::string& name) const;
  // The existing ID of that name or a new one.
  StrongPtr<FieldID> makeFieldID(const std::string& name);
  StrongPtr<Field> findField(const StrongPtr<FieldID>& id) const;
  StrongPtr<Field> findField(const std::string& name) const;

  // Creates the field of that ID with the given fragment layout and element type (taken from a
  // prototype array, or given directly; none leaves the type to the first array attached). An
  // existing field of that name is returned when its element type and rank match or either side
  // names no type; otherwise the answer is empty and the existing field stays untouched.
  StrongPtr<Field> makeField(const StrongPtr<FieldID>& id,
                             const StrongPtr<FragmentIDCollection>& fragments,
                             const MemBase& prototype);
  StrongPtr<Field> makeField(const StrongPtr<FieldID>& id,
                             const StrongPtr<FragmentIDCollection>& fragments,
                             const TresselTypeBase* elementType, int rank);
  // Puts a field under a name, replacing any field of that name.
  void setField(const std::string& name, const StrongPtr<Field>& field);
  // Drops the field of that name (nothing when there is none); false when there was none.
  bool removeField(const std::string& name);

  FieldProxy operator[](const std::string& name) { return FieldProxy(shared_from_this(), name); }

  // The fragment layout of the "Positions" field; a representation without positions keeps a
  // layout of its own, so that all of its fields still share one.
  StrongPtr<FragmentIDCollection> fragmentLayout() const;

  bool iterate(FieldIterator& iterator) const;
  template <class F>
  bool iterate(F&& f) const requires(!std::is_base_of_v<FieldIterator, std::remove_cvref_t<F>>) {
    for (const auto& [id, field] : snapshot())
      if (!f(id, field))
        return false;
    return true;
  }

  std::vector<std::pair<StrongPtr<FieldID>, StrongPtr<Field>>> snapshot() const;

private:
  std::string chartName_;
  mutable std::mutex mutex_;
  using Entry = std::pair<StrongPtr<FieldID>, StrongPtr<Field>>;
  // The entry of that name, or null; the caller holds the lock.
  Entry* entry(const std::string& name);
  const Entry* entry(const std::string& name) const;
  void append(StrongPtr<FieldID> id, StrongPtr<Field> field);

  std::vector<Entry> fields_;
  // Where each name sits in fields_: files can bring tens of thousands of fields (extra bytes),
  // and a search along the list for each would make loading them quadratic.
  std::unordered_map<std::string, std::size_t> places_;
  mutable StrongPtr<FragmentIDCollection> ownLayout_;
};

} // namespace Tressel
