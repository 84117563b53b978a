#include "engine_session.h"

#include <algorithm>
#include <optional>
#include <string>
#include <system_error>

#include "failure.h"
#include "load_failure.h"
#include "tovana/base/clock.h"
#include "tovana/engines/embedding/backends/local/local.h"
#include "tovana/engines/embedding/sharing/shared_engines.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::tool {
namespace {

using embedding::EmbeddingBackend;
using embedding::EmbeddingNotReadyError;
using embedding::Fallback;
using embedding::SHARED_ENGINES;

}  // namespace

EngineSession::EngineSession(const EngineArguments& arguments, const Interrupts& interrupts)
    : _arguments(arguments),
      _config(engine_configuration(arguments)),
      _engine(SHARED_ENGINES.acquire(_config)) {
  if (_arguments.precision) embedding::EMBED_PRECISION.request(*_arguments.precision);
  try {
    _engine->warm_up_async();
  } catch (const std::system_error& error) {
    throw Failure(ExitStatus::not_ready, std::string("cannot start a thread to load with: ") +
                                             error.code().message() + "; try again later");
  }
  interrupts.on_request([engine = _engine] { engine->close(); });
}

EngineSession::~EngineSession() { SHARED_ENGINES.release(_engine); }

bool EngineSession::may_be_endpoint() const {
  return _config.contains("api_url") || _config.contains("base_url");
}

const std::shared_ptr<EmbeddingBackend>& EngineSession::wait_ready(const RunLimits& limits) {
  if (_backend != nullptr) return _backend;
  double wait_s = _arguments.no_wait ? 0 : _arguments.wait_s.value_or(RunLimits::kNoDeadline);
  wait_s = std::min(wait_s, limits.deadline() - system_clock().now());
  try {
    _backend = _engine->wait_ready(wait_s);
  } catch (const EmbeddingNotReadyError& error) {
    limits.check_interrupted();  // which closes the engine
    if (error.cause() == nullptr) limits.check();
    throw load_failure(error);
  }
  _check_prompts(*_backend);
  const std::optional<Fallback> taken = _engine->fallback();
  // Without a model library tfidf is what was asked for, unless something of a model was named.
  if (taken && (taken->cause != Fallback::Cause::library_not_installed ||
                _config.contains("backend") || _arguments.model || _arguments.precision)) {
    report(taken->reason + ", so the vectors are those of " + _backend->name() + "; " +
           remedy_for(taken->cause));
  }
  return _backend;
}

/// Before any text is embedded: the second prompt of a search comes late.
void EngineSession::_check_prompts(EmbeddingBackend& backend) const {
  for (const auto& name : {_arguments.prompt, _arguments.text_prompt}) {
    if (!name) continue;
    auto* const local = dynamic_cast<embedding::LocalEmbeddingBackend*>(&backend);
    if (local == nullptr) {
      const std::optional<Fallback> taken = _engine->fallback();
      throw Failure(ExitStatus::call_failed, (taken ? taken->reason + ", and " : "") +
                                                 "the backend " + backend.name() +
                                                 " has no prompts; only local models have" +
                                                 (taken ? "; " + remedy_for(taken->cause) : ""));
    }
    try {
      local->embed({}, {.prompt_name = name});
    } catch (const ValueError& error) {  // which names those there are
      throw Failure(ExitStatus::usage, error.what());
    }
  }
}

}  // namespace tovana::tool
