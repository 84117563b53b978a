#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <sys/types.h>
#include <unistd.h>

#include "tovana/base/clock.h"
#include "tovana/base/condition_variable.h"
#include "tovana/base/mutex.h"
#include "tovana/engines/embedding/backends/backend.h"
#include "tovana/engines/embedding/backends/local/model_runtime.h"
#include "tovana/engines/embedding/engine/configuration.h"
#include "tovana/engines/embedding/engine/engine_surroundings.h"
#include "tovana/engines/embedding/engine/fallback.h"
#include "tovana/engines/embedding/engine/status.h"

namespace tovana::embedding {

/// The engine's state, and the thread that changes it: chooses the backend, loads it, and tries
/// again after a failure, for as long as it takes.
///
/// | from | event | to |
/// |---|---|---|
/// | idle | `warm_up_async`, `wait_ready` | loading; the thread starts |
/// | loading | the backend is loaded | ready, for good |
/// | loading | the attempt failed | unavailable |
/// | unavailable | `retry_delay` has passed | loading |
/// | idle, loading, unavailable | `close` | closed, for good |
///
/// Time and failures never lead to another backend: the vectors of two backends cannot be compared,
/// so the vectors made before would be lost.
///
/// Held by a shared pointer: the thread has a share, so it may outlive the engine, whose destructor
/// closes this, and finds all that it touches. Nobody joins the thread. It tests for the close
/// between attempts; one that is under way runs to its end.
///
/// Threads: any operation on any thread, at any time. The lock is held for snapshots and changes of
/// the state only, never while a backend is chosen, loaded or used, and never while logging.
class BackendLoader : public std::enable_shared_from_this<BackendLoader> {
 public:
  /// With a backend it is ready and never starts a thread.
  BackendLoader(EngineConfiguration config, std::shared_ptr<EmbeddingBackend> backend,
                const EngineSurroundings& surroundings);

  /// What is going on right now. Does not wait.
  EmbeddingStatus status() const TOVANA_EXCLUDES(_lock);

  /// Starts the load of an idle engine; otherwise does nothing. When the thread cannot be started
  /// its error is thrown on, and the engine is idle as before: the next call tries again.
  void warm_up_async() TOVANA_EXCLUDES(_lock);

  /// The backend, once it is ready; starts the load if need be. Blocks for up to `timeout` seconds
  /// while a load is going on, not at all when that is not above 0. Throws EmbeddingNotReadyError
  /// when the time is up, and at once when the attempt fails, has failed, or the engine is closed.
  std::shared_ptr<EmbeddingBackend> wait_ready(double timeout) TOVANA_EXCLUDES(_lock);

  /// Why the backend is not the best one; null when it is, or is not chosen yet. Does not wait.
  std::optional<Fallback> fallback() const TOVANA_EXCLUDES(_lock);

  /// Ends all waits, and the loading, unless the backend is ready: that stays. Does not wait.
  void close() TOVANA_EXCLUDES(_lock);

  Clock& clock() const noexcept { return _clock; }

  /// False in a child that was forked since: it neither uses nor destroys this.
  bool is_of_this_process() const noexcept { return _process == getpid(); }

 private:
  enum class State { idle, loading, ready, unavailable, closed };

  struct Failure {
    std::string kind;
    std::string message;
    std::exception_ptr error;
  };

  EmbeddingStatus _status_locked() const TOVANA_REQUIRES(_lock);
  std::optional<std::string> _fallback_reason_locked() const TOVANA_REQUIRES(_lock);

  /// The body of the thread.
  void _load();
  /// One attempt: a loaded backend, or null and what failed.
  std::shared_ptr<EmbeddingBackend> _attempt(Failure& failure);
  std::shared_ptr<EmbeddingBackend> _detect_backend();
  /// Reports a failed attempt and waits to try again: false when the engine was closed meanwhile.
  bool _retry_after(const Failure& failure, double delay) TOVANA_EXCLUDES(_lock);

  const pid_t _process = getpid();
  const EngineConfiguration _config;
  Clock& _clock;
  ModelRuntime& _runtime;
  const std::function<void(std::function<void()>)> _start_thread;

  mutable RecursiveMutex _lock;
  /// Signalled, to all waiters, on every change of the state that the thread or `close` makes.
  ConditionVariable _changed;
  State _state TOVANA_GUARDED_BY(_lock);
  /// Not null exactly in state ready.
  std::shared_ptr<EmbeddingBackend> _backend TOVANA_GUARDED_BY(_lock);
  std::optional<Fallback> _fallback TOVANA_GUARDED_BY(_lock);
  /// The last attempt's failure, and when the next one begins; for state unavailable.
  std::string _failure TOVANA_GUARDED_BY(_lock);
  std::exception_ptr _failure_error TOVANA_GUARDED_BY(_lock);
  double _retry_at TOVANA_GUARDED_BY(_lock) = 0;
  /// When the attempt began; for state loading.
  double _loading_since TOVANA_GUARDED_BY(_lock) = 0;
};

}  // namespace tovana::embedding
