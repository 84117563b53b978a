// 16 registers of 8 floats: 12 hold a tile's sums.
#define TOVANA_VECTOR_BYTES 32
#define TOVANA_TILE_ROWS 6
#include "sentence_transformers/compute/kernels_of_width.inc"

namespace tovana::sentence_transformers {
constexpr Kernels kAvx2Kernels = kernels_of_width<Float32>("avx2");
}  // namespace tovana::sentence_transformers
