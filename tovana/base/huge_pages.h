#pragma once

#include <cstddef>

namespace tovana {

/// Asks the kernel to back a large, freshly allocated block with huge pages. A block of tens of
/// megabytes that is written once costs as much in page faults as in writing, and this takes most
/// of them away. A hint: nothing happens for small blocks, nor where the kernel does not offer it.
void prefer_huge_pages(void* block, std::size_t size) noexcept;

}  // namespace tovana
