#pragma once

#include <optional>
#include <string>

#include "tovana/base/environment.h"

namespace tovana::embedding {

/// The API key for the embedding endpoint: the value, unchanged, of the first variable of
/// `EMBEDDING_KEY_ENVS` that is set and not empty; none when neither is. Keys come from the
/// environment and from nowhere else. A null `environment` is the process's own, read now.
std::optional<std::string> endpoint_key(const Environment* environment = nullptr);

}  // namespace tovana::embedding
