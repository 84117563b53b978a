#pragma once

/// The embedding component's face: all that a program needs, in one include that reaches the
/// standard library and nobody else's headers.
///
/// | for | there is |
/// |---|---|
/// | vectors of texts | `EmbeddingEngine`; `SHARED_ENGINES`, which shares one a configuration |
/// | the daemon's settings | `Config`, `engine_config` |
/// | deadlines | `system_clock().now()`, in seconds |
/// | what local models compute in | `EMBED_PRECISION.request(Precision::bfloat16)` |
/// | logs | `set_log_sink`, `set_log_level` |
/// | the progress of a model's fetch | `hub::set_fetch_observer` |
/// | a backend without an engine, or one of the program's own | the backends' classes, `EmbeddingBackend` |
/// | vectors searched in memory | `EmbeddingIndex` |
///
/// Everything is thrown, nothing returned as an error code; every error of ours is a `tovana::Error`
/// and a `std::exception`. Texts are UTF-8, vectors 64-bit floats, times seconds.
///
/// The reader of the daemon's database is a library beside this one (tovana/storage/sqlite).

#include "tovana/base/clock.h"
#include "tovana/base/log_sink.h"
#include "tovana/engines/embedding/backends/backend.h"
#include "tovana/engines/embedding/backends/endpoint/http.h"
#include "tovana/engines/embedding/backends/local/local.h"
#include "tovana/engines/embedding/backends/local/precision.h"
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
