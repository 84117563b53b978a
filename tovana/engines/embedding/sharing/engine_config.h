#pragma once

#include "tovana/base/environment.h"
#include "tovana/config/config.h"
#include "tovana/engines/embedding/engine/configuration.h"

namespace tovana::embedding {

/// The configuration of the engine that the daemon's settings ask for.
///
/// | `daemon.embedding_backend` | result |
/// |---|---|
/// | "auto" | empty: the engine chooses |
/// | "openai" | `backend`, `base_url` and `model_name` (by default "text-embedding-3-small"), and
/// `api_key`, null when the environment has none | | any other | `backend`, as it is |
///
/// Nothing is checked here: the engine says what is wrong. A key comes from the environment only
/// (`endpoint_key`), which is read for "openai" alone; null is the process's own, as it is now.
EngineConfiguration engine_config(const Config& config, const Environment* environ = nullptr);

}  // namespace tovana::embedding
