#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <variant>
#include <vector>

#include "sentence_transformers/compute/kernels.h"
#include "sentence_transformers/compute/packed_matrix.h"
#include "sentence_transformers/model/layer_norm.h"
#include "tovana/files/model_directory.h"

/// What may follow the pooling: steps from a text's vector to another. Every text's result is the
/// same to the bit whatever texts stand beside it.
namespace tovana::sentence_transformers {

/// The vectors of some texts on their way through the modules.
struct TextVectors {
  std::size_t texts;
  std::size_t width;
  std::size_t stride;          ///< From one text's vector to the next, at least `width`.
  std::vector<float> numbers;  ///< `[texts x stride]`

  float* row(std::size_t text) { return numbers.data() + text * stride; }
};

/// Scales a vector to unit length; zeros stay. `out` may be `in`.
void normalize_vector(const float* in, std::size_t width, float* out);

struct Normalize {};

/// activation(x W^T + b), with x, or R x where the widths differ, added if there is a residual.
struct Dense {
  std::size_t width;  ///< Of what comes out.
  PackedMatrix linear;
  Activation activation;
  bool has_residual;
  std::optional<PackedMatrix> residual;  ///< R
};

using SentenceModule = std::variant<Normalize, Dense, LayerNorm>;

/// A module whose files have been found sound, but for the numbers of its weights.
struct FoundModule {
  std::int64_t width;  ///< The floats that come out.
  /// Reads the numbers: throws what `Checkpoint::tensor` does.
  std::function<SentenceModule(const Kernels& kernels)> load;
};

// Each finds a module in its folder, for vectors of `width` floats. Throws ModelFilesError, naming
// file and fault, for what makes no such module.
FoundModule find_normalize(const files::ModelDirectory& directory, std::int64_t width);
FoundModule find_dense(const files::ModelDirectory& directory, std::int64_t width);
FoundModule find_layer_norm(const files::ModelDirectory& directory, std::int64_t width);

/// Sends vectors through a module that was loaded for these kernels.
void apply_module(const SentenceModule& module, const Kernels& kernels, TextVectors& vectors);

}  // namespace tovana::sentence_transformers
