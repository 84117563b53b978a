#pragma once

#include <string>

#include "failure.h"
#include "tovana/engines/embedding/engine/fallback.h"
#include "tovana/engines/embedding/engine/status.h"
#include "tovana/engines/hub/fetch_errors.h"

/// What a command says, and how it ends, when the engine's backend is not the one that was hoped
/// for. The types of the causes decide, never their words.
namespace tovana::tool {

/// How a command ends that found the engine not ready: not_ready where the same command may succeed
/// later, another status where something has to be done first. The message never speaks of the
/// engine's next attempt, which a command does not live to see.
Failure load_failure(const embedding::EmbeddingNotReadyError& error);

/// How a command ends that could not fetch a model.
ExitStatus exit_status(hub::ModelFetchError::Cause cause);

/// What to do about a backend that gave way to tfidf.
std::string remedy_for(embedding::Fallback::Cause cause);

}  // namespace tovana::tool
