#pragma once

namespace tovana::sentence_transformers {

/// In which numbers a model's weights are kept and multiplied.
enum class NumberFormat {
  float32,
  bfloat16,  ///< Products take both factors rounded to bfloat16, and are summed in float32.
};

}  // namespace tovana::sentence_transformers
