#pragma once

#include <bit>
#include <cstdint>
#include <span>

namespace tovana::sentence_transformers {

/// Whether no number is infinite or NaN: all but those have an exponent that is not all ones.
inline bool is_finite(std::span<const float> numbers) noexcept {
  constexpr std::uint32_t kExponent = 0x7F800000;
  std::uint32_t found = 0;
  for (const float number : numbers) {
    found |=
        static_cast<std::uint32_t>((std::bit_cast<std::uint32_t>(number) & kExponent) == kExponent);
  }
  return found == 0;
}

}  // namespace tovana::sentence_transformers
