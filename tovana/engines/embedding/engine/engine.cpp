#include "tovana/engines/embedding/engine/engine.h"

#include <algorithm>
#include <new>
#include <utility>

#include "tovana/engines/embedding/backends/endpoint/embedding_stopped.h"
#include "tovana/engines/embedding/backends/endpoint/http.h"
#include "tovana/engines/embedding/engine/backend_loader.h"

namespace tovana::embedding {

EmbeddingEngine::EmbeddingEngine(EngineConfiguration config,
                                 std::shared_ptr<EmbeddingBackend> backend, EngineOptions options)
    : _wait_s(options.wait_s),
      _loader(std::make_shared<BackendLoader>(
          std::move(config), std::move(backend),
          options.surroundings != nullptr ? *options.surroundings : EngineSurroundings{})) {}

EmbeddingEngine::EmbeddingEngine(std::initializer_list<EngineConfiguration::value_type> config,
                                 std::shared_ptr<EmbeddingBackend> backend, EngineOptions options)
    : EmbeddingEngine(EngineConfiguration(config), std::move(backend), options) {}

EmbeddingEngine::~EmbeddingEngine() {
  if (_loader->is_of_this_process()) {
    _loader->close();
  } else {
    // Left as it is: threads that this process does not have may hold its lock, or wait.
    static_cast<void>(new (std::nothrow) std::shared_ptr(_loader));
  }
}

EmbeddingStatus EmbeddingEngine::status() const { return _loader->status(); }

void EmbeddingEngine::warm_up_async() { _loader->warm_up_async(); }

std::shared_ptr<EmbeddingBackend> EmbeddingEngine::wait_ready(std::optional<double> timeout) {
  return _loader->wait_ready(timeout.value_or(_wait_s));
}

std::optional<Fallback> EmbeddingEngine::fallback() const { return _loader->fallback(); }

std::optional<std::string> EmbeddingEngine::fallback_reason() const {
  std::optional<Fallback> taken = fallback();
  return taken ? std::optional(std::move(taken->reason)) : std::nullopt;
}

void EmbeddingEngine::close() { _loader->close(); }

std::vector<Vector> EmbeddingEngine::embed(const std::vector<std::string>& texts,
                                           const EmbedOptions& options) {
  if (texts.empty()) return {};
  double longest_wait = 0;
  if (options.wait) {
    longest_wait = _wait_s;
    if (options.deadline) {
      longest_wait = std::max(0.0, std::min(*options.deadline - _loader->clock().now(), _wait_s));
    }
  }
  const std::shared_ptr<EmbeddingBackend> backend = _loader->wait_ready(longest_wait);
  if (auto* const endpoint = dynamic_cast<_HTTPEmbeddingBackend*>(backend.get())) {
    return endpoint->embed(texts,
                           {.should_stop = options.should_stop, .deadline = options.deadline});
  }
  if (options.should_stop && options.should_stop()) {
    throw EmbeddingStopped("the embedding call was asked to stop before it started");
  }
  return backend->embed(texts);
}

Vector EmbeddingEngine::embed_single(const std::string& text, EmbedSingleOptions options) {
  return std::move(embed({text}, {.wait = options.wait}).front());
}

}  // namespace tovana::embedding
