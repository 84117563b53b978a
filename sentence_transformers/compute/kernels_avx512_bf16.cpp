// As kernels_avx512.cpp, but for products.
#define TOVANA_VECTOR_BYTES 64
#define TOVANA_TILE_ROWS 14
#include <immintrin.h>

#include "sentence_transformers/compute/kernels_of_width.inc"

namespace tovana::sentence_transformers {
namespace {

// Both instructions by their names: clang 16 crashes on vectors of bfloat16 in such loops.

/// The numbers of one vector, and behind them those of the other.
inline Vector rounded(Vector first, Vector second) {
  Vector words;
  asm("vcvtne2ps2bf16 %1, %2, %0" : "=v"(words) : "v"(first), "v"(second));
  return words;
}

struct Bfloat16 {
  static constexpr NumberFormat kFormat = NumberFormat::bfloat16;
  static constexpr std::size_t kDepths = 2;
  using Word = std::uint32_t;

  static Vector multiply_add(Vector sum, Vector words, Word word) {
    asm("vdpbf16ps %2, %1, %0"
        : "+v"(sum)
        : "v"(words), "v"(_mm512_set1_epi32(static_cast<int>(word))));
    return sum;
  }

  static void round(const float* from, std::size_t count, Word* to) {
    for (; count >= 2 * kLanes; count -= 2 * kLanes, from += 2 * kLanes, to += kLanes) {
      store(to, rounded(load(from), load(from + kLanes)));
    }
    if (count == 0) return;
    const auto mask_of = [](std::size_t lanes) {
      return static_cast<__mmask16>(lanes < kLanes ? (1U << lanes) - 1 : 0xFFFF);
    };
    const std::size_t behind = count < kLanes ? 0 : count - kLanes;
    const Vector words = rounded(_mm512_maskz_loadu_ps(mask_of(count), from),
                                 _mm512_maskz_loadu_ps(mask_of(behind), from + kLanes));
    _mm512_mask_storeu_ps(to, mask_of((count + 1) / 2), words);
  }

  static Vector pair(Vector first, Vector second) {
    const __m512i order =
        _mm512_set_epi16(31, 15, 30, 14, 29, 13, 28, 12, 27, 11, 26, 10, 25, 9, 24, 8, 23, 7, 22, 6,
                         21, 5, 20, 4, 19, 3, 18, 2, 17, 1, 16, 0);
    return __builtin_bit_cast(
        Vector,
        _mm512_permutexvar_epi16(order, __builtin_bit_cast(__m512i, rounded(first, second))));
  }
};

}  // namespace

constexpr Kernels kAvx512Bf16Kernels = kernels_of_width<Bfloat16>("avx512_bf16");

}  // namespace tovana::sentence_transformers
