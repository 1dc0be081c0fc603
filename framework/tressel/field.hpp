// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: fields, one named quantity over the points of a skeleton.
#pragma once

#include "basalt/attributes.hpp"
#include "basalt/cache.hpp"
#include "basalt/intercube.hpp"
#include "tressel/creative_array.hpp"
#include "tressel/fragment.hpp"

#include <functional>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <utility>

namespace Tressel {

// Visitor of a field's fragments; return false to stop.
class FragmentIterator {
public:
  virtual ~FragmentIterator() = default;
  virtual bool apply(const StrongPtr<FragmentID>& id,
                     const StrongPtr<CreativeArrayBase>& creator) = 0;
};

// Adapts any callable bool(const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>&).
template <class F>
class FragmentFunctor final : public FragmentIterator {
public:
  explicit FragmentFunctor(F f) : f_(std::move(f)) {}
  bool apply(const StrongPtr<FragmentID>& id,
             const StrongPtr<CreativeArrayBase>& creator) override {
    return f_(id, creator);
  }

private:
  F f_;
};

// Chooses fragments for an iteration; an empty selector chooses all.
using FragmentSelector = std::function<bool(const FragmentID&)>;

// A field: per fragment of its layout, the creator of that fragment's array. All fields of one
// representation share the fragment layout of "Positions". Reading different fragments from
// several threads needs no lock of the caller; attaching data is thread-safe too.
//
// The element type is fixed by the field's creation or, for a field made without one, by the
// first array attached. Arrays of another element type are refused.
class Field : public Basalt::ReferenceBase, public Basalt::Intercube {
public:
  Field(StrongPtr<FragmentIDCollection> fragments, const TresselTypeBase* elementType = nullptr,
        int rank = 0);

  static const StrongPtr<Field>& NullPtrField();

  const FragmentIDCollection& getFragmentIDs() const { return *fragments_; }
  const StrongPtr<FragmentIDCollection>& getFragmentIDCollection() const { return fragments_; }
  // Adds a fragment to the layout (shared with the other fields of the representation).
  StrongPtr<FragmentID> makeFragmentID(const std::string& name);
  std::size_t nFragments() const { return fragments_->size(); }

  // Visits every fragment of the layout in order, with its creator; the creator is empty for a
  // fragment that this field holds no array for. Returns false when the iterator stopped early.
  bool iterate(FragmentIterator& iterator, const FragmentSelector& selector = {}) const;
  template <class F>
  bool iterate(F&& f, const FragmentSelector& selector = {}) const
      requires(!std::is_base_of_v<FragmentIterator, std::remove_cvref_t<F>>) {
    FragmentFunctor<std::remove_cvref_t<F>> functor(std::forward<F>(f));
    return iterate(static_cast<FragmentIterator&>(functor), selector);
  }

  StrongPtr<CreativeArrayBase> getCreator(const FragmentID& id) const;
  StrongPtr<CreativeArrayBase> getCreator(const StrongPtr<FragmentID>& id) const;
  StrongPtr<MemBase> getData(const FragmentID& id) const;
  StrongPtr<MemBase> getData(const StrongPtr<FragmentID>& id) const;

  // Null while the field has no element type yet.
  const TresselTypeBase* getElementType() const;
  int getRank() const;

  // A creator for data that is not (yet) attached to a fragment.
  StrongPtr<CreativeArrayBase>
  createCreator(const StrongPtr<MemBase>& data, const std::string& name,
                CreationFailAlternative onFail = CreationFailAlternative::ReturnEmpty,
                const StrongPtr<Basalt::Cache>& cache = Basalt::Cache::MemCache()) const;
  // Attaches data to a fragment of this field's layout, replacing what the fragment held, so
  // that it is kept and can be saved. Returns the new creator, or empty when the fragment is not
  // in the layout or the data's element type or rank differ from the field's.
  StrongPtr<CreativeArrayBase>
  setPersistentData(const StrongPtr<MemBase>& data, const StrongPtr<FragmentID>& id,
                    const StrongPtr<Basalt::Cache>& cache = Basalt::Cache::MemCache(),
                    const std::string& name = {});
  // Attaches an existing creator (same checks as setPersistentData).
  bool setCreator(const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator);

  Basalt::Attributes& attributes() { return attributes_; }
  const Basalt::Attributes& attributes() const { return attributes_; }
  void setAttribute(const std::string& name, const StrongPtr<Basalt::ChunkBase>& value) {
    attributes_.setAttribute(name, value);
  }
  StrongPtr<Basalt::ChunkBase> getAttribute(const std::string& name) const {
    return attributes_.getAttribute(name);
  }

private:
  bool accepts(const FragmentID& id, const MemBase* data);

  StrongPtr<FragmentIDCollection> fragments_;
  mutable std::shared_mutex mutex_;
  const TresselTypeBase* elementType_;
  int rank_;
  std::unordered_map<const FragmentID*, StrongPtr<CreativeArrayBase>> creators_;
  Basalt::Attributes attributes_;
};

// True when two element descriptors name the same type (also across shared libraries).
bool sameType(const TresselTypeBase& a, const TresselTypeBase& b);

} // namespace Tressel
