// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the point-cloud access layer that every algorithm shares, the thread and diagnostics
// conventions, and the class-assignment parsers.
//
// An algorithm reads like its description:
//   Messages log("Tag: ", &box.message);                        // diagnostics
//   auto positions = findPositions(grid, log, "ERROR: no f_vertices");   // inputs
//   auto out = outputField<float>(grid, "Planarity");           // outputs
//   auto fragments = fragmentsOf(*positions);
//   forEachFragment(fragments.size(), maximumThreadsMinusOne(), log, [&](std::size_t k) {
//     auto xyz = fragmentArray<point>(*positions, fragments[k]); // per-fragment inputs
//     if (!xyz) return log.report("ERROR: no m_vertices");
//     FragmentOutput<float> result(out, fragments[k].id, xyz->size());
//     for (std::size_t i = 0; i < xyz->size(); ++i) result[i] = ...;   // per point
//     result.commit();
//   });
#pragma once

#include "quorvel/core/fields.hpp"
#include "quorvel/core/kept.hpp"

#include "basalt/console.hpp"
#include "quorvel/core/parallel.hpp"
#include "tressel/bounding_boxes.hpp"
#include "tressel/grid.hpp"
#include "tressel/mem_array.hpp"
#include "vantor/multi_range.hpp"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace Quorvel {

using Basalt::StrongPtr;
using Tressel::CreativeArrayBase;
using Tressel::Field;
using Tressel::FragmentID;
using Tressel::Grid;
using Tressel::MemArray;
using Tressel::MultiArray;
using Tressel::Representation;
using Vantor::BoundingBox;
using Vantor::MultiRange;
using Vantor::PhysicalSpace::point;

// Tolerance of every class-range membership test.
inline constexpr double RangeTolerance = 1e-9;

// ---- Threads -------------------------------------------------------------------------------

// The thread count of the library's parallel loops: the runtime's maximum minus one, so that one
// core stays with the host, but never fewer than one.
int maximumThreadsMinusOne();

// A box's requested thread count: 0 or less, or more than the runtime offers, becomes
// maximumThreadsMinusOne(); anything else is kept.
int correctedThreadCount(int requested);

// Runs f inside the library's one unnamed critical section, which guards every change of the
// framework's field tables and every progress line made from a parallel loop. The section is
// not reentrant: f must not call anything that enters it again.
void underCriticalSection(const std::function<void()>& f);

// ---- Diagnostics ---------------------------------------------------------------------------

// The diagnostics of one algorithm run: each report is written to standard output as one line
// prefixed by the algorithm's tag, and (when the run returns a text) appended to that text.
// Thread-safe.
class Messages {
public:
  explicit Messages(std::string tag, std::string* collected = nullptr)
      : tag_(std::move(tag)), collected_(collected) {}

  // Writes "<tag><text>\n" and appends text alone to the collected text.
  void report(std::string_view text);
  // Writes "<tag><text>\n" only.
  void note(std::string_view text) const;
  const std::string& tag() const { return tag_; }

private:
  std::string tag_;
  std::string* collected_;
  std::mutex mutex_;
};

// The progress line of a fragment loop: prefix, the running count, " / ", the total and suffix
// (by default "... computing fragment k / n" and twelve blanks with a carriage return, so the
// next line overwrites it). step() may be called from any thread; the count and the line are
// made inside the critical section.
class FragmentProgress {
public:
  explicit FragmentProgress(std::size_t total, std::string prefix = "... computing fragment ",
                            std::string suffix = "            \r")
      : total_(total), prefix_(std::move(prefix)), suffix_(std::move(suffix)) {}

  // Advances the count and writes the line; returns the new count.
  std::size_t step();

private:
  std::size_t total_;
  std::size_t done_ = 0;
  std::string prefix_;
  std::string suffix_;
};

// ---- Parameter boxes -----------------------------------------------------------------------

// printField and printFields: quorvel/core/fields.hpp.

// ---- Input lookup --------------------------------------------------------------------------

// The chart of that name, or empty after reporting missingText.
StrongPtr<Tressel::Chart> findChart(const StrongPtr<Grid>& grid, Messages& log,
                                    const std::string& missingText,
                                    const std::string& name = Tressel::StandardCartesianChart3D);
// The vertices' representation in the chart, or empty after reporting missingText.
StrongPtr<Representation>
findRepresentation(const StrongPtr<Grid>& grid, Messages& log, const std::string& missingText,
                   const std::string& chart = Tressel::StandardCartesianChart3D);
// The "Positions" field of the chart, or empty after reporting missingText.
StrongPtr<Field> findPositions(const StrongPtr<Grid>& grid, Messages& log,
                               const std::string& missingText,
                               const std::string& chart = Tressel::StandardCartesianChart3D);
// A required input field of the chart, or empty after reporting missingText.
StrongPtr<Field> findField(const StrongPtr<Grid>& grid, const std::string& name, Messages& log,
                           const std::string& missingText,
                           const std::string& chart = Tressel::StandardCartesianChart3D);
// An optional input field: empty when absent, nothing reported.
StrongPtr<Field> findOptionalField(const StrongPtr<Grid>& grid, const std::string& name,
                                   const std::string& chart = Tressel::StandardCartesianChart3D);

// ---- Outputs -------------------------------------------------------------------------------

// Gets or creates a per-point output field of element type T with the fragment layout of
// "Positions" in the representation. An existing field is reused; empty when one exists with
// another element type.
template <class T>
StrongPtr<Field> outputField(Representation& rep, const std::string& name) {
  return rep.makeField(rep.makeFieldID(name), rep.fragmentLayout(), &Tressel::TresselType<T>(), 1);
}
// The same in the grid's "StandardCartesianChart3D" representation (empty without one).
template <class T>
StrongPtr<Field> outputField(const StrongPtr<Grid>& grid, const std::string& name) {
  auto rep = grid ? grid->getCartesianRepresentation(Tressel::StandardCartesianChart3D) : nullptr;
  return rep ? outputField<T>(*rep, name) : nullptr;
}

// ---- Fragments -----------------------------------------------------------------------------

// The fragments of a field in layout order, collected once so that a parallel loop can index
// them.
std::vector<FragmentSlot> fragmentsOf(const Field& field);

// The fragment's array of a field as MemArray<1, T>, to read; empty when the field holds none or
// holds another element type. Reading never copies an array that reads a host's buffer.
template <class T>
StrongPtr<const MemArray<1, T>> fragmentArray(const Field& field, const FragmentID& id) {
  return Tressel::arrayCast<1, T>(field.getData(id));
}
template <class T>
StrongPtr<const MemArray<1, T>> fragmentArray(const Field& field, const FragmentSlot& slot) {
  return slot.id ? fragmentArray<T>(field, *slot.id) : nullptr;
}
// The same array to write in place: one that reads a host's buffer is copied first (see
// Basalt::ChunkBase), on its first writable access.
template <class T>
StrongPtr<MemArray<1, T>> writableFragmentArray(const Field& field, const FragmentSlot& slot) {
  return slot.id ? Tressel::arrayCast<1, T>(field.getData(*slot.id)) : nullptr;
}

// The spatial extent of a fragment of positions: its stored box, else the box of its points.
// Empty when neither exists.
StrongPtr<BoundingBox> fragmentBBox(const FragmentSlot& slot);

// Runs body(k) for k = 0 .. count-1, the fragments shared out over `threads` threads as
// splitThreads says; a body taking (k, inner) is told how many threads its own loops may use
// (all of them when there is one fragment). An exception thrown by the body never leaves the loop:
// after it, each is reported as "ERROR: " and its text, in fragment order, and the other
// fragments went on.
template <class Body>
void forEachFragment(std::size_t count, int threads, Messages& log, Body&& body) {
  const ThreadSplit split = splitThreads(threads, count);
  std::vector<std::string> failures(count);
  loops::parallelFor(count, split.outer, 1, [&](std::size_t k, int) {
    try {
      if constexpr (std::is_invocable_v<Body&, std::size_t, int>)
        body(k, split.inner);
      else
        body(k);
    } catch (const std::exception& e) {
      failures[k] = std::string("ERROR: ") + e.what();
    } catch (...) {
      failures[k] = "ERROR: unknown failure";
    }
  });
  for (const std::string& failure : failures)
    if (!failure.empty())
      log.report(failure);
}

// Elements below which a new output array is filled by one thread: a region costs more.
inline constexpr std::size_t ParallelFillMin = std::size_t{1} << 16;

// The result array of one fragment of an output field. Where the field already holds an array
// of the right type and size for the fragment, that array is written in place; otherwise a new
// one filled with `fill` (zeros by default) is made, on `threads` threads: the first write of
// fresh pages is where the system zeroes them (on a virtual machine, at well under 1 GB/s), so
// one thread filling the outputs of a million points alone would hold the others back for tens
// of milliseconds. commit() then marks the reused array changed (touch) or attaches the new one
// as persistent data in the default memory cache, inside the critical section.
template <class T>
class FragmentOutput {
public:
  FragmentOutput(StrongPtr<Field> field, StrongPtr<FragmentID> id, std::size_t count,
                 const T& fill = T(), int threads = 1)
      : field_(std::move(field)), id_(std::move(id)) {
    if (field_ && id_) {
      creator_ = field_->getCreator(*id_);
      array_ = Tressel::arrayCast<1, T>(creator_ ? creator_->peekData() : nullptr);
    }
    if (!array_ || array_->size() != count) {
      array_ = std::make_shared<MemArray<1, T>>(Tressel::MultiIndex<1>(count));
      T* values = array_->data();
      inStaticBlocks(count, count < ParallelFillMin ? 1 : threads,
                     [&](std::size_t begin, std::size_t end) {
                       std::fill(values + begin, values + end, fill);
                     });
      creator_.reset();
    }
    // Writable from here on: a reused array that reads a block it does not own (a host's
    // buffer) is copied now, before any loop writes it from several threads.
    data_ = array_->data();
  }

  T& operator[](std::size_t i) { return data_[i]; }
  T* data() { return data_; }
  std::size_t size() const { return array_->size(); }
  MultiArray<1, T> view() { return array_->view(); }
  const StrongPtr<MemArray<1, T>>& array() const { return array_; }
  bool reused() const { return creator_ != nullptr; }

  // False when the field refused the array (no field, or a fragment outside its layout).
  bool commit() {
    if (!field_ || !id_)
      return false;
    bool ok = true;
    underCriticalSection([&] {
      if (creator_)
        creator_->touch();
      else
        ok = field_->setPersistentData(array_, id_) != nullptr;
    });
    return ok;
  }

private:
  StrongPtr<Field> field_;
  StrongPtr<FragmentID> id_;
  StrongPtr<CreativeArrayBase> creator_;
  StrongPtr<MemArray<1, T>> array_;
  T* data_ = nullptr;
};

// ---- Subsets --------------------------------------------------------------------------------

// A new point cloud of the chosen points: fragment k of slots (fragments of grid's positions)
// keeps the points chosen[k] (ascending), with every per-point field of the
// "StandardCartesianChart3D" representation, stored bounding boxes and grid's attributes (so a
// LAS origin travels along). A "PointIndex" field (the file order of a tiled read) is numbered
// again from 0 in the same order. dropEmpty leaves out fragments with nothing chosen. Throws
// std::runtime_error when a field holds no array for a fragment.
StrongPtr<Grid> subsetOf(const Grid& grid, const std::vector<FragmentSlot>& slots,
                         const std::vector<std::vector<std::size_t>>& chosen, bool dropEmpty);

// subsetOf(grid, kept.slots, kept.indices, true); empty, with "ERROR: " and the reason reported
// to log, when a field holds no array for a fragment. Empty when kept is.
StrongPtr<Grid> keptCloud(const Grid& grid, const std::optional<KeptPoints>& kept, Messages& log);

// ---- Class assignments ---------------------------------------------------------------------
//
// Texts split into items at every ';' and ','; only the text before a first NUL counts. Class
// codes are read like atoi, all other numbers like atof (leading blanks skipped, trailing text
// ignored, no number reads as 0), independent of the global locale.

// "2>6;3:5>7": table[c] is the class that class c becomes. The table is reset to the 256-entry
// identity first; an empty text is accepted as identity. False on an empty item, an item that is
// not source>target, a source of more than two ':' parts, a ':' in the target or a class outside
// 0 to 255; entries set by earlier items stay.
bool assignClassesToClasses(const std::string& text, std::vector<unsigned char>& table);

// "0:1.5=2": appends ((low, high), class) per item to table (not cleared first), low <= high,
// class truncated toward zero. An empty text is refused. False on a malformed item or a class
// that does not fit an int; entries appended before it stay.
bool assignRangesToClasses(const std::string& text,
                           std::vector<std::pair<std::pair<double, double>, int>>& table);

// "a:b=c:d=k": appends ((a, b), (c, d), k) per item, both intervals in the order written. An
// empty text is refused. False on a malformed item; entries appended before it stay.
bool reclassificationAccordingToRange(
    const std::string& text,
    std::vector<std::tuple<std::pair<double, double>, std::pair<double, double>, int>>& table);

// One line per entry: "[%.3f;%.3f] > %d\n" (low, high, class).
void printAssignment(const std::vector<std::pair<std::pair<double, double>, int>>& table);

} // namespace Quorvel
