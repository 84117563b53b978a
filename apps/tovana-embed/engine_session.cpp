#include "engine_session.h"

#include <algorithm>
#include <system_error>

#include "failure.h"
#include "tovana/base/clock.h"
#include "tovana/engines/embedding/backends/model_library.h"
#include "tovana/engines/embedding/sharing/shared_engines.h"

namespace tovana::tool {
namespace {

using embedding::EmbeddingBackend;
using embedding::EmbeddingNotReadyError;
using embedding::EmbeddingStatus;
using embedding::SHARED_ENGINES;

constexpr const char* kDefaultModel = "all-MiniLM-L6-v2";

}  // namespace

EngineSession::EngineSession(const EngineOptions& options, const Interrupts& interrupts)
    : _options(options),
      _config(engine_configuration(options)),
      _engine(SHARED_ENGINES.acquire(_config)) {
  try {
    _engine->warm_up_async();
  } catch (const std::system_error& error) {
    throw Failure(ExitStatus::not_ready, std::string("cannot start a thread to load with: ") +
                                             error.code().message() + "; try again later");
  }
  interrupts.on_request([engine = _engine] { engine->close(); });
}

EngineSession::~EngineSession() { SHARED_ENGINES.release(_engine); }

EmbeddingBackend& EngineSession::wait_ready(const RunLimits& limits) {
  if (_backend != nullptr) return *_backend;
  double wait_s = _options.no_wait ? 0 : _options.wait_s.value_or(RunLimits::kNoDeadline);
  wait_s = std::min(wait_s, limits.deadline() - system_clock().now());
  try {
    _backend = _engine->wait_ready(wait_s);
  } catch (const EmbeddingNotReadyError& error) {
    limits.check_interrupted();  // which closes the engine
    const EmbeddingStatus& status = error.status();
    std::string next = ". " + std::string(EmbeddingNotReadyError::hint);
    if (status.state == "unavailable") next = "; " + advice(status.detail.value_or(""));
    throw Failure(ExitStatus::not_ready, error.what() + next);
  }
  const auto reason = _engine->fallback_reason();
  if (reason && _config.contains("backend")) {
    report(*reason + ", so the vectors are those of " + _backend->name() + "; " + advice(*reason));
  }
  return *_backend;
}

std::string EngineSession::advice(const std::string& detail) const {
  if (detail == embedding::ModelLibraryNotInstalled().what()) {
    return "scripts/setup --model and a new build install the local model library";
  }
  const std::string backend = embedding::text_value(_config, "backend").value_or("auto");
  if (backend == "tfidf" || backend == "api" || backend == "openai")
    return "see tovana-embed --help";
  if (detail.starts_with("ValueError: ")) {
    return "give another --model, or --backend tfidf, which needs none";
  }
  return "tovana-embed pull " +
         embedding::text_value(_config, "model_name").value_or(kDefaultModel) +
         " fetches a model that is not cached, --backend tfidf needs none";
}

}  // namespace tovana::tool
