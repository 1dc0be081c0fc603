// SPDX-License-Identifier: BSD-3-Clause
// Tests of arrays over storage they do not own: reads share it, the first write copies it.
#include "basalt/chunk.hpp"
#include "tressel/data_range.hpp"
#include "tressel/mem_array.hpp"
#include "tressel/point_cloud.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <numeric>
#include <thread>
#include <vector>

namespace {

using namespace Tressel;

// A lender's block: the values and a keeper whose release the test can watch.
struct Lender {
  explicit Lender(std::size_t n) : values(std::make_shared<std::vector<double>>(n)) {
    std::iota(values->begin(), values->end(), 0.0);
  }
  Basalt::BlockKeeper keeper() const { return values; }
  const double* data() const { return values->data(); }

  std::shared_ptr<std::vector<double>> values;
};

TEST(BorrowedChunk, ReadsShareTheBlockAndTheFirstWriteCopiesIt) {
  Lender lender(1000);
  std::weak_ptr<std::vector<double>> watch = lender.values;
  auto chunk = std::make_shared<Basalt::Chunk<double>>(lender.data(), 1000, lender.keeper());
  lender.values.reset(); // the chunk alone keeps the block
  ASSERT_FALSE(watch.expired());
  const auto block = watch.lock();

  // Every read path leaves the block shared.
  const Basalt::Chunk<double>& reader = *chunk;
  EXPECT_EQ(reader.data(), block->data());
  EXPECT_EQ(reader.rawData(), block->data());
  EXPECT_EQ(reader.view().data(), block->data());
  EXPECT_EQ(reader[999], 999.0);
  EXPECT_TRUE(chunk->readsOutsideBlock());
  const double* before = reader.data();

  // Each write path copies once; the block keeps its values and the earlier pointer stays
  // valid with them.
  (*chunk)[3] = -1;
  EXPECT_FALSE(chunk->readsOutsideBlock());
  EXPECT_NE(chunk->data(), block->data());
  static_cast<double*>(chunk->rawData())[4] = -2;
  EXPECT_EQ((*block)[3], 3.0);
  EXPECT_EQ((*block)[4], 4.0);
  EXPECT_EQ(before[3], 3.0);
  EXPECT_EQ(reader[3], -1.0);
  EXPECT_EQ(reader[4], -2.0);
  EXPECT_EQ(reader[5], 5.0);

  // The copy is a plain chunk's; the block goes with the chunk.
  EXPECT_FALSE(chunk->clone()->readsOutsideBlock());
  chunk.reset();
  EXPECT_EQ(watch.use_count(), 1); // only the test's own reference
}

TEST(BorrowedChunk, SharedStorageKeepsItsValuesForTheReaderOutside) {
  auto chunk = std::make_shared<Basalt::Chunk<int>>(std::initializer_list<int>{1, 2, 3});
  const int* storage = std::as_const(*chunk).data();
  const Basalt::BlockKeeper handed = chunk->share();
  EXPECT_EQ(handed.get() != nullptr, true);
  EXPECT_TRUE(chunk->readsOutsideBlock());
  EXPECT_EQ(std::as_const(*chunk).data(), storage); // sharing moves nothing
  EXPECT_EQ(chunk->share(), handed);                // a second reader gets the same block

  chunk->data()[0] = 10;
  EXPECT_EQ(storage[0], 1);
  EXPECT_EQ(chunk->values(), (std::vector<int>{10, 2, 3}));
  // After the copy, sharing again hands out the new storage.
  EXPECT_NE(chunk->share(), handed);
}

TEST(BorrowedChunk, FirstWritesFromManyThreadsCopyOnce) {
  constexpr std::size_t n = 1 << 16;
  constexpr int threads = 8;
  for (int round = 0; round < 20; ++round) {
    Lender lender(n);
    MemArray<1, double> array(MultiIndex<1>(n), lender.data(), lender.keeper());
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
      workers.emplace_back([&, t] {
        for (std::size_t i = static_cast<std::size_t>(t); i < n; i += threads)
          array[i] = -array[i];
      });
    for (auto& w : workers)
      w.join();
    for (std::size_t i = 0; i < n; ++i) {
      ASSERT_EQ(array[i], -static_cast<double>(i)) << "round " << round << ", element " << i;
      ASSERT_EQ((*lender.values)[i], static_cast<double>(i));
    }
  }
}

TEST(BorrowedChunk, FragmentsOfABorrowedFieldReadTheirPartOfTheBlock) {
  const std::vector<point> xyz = {{0, 0, 0}, {1, 0, 1}, {2, 0, 2}, {3, 0, 3}, {4, 0, 4}};
  auto block = std::make_shared<std::vector<float>>(std::vector<float>{5, 6, 7, 8, 9});
  FragmentArrays arrays({3, 2});
  const auto positions = arrays.addField<point>(PositionsFieldName);
  for (std::size_t i = 0; i < xyz.size(); ++i)
    positions[i / 3][i % 3] = xyz[i];
  arrays.borrowField("Amplitude", "float32", block->data(), block);
  const auto grid = arrays.build();
  const auto field = (*grid)(StandardCartesianChart3D, "Amplitude");
  ASSERT_NE(field, nullptr);
  EXPECT_EQ(readField<float>(*field), *block);

  std::vector<StrongPtr<MemArray<1, float>>> parts;
  field->iterate([&](const auto&, const auto& creator) {
    parts.push_back(arrayCast<1, float>(creator->getData()));
    // A value range is a read: it leaves the block shared.
    EXPECT_NE(DataRange<float>::compute(creator), nullptr);
    return true;
  });
  ASSERT_EQ(parts.size(), 2u);
  EXPECT_EQ(parts[0]->elementBytes(), block->data());
  EXPECT_EQ(parts[1]->elementBytes(), block->data() + 3);
  EXPECT_TRUE(parts[0]->myChunk()->readsOutsideBlock());

  // A view to write through copies the fragment, not the block or the other fragment.
  parts[1]->view()[0] = -8;
  EXPECT_EQ(readField<float>(*field), (std::vector<float>{5, 6, 7, -8, 9}));
  EXPECT_EQ((*block)[3], 8.0f);
  EXPECT_TRUE(parts[0]->myChunk()->readsOutsideBlock());
  EXPECT_FALSE(parts[1]->myChunk()->readsOutsideBlock());

  EXPECT_THROW(arrays.borrowField("Bad", "no such type", block->data(), block),
               std::invalid_argument);
}

} // namespace
