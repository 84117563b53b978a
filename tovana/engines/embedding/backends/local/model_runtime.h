#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tovana/engines/embedding/backends/local/prompts.h"

/// What the local backend and its thread bound ask of the model library. The process has one
/// runtime; tests hand in their own.
///
/// Threads: any operation may be called from any number of threads at once.
namespace tovana::embedding {

/// The model library's setting of threads, which is made as torch's of its intra-op threads: one a
/// thread, and a default.
class TorchRuntime {
 public:
  virtual ~TorchRuntime() = default;

  /// The current intra-op thread count of the calling thread.
  virtual std::int64_t get_num_threads() = 0;

  /// Sets the intra-op thread count of the calling thread, and also the default that a thread
  /// copies the first time it computes. `count` is at least 1.
  virtual void set_num_threads(std::int64_t count) = 0;
};

/// Rows of one length, one behind another: `[rows x columns]`.
struct FloatMatrix {
  std::size_t columns = 0;
  std::vector<float> values;
};

/// How texts are encoded, by name only.
struct EncodeOptions {
  bool normalize_embeddings = false;  ///< Whether each vector is scaled to unit length.

  // As those of PromptOptions.
  std::optional<std::string_view> prompt_name = std::nullopt;
  std::optional<std::string_view> prompt = std::nullopt;

  bool count_tokens = false;  ///< Whether `EncodedTexts::token_counts` is wanted.
};

struct EncodedTexts {
  FloatMatrix vectors;  ///< One row a text, in their order.

  /// `[texts]`: how many tokens of each were encoded, the prompt's and the special ones included,
  /// what was cut off not; empty unless it was asked for.
  std::vector<std::uint32_t> token_counts;
};

/// A loaded model.
class LocalModel {
 public:
  virtual ~LocalModel() = default;

  /// The texts, and what stands before them, are well-formed. Throws ValueError for a prompt that
  /// the model does not have, naming those it has, with no texts too, and RuntimeError.
  virtual EncodedTexts encode(std::span<const std::string_view> texts,
                              const EncodeOptions& options) const = 0;

  virtual ModelPrompts prompts() const = 0;
};

/// What the model library computes with. The texts live as long as the process.
struct ModelLibraryDescription {
  std::string_view runtime;  ///< "native", or another library's name and version.
  std::string_view kernels;  ///< The instruction set of the arithmetic: "avx512".
};

class ModelRuntime {
 public:
  virtual ~ModelRuntime() = default;

  /// The setting of the model library, if that is loaded in this process; null if not, whatever
  /// libtorch the host has loaded for itself. Loads nothing and never blocks.
  virtual TorchRuntime* loaded_torch() noexcept = 0;

  /// What the model library is, if it is loaded in this process. Loads nothing and never blocks.
  virtual std::optional<ModelLibraryDescription> loaded_library() noexcept = 0;

  /// Loads the model library unless it is loaded. May block for seconds. Throws
  /// ModelLibraryNotInstalled (model_library.h) or, when it is there but cannot be loaded,
  /// RuntimeError; a later call tries again.
  virtual void load_library() = 0;

  /// Whether the model in a directory could be loaded, without the time and the memory of doing so.
  /// Both paths are absolute, and no file outside `allowed_root` is read. Loads the library where
  /// that has not been done, and throws as that; ModelFilesError when the files cannot serve.
  virtual void check_model(const std::filesystem::path& directory,
                           const std::filesystem::path& allowed_root) = 0;

  /// Loads a model by its name (or from a directory, see `hub`), from the local cache only or
  /// fetching it when it is not cached, in the process's precision. May block for as long as that
  /// takes. Loads the library where that has not been done. Throws RuntimeError when the model is not
  /// to be had, ModelFilesError when its files cannot serve, ValueError for a malformed name.
  virtual std::unique_ptr<const LocalModel> sentence_transformer(const std::string& model_name,
                                                                 bool local_files_only) = 0;
};

/// The runtime of this process: the model library that `model_library_path` names, and the model
/// cache of `hub`. Never destroyed.
ModelRuntime& model_runtime();

}  // namespace tovana::embedding
