#include "sentence_transformers/compute/bfloat16.h"

// The baseline's vectors; there are more numbers to keep.
#define TOVANA_VECTOR_BYTES 16
#define TOVANA_TILE_ROWS 4
#include "sentence_transformers/compute/kernels_of_width.inc"

namespace tovana::sentence_transformers {
namespace {

inline Vector first_of(Integers words) { return __builtin_bit_cast(Vector, words << 16); }
inline Vector second_of(Integers words) { return __builtin_bit_cast(Vector, words & -0x10000); }

/// A word of two numbers, of which a NaN stays one.
inline std::uint32_t word_of(float first, float second) {
  const auto bits = [](float number) {
    constexpr std::uint32_t kNan = 0x7FC0;
    return number == number ? bfloat16_bits(number) : kNan;
  };
  return bits(first) | bits(second) << 16U;
}

struct Bfloat16 {
  static constexpr NumberFormat kFormat = NumberFormat::bfloat16;
  static constexpr std::size_t kDepths = 2;
  using Word = std::uint32_t;

  /// As the instruction does it: the product of the second numbers is added first. Products are
  /// exact, so that nothing depends on whether they fuse with the sums. Unlike the instruction,
  /// this does not make zeros of denormal numbers.
  static Vector multiply_add(Vector sum, Vector words, Word word) {
    const auto left = __builtin_bit_cast(Integers, words);
    const auto right = Integers{} + static_cast<std::int32_t>(word);
    sum += second_of(left) * second_of(right);
    return sum + first_of(left) * first_of(right);
  }

  static void round(const float* from, std::size_t count, Word* to) {
    for (std::size_t i = 0; i < count; i += 2) {
      to[i / 2] = word_of(from[i], i + 1 < count ? from[i + 1] : 0.0F);
    }
  }

  static Vector pair(Vector first, Vector second) {
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
      first[lane] = __builtin_bit_cast(float, word_of(first[lane], second[lane]));
    }
    return first;
  }
};

}  // namespace

constexpr Kernels kEmulatedBf16Kernels = kernels_of_width<Bfloat16>("emulated_bf16");

}  // namespace tovana::sentence_transformers
