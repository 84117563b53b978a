#include "sentence_transformers/compute/block_pool.h"

namespace tovana::sentence_transformers {
namespace {

/// Larger ones are not kept.
constexpr std::size_t kLargestKept = (std::size_t{16} << 20U) / sizeof(float);

}  // namespace

BlockPool::~BlockPool() {
  for (const std::atomic<FloatBlock*>& kept : _kept) delete kept.load();
}

BlockPool::Borrowed BlockPool::borrow(std::size_t size) {
  for (std::atomic<FloatBlock*>& kept : _kept) {
    if (kept.load(std::memory_order_relaxed) == nullptr) continue;
    // Its size may be looked at once nobody else can borrow it.
    Borrowed block(kept.exchange(nullptr, std::memory_order_acquire), {this});
    if (block != nullptr && block->size() >= size) return block;
  }
  return Borrowed(new FloatBlock(size), {this});
}

void BlockPool::_take_back(FloatBlock* block) noexcept {
  if (block->size() <= kLargestKept) {
    for (std::atomic<FloatBlock*>& kept : _kept) {
      FloatBlock* none = nullptr;
      if (kept.compare_exchange_strong(none, block, std::memory_order_release,
                                       std::memory_order_relaxed)) {
        return;
      }
    }
  }
  delete block;
}

}  // namespace tovana::sentence_transformers
