#include "tovana/engines/embedding/engine/backend_loader.h"

#include <algorithm>
#include <charconv>
#include <exception>
#include <utility>

#include "tovana/base/background_thread.h"
#include "tovana/base/logging.h"
#include "tovana/base/text.h"
#include "tovana/engines/embedding/engine/detection.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::embedding {
namespace {

constexpr Logger log("engines.embedding");

/// Rounded correctly, by way of the decimal digits: 0.15 is less than its digits say and becomes
/// 0.1, where multiplying by ten first would make it 0.2.
double to_one_decimal_place(double seconds) {
  const std::string digits = with_decimals(seconds, 1);
  double rounded = seconds;
  std::from_chars(digits.data(), digits.data() + digits.size(), rounded);
  return rounded;
}

}  // namespace

BackendLoader::BackendLoader(EngineConfiguration config, std::shared_ptr<EmbeddingBackend> backend,
                             const EngineSurroundings& surroundings)
    : _config(std::move(config)),
      _clock(surroundings.clock != nullptr ? *surroundings.clock : system_clock()),
      _runtime(surroundings.runtime != nullptr ? *surroundings.runtime : model_runtime()),
      _start_thread(
          surroundings.start_thread
              ? surroundings.start_thread
              : [](std::function<void()>
                       loader) { start_background_thread("tovana-embedding", std::move(loader)); }),
      _state(backend != nullptr ? State::ready : State::idle),
      _backend(std::move(backend)) {}

EmbeddingStatus BackendLoader::status() const {
  const LockGuard guard(_lock);
  return _status_locked();
}

EmbeddingStatus BackendLoader::_status_locked() const {
  const auto seconds = [](double value) { return std::optional(to_one_decimal_place(value)); };
  switch (_state) {
    case State::idle:
      return {.state = "idle", .detail = _fallback_reason_locked()};
    case State::loading:
      return {.state = "loading",
              .detail = _fallback_reason_locked(),
              .loading_s = seconds(_clock.now() - _loading_since)};
    case State::ready:
      return {.state = "ready", .backend = _backend->name(), .detail = _fallback_reason_locked()};
    case State::unavailable:
      return {.state = "unavailable",
              .detail = _failure,
              .retry_in_s = seconds(std::max(0.0, _retry_at - _clock.now()))};
    case State::closed:
      break;
  }
  return {.state = "closed", .detail = _fallback_reason_locked()};
}

std::optional<std::string> BackendLoader::_fallback_reason_locked() const {
  if (!_fallback) return std::nullopt;
  return _fallback->reason;
}

void BackendLoader::warm_up_async() {
  const LockGuard guard(_lock);
  if (_state != State::idle) return;
  _state = State::loading;
  _loading_since = _clock.now();
  try {
    _start_thread([self = shared_from_this()] { self->_load(); });
  } catch (...) {
    // The lock has been held all the while, so nobody has seen the load that never began.
    _state = State::idle;
    throw;
  }
}

std::shared_ptr<EmbeddingBackend> BackendLoader::wait_ready(double timeout) {
  warm_up_async();
  const double deadline = _clock.now() + timeout;
  std::optional<EmbeddingStatus> status;
  std::exception_ptr cause;
  {
    const LockGuard guard(_lock);
    for (;;) {
      if (_backend != nullptr) return _backend;
      const double remaining = deadline - _clock.now();
      if (_state == State::unavailable || _state == State::closed || !(remaining > 0)) {
        status.emplace(_status_locked());
        if (_state == State::unavailable) cause = _failure_error;
        break;
      }
      _clock.wait_until(_changed, _lock, deadline);
    }
  }
  throw EmbeddingNotReadyError(*status, std::move(cause));
}

std::optional<Fallback> BackendLoader::fallback() const {
  const LockGuard guard(_lock);
  return _fallback;
}

void BackendLoader::close() {
  const LockGuard guard(_lock);
  if (_backend == nullptr) _state = State::closed;
  _changed.notify_all();
}

std::shared_ptr<EmbeddingBackend> BackendLoader::_detect_backend() {
  return detect_backend(_config, _runtime, [this](Fallback fallback) {
    const LockGuard guard(_lock);
    _fallback = std::move(fallback);
  });
}

std::shared_ptr<EmbeddingBackend> BackendLoader::_attempt(Failure& failure) {
  try {
    std::shared_ptr<EmbeddingBackend> backend = _detect_backend();
    backend->warm_up();
    return backend;
  } catch (const std::exception& error) {
    failure = {error_kind(error), error.what(), std::current_exception()};
  } catch (...) {
    failure = {"unknown error", "not a std::exception", std::current_exception()};
  }
  return nullptr;
}

void BackendLoader::_load() {
  for (std::int64_t failures = 0;;) {
    const double started = _clock.now();
    Failure failure;
    if (const std::shared_ptr<EmbeddingBackend> backend = _attempt(failure)) {
      {
        const LockGuard guard(_lock);
        if (_state == State::closed) return;
        _backend = backend;
        _state = State::ready;
        _changed.notify_all();
      }
      log.info("Embedding backend ready: %s (%.1f s)", backend->name(), _clock.now() - started);
      return;
    }
    ++failures;
    const double delay = retry_delay(failures);
    log.warning(
        "The embedding model could not be loaded (attempt %d), trying again in %.0f s: %s: %s",
        failures, delay, failure.kind, failure.message);
    if (!_retry_after(failure, delay)) return;
  }
}

bool BackendLoader::_retry_after(const Failure& failure, double delay) {
  const LockGuard guard(_lock);
  if (_state == State::closed) return false;
  _state = State::unavailable;
  _failure = failure.kind + ": " + failure.message;
  _failure_error = failure.error;
  _retry_at = _clock.now() + delay;
  _changed.notify_all();
  while (_state != State::closed && _clock.now() < _retry_at) {
    _clock.wait_until(_changed, _lock, _retry_at);
  }
  if (_state == State::closed) return false;
  _state = State::loading;
  _loading_since = _clock.now();
  _changed.notify_all();
  return true;
}

}  // namespace tovana::embedding
