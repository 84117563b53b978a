#include "tovana/engines/embedding/sharing/engine_config.h"

#include <optional>
#include <string>

#include "tovana/engines/embedding/sharing/endpoint_key.h"

namespace tovana::embedding {
namespace {

constexpr const char* kDefaultEmbeddingModel = "text-embedding-3-small";

EngineValue value_or_null(std::optional<std::string> text) {
  return text ? EngineValue(*std::move(text)) : EngineValue(nullptr);
}

}  // namespace

EngineConfiguration engine_config(const Config& config, const Environment* environ) {
  const std::string& backend = config.daemon.embedding_backend;
  if (backend == "auto") return {};
  if (backend != "openai") return {{"backend", backend}};
  const std::string model = config.generation.embedding_model.value_or("");
  return {
      {"backend", backend},
      {"base_url", value_or_null(config.generation.base_url)},
      {"api_key", value_or_null(endpoint_key(environ))},
      {"model_name", model.empty() ? kDefaultEmbeddingModel : model},
  };
}

}  // namespace tovana::embedding
