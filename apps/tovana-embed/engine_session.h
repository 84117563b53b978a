#pragma once

#include <memory>

#include "engine_arguments.h"
#include "run_limits.h"
#include "tovana/engines/embedding/engine/engine.h"

namespace tovana::tool {

/// The engine of one command: it loads from the start, while the command still reads its input, and
/// is closed when the user wants the command to end. Used by one thread.
class EngineSession {
 public:
  /// Throws as `engine_configuration`; Failure (not_ready) when there is no thread to load with.
  EngineSession(const EngineArguments& arguments, const Interrupts& interrupts);
  ~EngineSession();
  EngineSession(const EngineSession&) = delete;
  EngineSession& operator=(const EngineSession&) = delete;

  embedding::EmbeddingEngine& engine() const { return *_engine; }
  /// For calls that may outlast the session.
  std::shared_ptr<embedding::EmbeddingEngine> shared_engine() const { return _engine; }

  /// Whether the options leave it open that the backend is an endpoint.
  bool may_be_endpoint() const;

  /// The engine's backend, waited for as the options say, but not past the limits. The first time
  /// it says on stderr when the backend is not the one that was asked for. Throws Interrupted, and
  /// Failure: as RunLimits::check when the deadline has passed, else as `load_failure` says; for
  /// prompts usage when the model does not have them, and call_failed when the backend is no model.
  const std::shared_ptr<embedding::EmbeddingBackend>& wait_ready(const RunLimits& limits);

 private:
  void _check_prompts(embedding::EmbeddingBackend& backend) const;

  const EngineArguments& _arguments;
  const embedding::EngineConfiguration _config;
  const std::shared_ptr<embedding::EmbeddingEngine> _engine;
  std::shared_ptr<embedding::EmbeddingBackend> _backend;
};

}  // namespace tovana::tool
