#include "tovana/engines/embedding/sharing/engine_config.h"

#include <optional>
#include <string>

#include "tovana/engines/embedding/settings.h"

namespace tovana::embedding {
namespace {

EngineValue value_or_null(std::optional<std::string> text) {
  return text ? EngineValue(*std::move(text)) : EngineValue(nullptr);
}

}  // namespace

std::optional<std::string> endpoint_key(const Environment* environment) {
  for (const char* const variable : EMBEDDING_KEY_ENVS) {
    std::optional<std::string> key = environment_variable(variable, environment);
    if (key && !key->empty()) return key;
  }
  return std::nullopt;
}

EngineConfiguration engine_config(const Config& config, const Environment* environment) {
  const std::string& backend = config.daemon.embedding_backend;
  if (backend == "auto") return {};
  if (backend != "openai") return {{"backend", backend}};
  const std::string model = config.generation.embedding_model.value_or("");
  return {
      {"backend", backend},
      {"base_url", value_or_null(config.generation.base_url)},
      {"api_key", value_or_null(endpoint_key(environment))},
      {"model_name", model.empty() ? DEFAULT_OPENAI_MODEL : model},
  };
}

}  // namespace tovana::embedding
