#include "tovana/engines/embedding/engine/detection.h"

#include <cstdint>
#include <exception>
#include <optional>
#include <utility>

#include "tovana/base/logging.h"
#include "tovana/engines/embedding/backends/endpoint/http.h"
#include "tovana/engines/embedding/backends/local/local_surroundings.h"
#include "tovana/engines/embedding/backends/local/model_library.h"
#include "tovana/engines/embedding/backends/tfidf/tfidf.h"
#include "tovana/engines/embedding/engine/configuration_values.h"
#include "tovana/engines/embedding/settings.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::embedding {
namespace {

constexpr Logger log("engines.embedding");

/// One choice of a backend.
class Detection {
 public:
  Detection(const EngineConfiguration& config, ModelRuntime& runtime,
            const FallbackSink& set_fallback)
      : _config(config), _runtime(runtime), _set_fallback(set_fallback) {}

  std::shared_ptr<EmbeddingBackend> run() const {
    const auto backend = _config.find("backend");
    if (backend != _config.end()) {
      if (backend->second == EngineValue("tfidf")) return _make_tfidf();
      if (backend->second == EngineValue("api")) return _forced_api();
      if (backend->second == EngineValue("openai")) return _forced_openai();
      if (backend->second == EngineValue("local")) return _forced_local();
    }
    return _best_available();
  }

 private:
  std::shared_ptr<EmbeddingBackend> _forced_api() const {
    const std::optional<std::string> url = _usable_url("api_url");
    if (!url) return _not_configured("API backend requested but no api_url configured");
    return _make_api(*url);
  }

  std::shared_ptr<EmbeddingBackend> _forced_openai() const {
    std::optional<std::string> url = _usable_url("base_url");
    if (!url) url = _usable_url("api_url");
    if (!url) return _not_configured("OpenAI backend requested but no base_url configured");
    return std::make_shared<OpenAIEmbeddingBackend>(OpenAIEmbeddingBackend::Options{
        .base_url = *url,
        .api_key = text_value(_config, "api_key"),
        .model_name = _model_name(DEFAULT_OPENAI_MODEL),
        .dimension = _dimension_or(DEFAULT_OPENAI_DIMENSION),
    });
  }

  std::shared_ptr<EmbeddingBackend> _forced_local() const {
    if (!_load_library()) {
      log.warning(
          "Local backend requested but sentence-transformers not installed, falling back to "
          "TF-IDF");
      return _make_tfidf();
    }
    return _make_local(_model_name(DEFAULT_LOCAL_MODEL));
  }

  std::shared_ptr<EmbeddingBackend> _best_available() const {
    if (_load_library()) {
      try {
        const std::string model = _model_name(DEFAULT_LOCAL_MODEL);
        std::shared_ptr<EmbeddingBackend> local = _make_local(model);
        log.info("Using local embedding backend: %s", model);
        return local;
      } catch (const std::exception& error) {
        _set_fallback({.cause = Fallback::Cause::local_backend_failed,
                       .reason = std::string("Local backend failed: ") + error.what()});
        log.warning("Failed to create local backend: %s", error.what());
      }
    } else {
      log.debug("sentence-transformers not available");
    }
    if (const std::optional<std::string> url = _usable_url("api_url")) {
      log.info("Using API embedding backend");
      return _make_api(*url);
    }
    log.info("Using TF-IDF embedding backend (stdlib-only fallback)");
    return _make_tfidf();
  }

  /// Whether there is a model library, which is then loaded; if not, that is the reason.
  bool _load_library() const {
    try {
      _runtime.load_library();
      return true;
    } catch (const ModelLibraryNotInstalled&) {
      _set_fallback({.cause = Fallback::Cause::library_not_installed,
                     .reason = "sentence-transformers is not installed"});
      return false;
    }
  }

  std::shared_ptr<EmbeddingBackend> _not_configured(const std::string& reason) const {
    _set_fallback({.cause = Fallback::Cause::not_configured, .reason = reason});
    log.warning("%s, falling back to TF-IDF", reason);
    return _make_tfidf();
  }

  std::shared_ptr<EmbeddingBackend> _make_tfidf() const {
    return std::make_shared<TFIDFEmbeddingBackend>(_dimension_or(DEFAULT_TFIDF_DIMENSION));
  }

  std::shared_ptr<EmbeddingBackend> _make_local(const std::string& model) const {
    return std::make_shared<LocalEmbeddingBackend>(
        model, number_value(_config, "dimension"),
        LocalEmbeddingBackend::Surroundings{.runtime = &_runtime});
  }

  std::shared_ptr<EmbeddingBackend> _make_api(const std::string& url) const {
    return std::make_shared<APIEmbeddingBackend>(APIEmbeddingBackend::Options{
        .api_url = url,
        .api_key = text_value(_config, "api_key"),
        .dimension = _dimension_or(DEFAULT_API_DIMENSION),
    });
  }

  /// The configured name, which may be empty but not null; the default where there is none.
  std::string _model_name(const char* default_name) const {
    if (!_config.contains("model_name")) return default_name;
    std::optional<std::string> name = text_value(_config, "model_name");
    if (!name) throw ValueError("model_name must be a text, got null");
    return *std::move(name);
  }

  std::optional<std::string> _usable_url(std::string_view key) const {
    const auto found = _config.find(key);
    if (found == _config.end() || found->second == EngineValue(0)) return std::nullopt;
    std::optional<std::string> url = text_value(_config, key);
    return url && !url->empty() ? url : std::nullopt;
  }

  std::int64_t _dimension_or(std::int64_t default_dimension) const {
    const std::int64_t configured = number_value(_config, "dimension").value_or(0);
    return configured != 0 ? configured : default_dimension;
  }

  const EngineConfiguration& _config;
  ModelRuntime& _runtime;
  const FallbackSink& _set_fallback;
};

}  // namespace

std::shared_ptr<EmbeddingBackend> detect_backend(const EngineConfiguration& config,
                                                 ModelRuntime& runtime,
                                                 const FallbackSink& set_fallback) {
  return Detection(config, runtime, set_fallback).run();
}

}  // namespace tovana::embedding
