#include "sentence_transformers/compute/block_pool.h"

#include <algorithm>
#include <cstddef>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace tovana::sentence_transformers {
namespace {

TEST(BlockPoolTest, ABlockIsLargeEnoughAndOneBorrowersAtATime) {
  BlockPool pool;
  const float* const first = pool.borrow(100)->data();
  EXPECT_EQ(pool.borrow(100)->data(), first) << "it has not been kept";

  std::vector<std::jthread> borrowers;
  for (std::size_t borrower = 0; borrower < 12; ++borrower) {
    borrowers.emplace_back([&pool, borrower] {
      for (std::size_t round = 0; round < 500; ++round) {
        const std::size_t size = 1 + (round * 31 + borrower * 17) % 300;
        const BlockPool::Borrowed block = pool.borrow(size);
        ASSERT_GE(block->size(), size);
        std::fill_n(block->data(), size, borrower);
        std::this_thread::yield();
        ASSERT_EQ(std::count(block->data(), block->data() + size, borrower), size);
      }
    });
  }
}

}  // namespace
}  // namespace tovana::sentence_transformers
