#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tovana/base/environment.h"
#include "tovana/base/export.h"
#include "tovana/base/mutex.h"
#include "tovana/engines/embedding/backends/backend.h"
#include "tovana/engines/embedding/backends/local/model_library_errors.h"
#include "tovana/engines/embedding/backends/local/prompts.h"
#include "tovana/engines/embedding/settings.h"
#include "tovana/engines/hub/fetch_errors.h"
#include "tovana/files/model_files_error.h"

namespace tovana::embedding {

class LocalModel;
class ModelRuntime;
class TorchThreads;

/// Embeds with a sentence-transformers model run in this process: the best vectors, for which the
/// model library has to be installed and the model's files to be in the local cache. The default
/// model is small and fast, and suits text that describes code.
///
/// The model is loaded on first use, or by `warm_up`; then it stays. It is looked for in the cache
/// without a request to the model hub, which is asked only for a model that is not there.
///
/// Each call computes under the bound of `embed_threads()`, read from the environment every time.
///
/// Threads: any operation may be called from any number of threads at once; they encode in
/// parallel. While one loads, the others wait for it in `embed` and `warm_up`. A forked child may
/// go on with a backend whose model was loaded, whatever its parent's threads were doing.
///
/// Exit: the process may exit at any moment of a load or a call, from any thread. Nothing is waited
/// for, and the host's handlers and destructors run, unless the model library is one that guards
/// the exit: the one on libtorch does, and says what that costs.
class TOVANA_API LocalEmbeddingBackend final : public EmbeddingBackend {
 public:
  /// What a backend stands on, for tests to replace (local_surroundings.h).
  struct Surroundings;

  /// A `model_name` as the model hub has it, or a directory (see `hub`). A `dimension` that is null
  /// or 0 becomes `_default_dimension`. Loads nothing and checks nothing.
  explicit LocalEmbeddingBackend(std::string model_name = DEFAULT_LOCAL_MODEL,
                                 std::optional<std::int64_t> dimension = std::nullopt);
  LocalEmbeddingBackend(std::string model_name, std::optional<std::int64_t> dimension,
                        const Surroundings& surroundings);
  ~LocalEmbeddingBackend() override;

  /// "local:" and the model's name.
  const std::string& name() const noexcept override { return _name; }

  /// As constructed. Not checked against the vectors, whose length is the model's own.
  std::int64_t dimension() const noexcept override { return _dimension; }

  /// `[texts.size() x the model's dimension]`, each vector of unit length. Loads the model first
  /// if need be, for no texts too, and throws what `warm_up` throws; RuntimeError when the model
  /// fails. Blocks while it computes. Before each text stands the model's default prompt, if it has
  /// one.
  std::vector<Vector> embed(const std::vector<std::string>& texts) override {
    return embed(texts, PromptOptions{});
  }
  /// The same with another prompt. Vectors compare across prompts: that is what those are for. Also
  /// throws ValueError, naming the prompts there are, for a name that the model does not have, for
  /// no texts too. Where they are asked for, adds to `token_counts` how many tokens of each text were
  /// encoded, the prompt's and the special ones included, what was cut off not.
  std::vector<Vector> embed(const std::vector<std::string>& texts, const PromptOptions& options,
                            std::vector<std::uint32_t>* token_counts = nullptr);

  /// The model's prompts. Loads it if need be, and throws as `warm_up`.
  ModelPrompts prompts();

  /// Loads the model unless it is loaded. Blocks for as long as that takes, which can be minutes
  /// where it has to be fetched. After a failure nothing is kept, and the next call starts anew.
  /// Throws
  /// - ModelLibraryNotInstalled when there is no model library, ModelLibraryError when it cannot be
  ///   loaded;
  /// - hub::ModelNotCachedError and hub::ModelFetchError when the model is not to be had,
  ///   hub::CacheNotWritableError when there is no place for it, other RuntimeErrors when the model
  ///   library fails;
  /// - files::ModelFilesError when its files are damaged, incomplete or of a kind that does not load;
  /// - ValueError when the model's name is malformed, EnvironmentVariableError, which is one, when a
  ///   variable that is read has such a value.
  void warm_up() override { _load_model(); }

  /// The model, loaded if it was not; lives as long as the backend. Throws as `warm_up`.
  const LocalModel& _load_model() TOVANA_EXCLUDES(_model_lock);

  /// The dimension of a known model; `DEFAULT_LOCAL_DIMENSION` for any other name.
  static std::int64_t _default_dimension(std::string_view model_name);

 private:
  const std::string _model_name;
  /// Null until the first load has succeeded, then never changed.
  std::unique_ptr<const LocalModel> _model TOVANA_GUARDED_BY(_model_lock);
  /// The same for whoever does without the lock: in a forked child a thread that is not there may
  /// hold it.
  std::atomic<const LocalModel*> _loaded_model = nullptr;
  Mutex _model_lock;
  const std::string _name;
  const std::int64_t _dimension;
  ModelRuntime* const _runtime;
  TorchThreads* const _threads;
  const Environment* const _environment;
};

}  // namespace tovana::embedding
