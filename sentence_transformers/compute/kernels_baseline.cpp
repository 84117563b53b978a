// Vectors of 16 bytes, which every processor has or the compiler makes of smaller ones. Where a
// multiply and an add fuse (aarch64, 32 registers of 4 floats), 20 hold a tile's sums: with more,
// GCC 12 spills some of them. Where not (SSE2, 16 registers), 12 do.
#define TOVANA_VECTOR_BYTES 16
#if defined(__aarch64__)
#define TOVANA_TILE_ROWS 10
#else
#define TOVANA_TILE_ROWS 6
#endif
#include "sentence_transformers/compute/kernels_of_width.inc"

namespace tovana::sentence_transformers {

#if defined(__SSE2__)
constexpr Kernels kBaselineKernels = kernels_of_width<Float32>("sse2");
#elif defined(__ARM_NEON)
constexpr Kernels kBaselineKernels = kernels_of_width<Float32>("neon");
#else
constexpr Kernels kBaselineKernels = kernels_of_width<Float32>("generic");
#endif

}  // namespace tovana::sentence_transformers
