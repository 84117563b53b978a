#include "sentence_transformers/compute/kernels.h"

#include <array>

namespace tovana::sentence_transformers {
namespace {

// A processor that runs one of them runs those behind it, so that nothing has to be kept that would
// be made at the first call or destroyed at exit.
#ifdef TOVANA_X86_KERNELS
constexpr std::array kFastestFirst = {&kAvx512Kernels, &kAvx2Kernels, &kBaselineKernels};

std::size_t count_unsupported() {
  // These look at what the operating system keeps of the registers, too.
  if (__builtin_cpu_supports("avx2") == 0 || __builtin_cpu_supports("fma") == 0) return 2;
  return __builtin_cpu_supports("avx512f") == 0 ? 1 : 0;
}

const Kernels* find_bfloat16() {
  if (count_unsupported() > 0 || __builtin_cpu_supports("avx512bw") == 0) return nullptr;
  return __builtin_cpu_supports("avx512bf16") == 0 ? nullptr : &kAvx512Bf16Kernels;
}
#else
constexpr std::array kFastestFirst = {&kBaselineKernels};

std::size_t count_unsupported() { return 0; }

const Kernels* find_bfloat16() { return nullptr; }
#endif

}  // namespace

std::span<const Kernels* const> supported_kernels() {
  return std::span(kFastestFirst).subspan(count_unsupported());
}

const Kernels& best_kernels() { return *supported_kernels().front(); }

const Kernels* bfloat16_kernels() { return find_bfloat16(); }

}  // namespace tovana::sentence_transformers
