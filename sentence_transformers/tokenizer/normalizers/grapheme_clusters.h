#pragma once

#include <cstddef>
#include <string_view>

namespace tovana::sentence_transformers {

/// The size of the grapheme cluster that a text, which is not empty, begins with: the extended ones
/// of UAX #29, but for flags (see `unicode::Cluster`).
std::size_t cluster_size(std::string_view text) noexcept;

}  // namespace tovana::sentence_transformers
