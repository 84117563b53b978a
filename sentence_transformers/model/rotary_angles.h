#pragma once

#include <cstddef>
#include <vector>

#include "sentence_transformers/model/transformer_config.h"

namespace tovana::sentence_transformers {

/// The angles by which rotary positions turn a head's pairs of numbers.
class RotaryAngles {
 public:
  /// For heads of an even width.
  RotaryAngles(const RotaryPositions& rotary, std::size_t head_width);

  /// Fills `[length x head width]` for the positions from 0 on: the cosines of a position's angles,
  /// then the sines.
  void fill(std::size_t length, float* out) const;

 private:
  std::vector<float> _frequencies;  ///< One for each pair.
};

}  // namespace tovana::sentence_transformers
