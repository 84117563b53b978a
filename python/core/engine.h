#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nanobind/nanobind.h>
#include <sys/types.h>

#include "call_limits.h"
#include "tovana/engines/embedding/backends/local/call_pace.h"
#include "tovana/engines/embedding/embedding.h"

namespace tovana::python {

/// An engine as Python uses it: waits in slices, between which signals are seen, and after a fork
/// goes on in the child with an engine of the child's own. Every operation has the interpreter, and
/// lets others have it while it waits or computes.
class Engine {
 public:
  explicit Engine(embedding::EngineConfiguration configuration);

  /// The engine that all of this process with an equal configuration share; one hold, to be let go of
  /// by `release`.
  static std::unique_ptr<Engine> acquire(const embedding::EngineConfiguration& configuration);

  /// Lets go of one hold. What a parent process had acquired is closed in this one alone. Throws
  /// ValueError for an engine that is not shared.
  void release();

  /// The same for all that share one engine, and no other's as long as this lives.
  const void* identity() const noexcept { return _engine.get(); }

  embedding::EmbeddingStatus status() { return _of_this_process()->status(); }
  std::optional<embedding::Fallback> fallback() { return _of_this_process()->fallback(); }
  void warm_up_async() { _of_this_process()->warm_up_async(); }
  void close() { _of_this_process()->close(); }

  /// Waits for the model, for `wait_s` seconds at most and not past the limits. Throws
  /// EmbeddingNotReadyError, and what the limits throw but for the time.
  std::shared_ptr<embedding::EmbeddingBackend> wait_ready(double wait_s, const CallLimits& limits);

  /// The vectors as a numpy array, `[texts x dimension]`. Throws ValueError for a prompt that the
  /// model does not have, and for any where the backend is no local model. Where they are asked
  /// for, adds the tokens of each text, which only a local model counts: else ValueError.
  nanobind::object embed(const nanobind::tuple& texts, const embedding::PromptOptions& prompt,
                         double wait_s, const CallLimits& limits, bool single_precision,
                         std::vector<std::uint32_t>* token_counts);

  /// The local model's; none for another backend. Waits as `wait_ready`.
  embedding::ModelPrompts prompts(double wait_s);

  /// As `EmbeddingEngine::check_backend_migration`; `fetchone` is asked once for the row.
  bool check_backend_migration(const nanobind::callable& fetchone, double wait_s);

 private:
  Engine(embedding::EngineConfiguration configuration,
         std::shared_ptr<embedding::EmbeddingEngine> shared);

  const std::shared_ptr<embedding::EmbeddingEngine>& _of_this_process();

  const embedding::EngineConfiguration _configuration;
  std::shared_ptr<embedding::EmbeddingEngine> _engine;
  /// Once it is ready: a forked child goes on with it, and so with its memory.
  std::shared_ptr<embedding::EmbeddingBackend> _backend;
  pid_t _process;
  bool _is_inherited = false;  ///< From a parent process, whose hold, if any, is not ours.
  embedding::CallPace _pace;
};

}  // namespace tovana::python
