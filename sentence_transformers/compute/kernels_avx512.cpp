// 32 registers of 16 floats: 28 hold a tile's sums.
#define TOVANA_VECTOR_BYTES 64
#define TOVANA_TILE_ROWS 14
#include "sentence_transformers/compute/kernels_of_width.inc"

namespace tovana::sentence_transformers {
constexpr Kernels kAvx512Kernels = kernels_of_width<Float32>("avx512");
}  // namespace tovana::sentence_transformers
