#pragma once

#include <cstddef>
#include <span>

#include "sentence_transformers/compute/number_format.h"

/// The arithmetic of an encoder, written for one kind of processor: what the native encoder is made
/// of. Matrices are rows of floats; a stride is the distance from one row to the next, in floats.
namespace tovana::sentence_transformers {

enum class Activation { identity, gelu, gelu_tanh, relu, sigmoid, silu, tanh };

/// out = in W^T + bias, or out += in W^T.
///
/// W lies in panels of words, which are 32 bits: a float32, or the bfloat16 of an even depth in the
/// lower half and that of the next depth, or zero behind the last, in the upper one. There are
/// `columns / panel` panels, one behind the other, each with `panel` columns of `words(depth)`
/// words, the words of one depth side by side. Columns that W does not have are zero.
struct Product {
  std::size_t rows;
  const float* in;  ///< `[rows x depth]`
  std::size_t in_stride;
  const void* panels;
  std::size_t depth;
  std::size_t columns;  ///< A multiple of `Kernels::panel`.
  const float* bias;    ///< `[columns]`, or null.
  float* out;           ///< `[rows x columns]`
  std::size_t out_stride;
  bool adds;       ///< Whether to add to what is there; `bias` is null then.
  float* scratch;  ///< `Kernels::product_scratch(rows, depth)` floats.
};

/// Every token of a text, on one of its sides.
inline constexpr std::size_t kAllTokens = static_cast<std::size_t>(-1);

/// One head of attention over one text: out = softmax(scale Q K^T + bias) V. Of the keys, a query
/// sees those in its window; work grows with that, and memory with the length alone.
struct Attention {
  std::size_t length;  ///< Rows of each matrix.
  std::size_t width;   ///< Columns of each.
  const float* query;
  const float* key;
  const float* value;
  std::size_t stride;  ///< Of these three.
  std::size_t before;  ///< How many keys before its own row a query sees; or `kAllTokens`.
  std::size_t behind;  ///< The same of those behind it.
  float scale;
  /// `distance_bias[key - query]` is added to a score, and `panel` numbers behind the last are
  /// readable; null for none.
  const float* distance_bias;
  float* out;
  std::size_t out_stride;
  float* scratch;  ///< `Kernels::attention_scratch(length, width)` floats.
};

/// Vectors turned by their row's angles: halves x and y of a vector become x cos - y sin and
/// y cos + x sin.
struct Rotation {
  std::size_t rows;
  std::size_t vectors;  ///< Of each row, side by side.
  std::size_t width;    ///< Of each, even.
  const float* angles;  ///< `[rows x width]`: the cosines of a row's, then the sines.
  float* numbers;       ///< `[rows x vectors * width]`
  std::size_t stride;   ///< Of these.
};

/// out = (in - mean) / sqrt(variance + eps) * weight + bias, of each row.
struct Normalization {
  std::size_t rows;
  std::size_t width;
  const float* in;
  std::size_t in_stride;
  const float* weight;
  const float* bias;
  float eps;
  float* out;
  std::size_t out_stride;
};

/// out = left + right; with a `right_stride` of 0, one row is added to each.
struct Sum {
  std::size_t rows;
  std::size_t width;
  const float* left;
  std::size_t left_stride;
  const float* right;
  std::size_t right_stride;
  float* out;
  std::size_t out_stride;
};

/// Sums are taken in an order that only the sizes of one row decide: a row's result is the same to
/// the bit whatever rows stand beside it. No operation allocates or throws.
///
/// The format is that of the factors of products, attention's among them: everything is handed over
/// in float32, but for panels, and rounded to nearest where it is multiplied. Sums, and whatever is
/// no product, are float32.
struct Kernels {
  const char* name;
  NumberFormat format;
  std::size_t panel;  ///< A multiple of 8.
  void (*multiply)(const Product&);
  void (*attend)(const Attention&);
  void (*normalize)(const Normalization&);
  void (*add)(const Sum&);
  /// The activation of each of `count` numbers, in place.
  void (*activate)(Activation activation, float* numbers, std::size_t count);
  /// The activation of the first `width` numbers of each row times the `width` behind those, in
  /// place of the former.
  void (*activate_gated)(Activation activation, std::size_t rows, std::size_t width, float* numbers,
                         std::size_t stride);
  void (*rotate)(const Rotation&);
  std::size_t (*product_scratch)(std::size_t rows, std::size_t depth);
  std::size_t (*attention_scratch)(std::size_t length, std::size_t width);

  /// The words in a column of a panel.
  std::size_t words(std::size_t depth) const {
    return format == NumberFormat::bfloat16 ? (depth + 1) / 2 : depth;
  }
  std::size_t padded(std::size_t columns) const { return (columns + panel - 1) / panel * panel; }
};

/// Those in float32 that this processor can run, the fastest first; the last is the one that any
/// can.
std::span<const Kernels* const> supported_kernels();

/// The fastest of them.
const Kernels& best_kernels();

/// Those in bfloat16; null where the processor has no instructions for it.
const Kernels* bfloat16_kernels();

// One for each file that is compiled for another instruction set; those of AVX on x86-64 alone.
extern const Kernels kBaselineKernels;
extern const Kernels kAvx2Kernels;
extern const Kernels kAvx512Kernels;
extern const Kernels kAvx512Bf16Kernels;

/// What those in bfloat16 compute, on any processor, and slowly: for tests.
extern const Kernels kEmulatedBf16Kernels;

}  // namespace tovana::sentence_transformers
