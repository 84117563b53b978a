#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tovana/base/export.h"
#include "tovana/engines/embedding/backends/backend.h"
#include "tovana/engines/embedding/engine/configuration.h"
#include "tovana/engines/embedding/engine/fallback.h"
#include "tovana/engines/embedding/engine/status.h"
#include "tovana/engines/embedding/settings.h"
#include "tovana/engines/http/retry_policy.h"
#include "tovana/storage/database.h"

namespace tovana::embedding {

class BackendLoader;
struct EngineSurroundings;

/// How an engine is made, by name only.
struct EngineOptions {
  /// Seconds that the waiting calls wait for the model before they say it is not ready.
  double wait_s = DEFAULT_WAIT_S;
  /// For tests, which replace clock, model runtime and threads (engine_surroundings.h); read while
  /// the engine is made. Null: the process's own.
  const EngineSurroundings* surroundings = nullptr;
};

/// What bounds one call of `EmbeddingEngine::embed`, by name only.
struct EmbedOptions {
  /// Whether to wait for a model that is being loaded. A request that has to be answered does not.
  bool wait = true;

  /// True ends the call with EmbeddingStopped. An endpoint's call asks it throughout (see
  /// `EmbedLimits`); what computes in this process asks it once, before it starts; the wait for the
  /// model does not. Runs on the calling thread; what it throws reaches the caller.
  http::StopTest should_stop = nullptr;

  /// The point of the monotonic clock, in seconds, past which the call does not wait for the model:
  /// five seconds from now is `system_clock().now() + 5` (tovana/base/clock.h). An endpoint's call
  /// ends by it altogether; what computes in this process does not look at it. Null: bounded by
  /// `wait_s` and the backend's timeout.
  std::optional<double> deadline = std::nullopt;
};

/// Turns texts into vectors with the backend that its configuration, and what is installed, leads
/// to. The backend is chosen and loaded on a thread of the engine's own, named "tovana-embedding"
/// (the system shows its first 15 characters, "tovana-embeddin"), which starts with the first
/// operation that needs the backend. A failed attempt is made again after `retry_delay`; neither
/// time nor failures ever lead to another backend, whose vectors would not compare with those made
/// before. See `EmbeddingStatus` for the states.
///
/// Threads: any operation on any number of threads at once, none of which waits for another's
/// embedding. The engine holds no lock while a backend is chosen, loaded or embeds, nor while
/// logging, so backends and stop tests may call it. A log sink may ask for the status and no more,
/// since backends hold locks of their own when they log (tovana/base/log_sink.h).
///
/// Lifetime: the engine may be destroyed while it loads, which ends like `close`, but not during a
/// call of its own. The process may exit at any moment, from any thread, without waiting for the
/// load; its handlers and destructors run as ever (but see LocalEmbeddingBackend). A forked child
/// may destroy an engine of its parent's, whatever that was doing, and do nothing else with it.
class TOVANA_API EmbeddingEngine {
 public:
  /// Loads nothing. With a `backend` the engine is ready with it at once, as its maker left it.
  explicit EmbeddingEngine(EngineConfiguration config = {},
                           std::shared_ptr<EmbeddingBackend> backend = nullptr,
                           EngineOptions options = {});
  /// The same, of a configuration in place: `EmbeddingEngine engine({{"backend", "tfidf"}})`.
  explicit EmbeddingEngine(std::initializer_list<EngineConfiguration::value_type> config,
                           std::shared_ptr<EmbeddingBackend> backend = nullptr,
                           EngineOptions options = {});
  virtual ~EmbeddingEngine();
  EmbeddingEngine(const EmbeddingEngine&) = delete;
  EmbeddingEngine& operator=(const EmbeddingEngine&) = delete;

  /// What the engine is doing right now. Never waits for the load.
  EmbeddingStatus status() const;

  /// Starts to load the backend, if that has not been started; returns at once. Call it early, when
  /// a server starts, and the first call that embeds need not wait. Throws std::system_error when
  /// the thread cannot be started, and so do the operations below that start the load; the next
  /// call tries again.
  void warm_up_async();

  /// The backend, once it is ready; starts the load if that has not been started. Blocks for up to
  /// `timeout` seconds, by default the engine's `wait_s`, while a load is going on; 0 never waits.
  /// Throws EmbeddingNotReadyError when the time is up, and at once when the last attempt failed or
  /// fails meanwhile, or the engine is closed. The load goes on all the same.
  std::shared_ptr<EmbeddingBackend> wait_ready(std::optional<double> timeout = std::nullopt);

  /// The backend, its dimension and its name, each waited for as by `wait_ready()`.
  std::shared_ptr<EmbeddingBackend> backend() { return wait_ready(); }
  std::int64_t dimension() { return wait_ready()->dimension(); }
  std::string backend_name() { return wait_ready()->name(); }

  /// Why the backend is not the best one, by what is installed and configured; null when it is, or
  /// is not chosen yet. Never waits.
  std::optional<std::string> fallback_reason() const;
  /// The same with its cause, for whoever tells a person what to do.
  std::optional<Fallback> fallback() const;

  /// One vector a text, in order: `[texts.size() x dimension]`. No texts give no vectors, whatever
  /// the engine does, and start nothing. Blocks for the model as the options say, then for as long
  /// as the backend takes. Throws
  /// - EmbeddingNotReadyError when the model is not ready in time, the last attempt to load it
  ///   failed, or the engine is closed;
  /// - EmbeddingStopped when the stop test said so;
  /// - what the backend throws: RuntimeError for an endpoint's call that failed or ran out of its
  ///   deadline and for a model that failed, std::bad_alloc and std::length_error where memory does
  ///   not suffice;
  /// - std::system_error when the load cannot be started, and what the stop test throws.
  std::vector<Vector> embed(const std::vector<std::string>& texts,
                            const EmbedOptions& options = {});

  /// The vector of one text, as a batch of it alone has it. Throws as `embed`.
  struct EmbedSingleOptions {
    bool wait = true;
  };
  Vector embed_single(const std::string& text, EmbedSingleOptions options);
  Vector embed_single(const std::string& text) { return embed_single(text, {.wait = true}); }

  /// Whether the vectors stored in the database were made by another backend than this engine's, so
  /// that they do not compare with its vectors and have to be made anew. Looks at one stored row;
  /// without one the answer is no, at once, and nothing is started. Blocks for the backend as
  /// `backend_name` does, and throws EmbeddingNotReadyError when it is not ready, which is no
  /// answer: ask again later. What `db` throws passes through.
  bool check_backend_migration(storage::Database& db);

  /// Stops trying to load, and wakes whoever waits for the model. An engine that is ready stays
  /// ready. Does not wait: an attempt that is under way runs to its end, and comes to nothing. A
  /// shared engine is closed for every holder, so its holders leave that to the factory
  /// (`SharedEngines::release`).
  virtual void close();

 private:
  const double _wait_s;
  const std::shared_ptr<BackendLoader> _loader;
};

}  // namespace tovana::embedding
