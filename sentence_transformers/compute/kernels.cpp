#include "sentence_transformers/compute/kernels.h"

#include <vector>

namespace tovana::sentence_transformers {
namespace {

std::vector<const Kernels*> find_supported() {
  std::vector<const Kernels*> found;
#ifdef TOVANA_X86_KERNELS
  // These look at what the operating system keeps of the registers, too.
  if (__builtin_cpu_supports("avx512f") != 0) found.push_back(&kAvx512Kernels);
  if (__builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("fma") != 0) {
    found.push_back(&kAvx2Kernels);
  }
#endif
  return found;
}

}  // namespace

std::span<const Kernels* const> supported_kernels() {
  static const std::vector<const Kernels*> supported = find_supported();
  return supported;
}

const Kernels* best_kernels() {
  const std::span<const Kernels* const> supported = supported_kernels();
  return supported.empty() ? nullptr : supported.front();
}

}  // namespace tovana::sentence_transformers
