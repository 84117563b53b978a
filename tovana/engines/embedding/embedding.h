#pragma once

/// The embedding component's face, in one include: the engine and the factory that shares it, the
/// daemon's settings turned into its configuration, the backends, and the index that vectors are
/// searched in. `set_log_sink` routes its logs, `hub::set_fetch_observer` tells the progress of a
/// model's fetch. The reader of the daemon's database is a library of its own
/// (tovana/storage/sqlite).

#include "tovana/base/clock.h"
#include "tovana/base/log_sink.h"
#include "tovana/engines/embedding/backends/backend.h"
#include "tovana/engines/embedding/backends/endpoint/http.h"
#include "tovana/engines/embedding/backends/local/local.h"
#include "tovana/engines/embedding/backends/local/torch_threads.h"
#include "tovana/engines/embedding/backends/tfidf/tfidf.h"
#include "tovana/engines/embedding/engine/engine.h"
#include "tovana/engines/embedding/engine/status.h"
#include "tovana/engines/embedding/settings.h"
#include "tovana/engines/embedding/sharing/engine_config.h"
#include "tovana/engines/embedding/sharing/shared_engines.h"
#include "tovana/engines/hub/fetch_progress.h"
#include "tovana/storage/vector_index.h"

namespace tovana::embedding {

/// The in-memory index, under this name too, since it holds this component's vectors.
using storage::EmbeddingIndex;

}  // namespace tovana::embedding
