// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: the process-wide tables of element types and array makers.
#include "tressel/mem_base.hpp"

#include <map>
#include <mutex>
#include <utility>

namespace Tressel {

namespace {

struct TypeTable {
  std::mutex mutex;
  std::map<std::string, const TresselTypeBase*> types;
  std::map<std::string, int> rememberCalls;
};

struct CreatorTable {
  std::mutex mutex;
  std::map<std::pair<int, std::string>, MemBase::Factory> factories;
  std::map<std::pair<int, std::string>, int> registrations;
};

// Function-local statics: the tables exist before the first registration, whatever order the
// static initialisers of the instantiated arrays run in.
TypeTable& typeTable() {
  static TypeTable table;
  return table;
}

CreatorTable& creatorTable() {
  static CreatorTable table;
  return table;
}

} // namespace

void TresselTypeBase::remember(const TresselTypeBase& type) {
  auto& table = typeTable();
  std::lock_guard<std::mutex> lock(table.mutex);
  ++table.rememberCalls[type.name()];
  table.types.emplace(type.name(), &type);
}

const TresselTypeBase* TresselTypeBase::find(const std::string& name) {
  auto& table = typeTable();
  std::lock_guard<std::mutex> lock(table.mutex);
  auto it = table.types.find(name);
  return it == table.types.end() ? nullptr : it->second;
}

const TresselTypeBase* TresselTypeBase::find(const std::type_info& info) {
  auto& table = typeTable();
  std::lock_guard<std::mutex> lock(table.mutex);
  for (const auto& [name, type] : table.types)
    if (type->typeInfo() == info)
      return type;
  return nullptr;
}

std::vector<const TresselTypeBase*> TresselTypeBase::registeredTypes() {
  auto& table = typeTable();
  std::lock_guard<std::mutex> lock(table.mutex);
  std::vector<const TresselTypeBase*> out;
  for (const auto& [name, type] : table.types)
    out.push_back(type);
  return out;
}

int TresselTypeBase::rememberCount(const std::string& name) {
  auto& table = typeTable();
  std::lock_guard<std::mutex> lock(table.mutex);
  auto it = table.rememberCalls.find(name);
  return it == table.rememberCalls.end() ? 0 : it->second;
}

void MemBase::registerCreator(int rank, const TresselTypeBase& type, Factory factory) {
  auto& table = creatorTable();
  std::lock_guard<std::mutex> lock(table.mutex);
  const auto key = std::make_pair(rank, type.name());
  ++table.registrations[key];
  table.factories.emplace(key, factory);
}

StrongPtr<MemBase> MemBase::create(int rank, const std::string& typeName, const Extents& extents) {
  if (extents.size() != static_cast<std::size_t>(rank))
    return nullptr;
  Factory factory = nullptr;
  {
    auto& table = creatorTable();
    std::lock_guard<std::mutex> lock(table.mutex);
    auto it = table.factories.find({rank, typeName});
    if (it != table.factories.end())
      factory = it->second;
  }
  return factory ? factory(extents) : nullptr;
}

int MemBase::creatorRegistrations(int rank, const std::string& typeName) {
  auto& table = creatorTable();
  std::lock_guard<std::mutex> lock(table.mutex);
  auto it = table.registrations.find({rank, typeName});
  return it == table.registrations.end() ? 0 : it->second;
}

std::size_t MemBase::registeredCreators() {
  auto& table = creatorTable();
  std::lock_guard<std::mutex> lock(table.mutex);
  return table.factories.size();
}

std::size_t scalarSize(ScalarKind kind) {
  return kind == ScalarKind::Opaque ? 0 : withScalar(kind, [](auto v) { return sizeof(v); });
}

const std::string& scalarName(ScalarKind kind) {
  static const std::string opaque = "opaque";
  if (kind == ScalarKind::Opaque)
    return opaque;
  return withScalar(kind,
                    [](auto v) -> const std::string& { return TresselType<decltype(v)>().name(); });
}

ScalarKind plainScalar(const std::string& typeName) {
  for (ScalarKind kind :
       {ScalarKind::Int8, ScalarKind::UInt8, ScalarKind::Int16, ScalarKind::UInt16,
        ScalarKind::Int32, ScalarKind::UInt32, ScalarKind::Int64, ScalarKind::UInt64,
        ScalarKind::Float32, ScalarKind::Float64})
    if (scalarName(kind) == typeName)
      return kind;
  return ScalarKind::Opaque;
}

} // namespace Tressel
