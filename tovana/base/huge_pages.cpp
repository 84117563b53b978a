#include "tovana/base/huge_pages.h"

#include <cstdint>

#include <sys/mman.h>

namespace tovana {
namespace {

constexpr std::uintptr_t kHugePage = std::uintptr_t{2} << 20U;
constexpr std::size_t kSmallestBlock = 2 * kHugePage;

}  // namespace

void prefer_huge_pages(void* block, std::size_t size) noexcept {
  if (size < kSmallestBlock) return;
  // Only the pages that are the block's alone.
  const auto begin = reinterpret_cast<std::uintptr_t>(block);
  const std::uintptr_t first = (begin + kHugePage - 1) / kHugePage * kHugePage;
  const std::uintptr_t last = (begin + size) / kHugePage * kHugePage;
  static_cast<void>(madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE));
}

}  // namespace tovana
