#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>

#include "sentence_transformers/compute/float_block.h"

namespace tovana::sentence_transformers {

/// Memory for work that comes again and again: blocks that are given back are kept for the next
/// that asks. At most 8 are, of 16 MiB each.
///
/// Threads: any number may borrow at once, and nobody waits. There is no lock, so that a forked
/// child can borrow whatever its parent's threads were doing.
class BlockPool {
 public:
  /// Gives a block back.
  struct Return {
    BlockPool* pool = nullptr;
    void operator()(FloatBlock* block) const noexcept { pool->_take_back(block); }
  };
  using Borrowed = std::unique_ptr<FloatBlock, Return>;

  BlockPool() = default;
  ~BlockPool();
  BlockPool(const BlockPool&) = delete;
  BlockPool& operator=(const BlockPool&) = delete;

  /// At least `size` floats, with anything in them. The pool outlives what is borrowed. Throws
  /// std::bad_alloc.
  Borrowed borrow(std::size_t size);

 private:
  void _take_back(FloatBlock* block) noexcept;

  std::array<std::atomic<FloatBlock*>, 8> _kept = {};  ///< Null where there is none.
};

}  // namespace tovana::sentence_transformers
