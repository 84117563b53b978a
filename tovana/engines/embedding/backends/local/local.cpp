#include "tovana/engines/embedding/backends/local/local.h"

#include <deque>
#include <exception>
#include <utility>

#include "tovana/base/logging.h"
#include "tovana/base/text.h"
#include "tovana/engines/embedding/backends/local/local_surroundings.h"

namespace tovana::embedding {
namespace {

constexpr Logger log("engines.embedding");

/// Texts as a model takes them: the given ones, but for those that had to be repaired.
class WellFormedTexts {
 public:
  explicit WellFormedTexts(const std::vector<std::string>& texts) {
    _views.reserve(texts.size());
    for (const std::string& text : texts) {
      _views.emplace_back(is_well_formed_utf8(text) ? text
                                                    : _repaired.emplace_back(repair_utf8(text)));
    }
  }

  std::span<const std::string_view> views() const noexcept { return _views; }

 private:
  std::deque<std::string> _repaired;  ///< Never moves what it holds.
  std::vector<std::string_view> _views;
};

std::vector<Vector> rows(const FloatMatrix& matrix) {
  std::vector<Vector> vectors;
  if (matrix.values.empty()) return vectors;
  vectors.reserve(matrix.values.size() / matrix.columns);
  for (auto row = matrix.values.begin(); row != matrix.values.end();) {
    const auto end = row + static_cast<std::ptrdiff_t>(matrix.columns);
    vectors.emplace_back(row, end);
    row = end;
  }
  return vectors;
}

}  // namespace

LocalEmbeddingBackend::LocalEmbeddingBackend(std::string model_name,
                                             std::optional<std::int64_t> dimension)
    : LocalEmbeddingBackend(std::move(model_name), dimension, Surroundings{}) {}

LocalEmbeddingBackend::LocalEmbeddingBackend(std::string model_name,
                                             std::optional<std::int64_t> dimension,
                                             const Surroundings& surroundings)
    : _model_name(std::move(model_name)),
      _name("local:" + _model_name),
      _dimension(dimension.value_or(0) != 0 ? *dimension : _default_dimension(_model_name)),
      _runtime(surroundings.runtime != nullptr ? surroundings.runtime : &model_runtime()),
      _threads(surroundings.threads != nullptr ? surroundings.threads : &TORCH_THREADS),
      _environment(surroundings.environment) {}

LocalEmbeddingBackend::~LocalEmbeddingBackend() = default;

std::vector<Vector> LocalEmbeddingBackend::embed(const std::vector<std::string>& texts,
                                                 const PromptOptions& options,
                                                 std::vector<std::uint32_t>* token_counts) {
  const LocalModel& model = _load_model();
  if (texts.empty() && !options.prompt_name) return {};
  const WellFormedTexts given(texts);
  const std::string prompt = repair_utf8(options.prompt.value_or(""));
  EncodeOptions encoding = {.normalize_embeddings = true,
                            .prompt_name = options.prompt_name,
                            .count_tokens = token_counts != nullptr};
  if (options.prompt) encoding.prompt = prompt;
  const EncodedTexts encoded = _threads->bounded(
      embed_threads(_environment), [&] { return model.encode(given.views(), encoding); });
  if (token_counts != nullptr) {
    token_counts->insert(token_counts->end(), encoded.token_counts.begin(),
                         encoded.token_counts.end());
  }
  return rows(encoded.vectors);
}

ModelPrompts LocalEmbeddingBackend::prompts() { return _load_model().prompts(); }

const LocalModel& LocalEmbeddingBackend::_load_model() {
  if (const LocalModel* const loaded = _loaded_model.load(std::memory_order_acquire)) {
    return *loaded;
  }
  const LockGuard guard(_model_lock);
  if (_model != nullptr) return *_model;
  _runtime->load_library();
  std::unique_ptr<const LocalModel> model;
  try {
    model = _runtime->sentence_transformer(_model_name, /*local_files_only=*/true);
  } catch (const std::exception& error) {
    log.info("Model %s is not cached (%s), fetching it", _model_name, error.what());
    model = _runtime->sentence_transformer(_model_name, /*local_files_only=*/false);
  }
  _model = std::move(model);
  _loaded_model.store(_model.get(), std::memory_order_release);
  log.info("Loaded sentence-transformers model: %s", _model_name);
  return *_model;
}

std::int64_t LocalEmbeddingBackend::_default_dimension(std::string_view model_name) {
  for (const auto& [known, dimension] : LOCAL_DIMENSIONS) {
    if (model_name == known) return dimension;
  }
  return DEFAULT_LOCAL_DIMENSION;  // the MiniLM models', and the guess for any other
}

}  // namespace tovana::embedding
