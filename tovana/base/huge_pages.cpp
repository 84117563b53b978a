#include "tovana/base/huge_pages.h"

#include <cstdint>

#include "tovana/base/platform.h"

namespace tovana {
namespace {

constexpr std::size_t kHugePage = std::size_t{2} << 20U;
constexpr std::size_t kSmallestBlock = 2 * kHugePage;

}  // namespace

void prefer_huge_pages(void* block, std::size_t size) noexcept {
  if (size < kSmallestBlock) return;
  // Only the pages that are the block's alone.
  const std::size_t ahead =
      (kHugePage - reinterpret_cast<std::uintptr_t>(block) % kHugePage) % kHugePage;
  const std::size_t whole = (size - ahead) / kHugePage * kHugePage;
  advise_huge_pages(static_cast<char*>(block) + ahead, whole);
}

}  // namespace tovana
