#pragma once

#include "embedding_call.h"

namespace tovana::tool {

/// As `embed_in_batches`, but of equal texts only the first one is embedded, and what comes of it,
/// a vector or a failure, is that of all. `tfidf` gets all of them, since its weights count them.
void embed_each_once(EngineSession& session, const InputTexts& input, const Batching& batching,
                     const RunLimits& limits, const ResultSink& sink);

}  // namespace tovana::tool
