#pragma once

#include <cstddef>

namespace tovana::sentence_transformers {

/// The processors that the calling thread may run on; at least 1.
std::size_t usable_processors() noexcept;

}  // namespace tovana::sentence_transformers
