#include "tovana/engines/embedding/sharing/endpoint_key.h"

#include "tovana/engines/embedding/settings.h"

namespace tovana::embedding {

std::optional<std::string> endpoint_key(const Environment* environment) {
  for (const char* const variable : EMBEDDING_KEY_ENVS) {
    std::optional<std::string> key = environment_variable(variable, environment);
    if (key && !key->empty()) return key;
  }
  return std::nullopt;
}

}  // namespace tovana::embedding
