#pragma once

#include <optional>
#include <string>

#include "tovana/base/environment.h"
#include "tovana/base/export.h"
#include "tovana/config/config.h"
#include "tovana/engines/embedding/engine/configuration.h"

namespace tovana::embedding {

/// The configuration of the engine that the daemon's settings ask for.
///
/// | `daemon.embedding_backend` | result |
/// |---|---|
/// | "auto" | empty: the engine chooses |
/// | "openai" | `backend`; `base_url`, null when there is none; `api_key`, null when there is none; `model_name`, `DEFAULT_OPENAI_MODEL` when there is none or it is empty |
/// | any other | `backend`, as it is |
///
/// Nothing is checked here: the engine says what is wrong. The key comes from the environment only
/// (`endpoint_key`), which is read for "openai" alone. A null `environment` is the process's own,
/// read now. Neither blocks nor keeps anything; any thread may call it while nobody changes the
/// process's environment.
TOVANA_API EngineConfiguration engine_config(const Config& config,
                                             const Environment* environment = nullptr);

/// The API key for the embedding endpoint: the value, unchanged, of the first variable of
/// `EMBEDDING_KEY_ENVS` that is set and not empty; none when neither is. A null `environment` is the
/// process's own, read now.
TOVANA_API std::optional<std::string> endpoint_key(const Environment* environment = nullptr);

}  // namespace tovana::embedding
