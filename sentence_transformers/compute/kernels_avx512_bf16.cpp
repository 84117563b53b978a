// As kernels_avx512.cpp, but for products.
#define TOVANA_VECTOR_BYTES 64
#define TOVANA_TILE_ROWS 14
#include <immintrin.h>

#include "sentence_transformers/compute/kernels_of_width.inc"

namespace tovana::sentence_transformers {
namespace {

struct Bfloat16 {
  static constexpr NumberFormat kFormat = NumberFormat::bfloat16;
  static constexpr std::size_t kDepths = 2;
  using Word = std::uint32_t;

  static Vector multiply_add(Vector sum, Vector words, Word word) {
    return _mm512_dpbf16_ps(
        sum, __builtin_bit_cast(__m512bh, words),
        __builtin_bit_cast(__m512bh, _mm512_set1_epi32(static_cast<int>(word))));
  }

  static void round(const float* from, std::size_t count, Word* to) {
    for (; count >= 2 * kLanes; count -= 2 * kLanes, from += 2 * kLanes, to += kLanes) {
      store(to, round(load(from), load(from + kLanes)));
    }
    if (count == 0) return;
    const std::uint32_t numbers = (1U << count) - 1;
    const auto whole = static_cast<__mmask16>((1U << (count + 1) / 2) - 1);
    const Vector words =
        round(_mm512_maskz_loadu_ps(static_cast<__mmask16>(numbers), from),
              _mm512_maskz_loadu_ps(static_cast<__mmask16>(numbers >> kLanes), from + kLanes));
    _mm512_mask_storeu_ps(to, whole, words);
  }

  static Vector pair(Vector first, Vector second) {
    const __m512i order =
        _mm512_set_epi16(31, 15, 30, 14, 29, 13, 28, 12, 27, 11, 26, 10, 25, 9, 24, 8, 23, 7, 22, 6,
                         21, 5, 20, 4, 19, 3, 18, 2, 17, 1, 16, 0);
    return __builtin_bit_cast(
        Vector, _mm512_permutexvar_epi16(order, __builtin_bit_cast(__m512i, round(first, second))));
  }

 private:
  /// The numbers of one vector, and behind them those of the other.
  static Vector round(Vector first, Vector second) {
    return __builtin_bit_cast(Vector, _mm512_cvtne2ps_pbh(second, first));
  }
};

}  // namespace

constexpr Kernels kAvx512Bf16Kernels = kernels_of_width<Bfloat16>("avx512_bf16");

}  // namespace tovana::sentence_transformers
