#include "embedding_window.h"

#include <deque>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "failure.h"
#include "tovana/base/clock.h"
#include "tovana/base/condition_variable.h"
#include "tovana/base/mutex.h"

namespace tovana::tool {
namespace {

constexpr double kStopTestPeriodS = 0.05;

}  // namespace

struct EmbeddingWindow::Calls {
  /// A batch whose call has not begun.
  struct Waiting {
    std::size_t number;
    InputTexts batch;
  };

  Calls(Call call, AfterFailure after_failure)
      : embed(std::move(call)), stops_after_failure(after_failure == AfterFailure::stop) {}

  const Call embed;
  const bool stops_after_failure;

  Mutex mutex;
  ConditionVariable changed;
  std::deque<Waiting> waiting TOVANA_GUARDED_BY(mutex);
  /// Of every batch of the window, the oldest first, what came of it; null until its call has ended.
  std::deque<std::optional<Finished>> results TOVANA_GUARDED_BY(mutex);
  std::size_t taken TOVANA_GUARDED_BY(mutex) = 0;   ///< Batches: the number of the oldest.
  bool is_closed TOVANA_GUARDED_BY(mutex) = false;  ///< No further call begins.

  /// Makes one call after another until there are to be no more.
  void run() {
    while (std::optional<Waiting> next = _begin()) {
      Finished result{.batch = std::move(next->batch), .vectors = {}};
      try {
        result.vectors = embed(result.batch.texts);
      } catch (...) {
        result.failure = std::current_exception();
      }
      _end(next->number, std::move(result));
    }
  }

 private:
  std::optional<Waiting> _begin() {
    const LockGuard lock(mutex);
    while (waiting.empty() && !is_closed) changed.wait(mutex);
    if (is_closed) return std::nullopt;
    Waiting next = std::move(waiting.front());
    waiting.pop_front();
    return next;
  }

  void _end(std::size_t number, Finished result) {
    const LockGuard lock(mutex);
    is_closed = is_closed || (stops_after_failure && result.failure != nullptr);
    results[number - taken] = std::move(result);
    changed.notify_all();
  }
};

EmbeddingWindow::EmbeddingWindow(std::size_t most_calls, Call call, AfterFailure after_failure)
    : _most_calls(most_calls), _calls(std::make_shared<Calls>(std::move(call), after_failure)) {}

EmbeddingWindow::~EmbeddingWindow() {
  const LockGuard lock(_calls->mutex);
  _calls->is_closed = true;
  _calls->changed.notify_all();
}

bool EmbeddingWindow::is_empty() const {
  const LockGuard lock(_calls->mutex);
  return _calls->results.empty();
}

bool EmbeddingWindow::has_room() const {
  const LockGuard lock(_calls->mutex);
  return !_calls->is_closed && _calls->results.size() < 2 * _most_calls;
}

void EmbeddingWindow::add(InputTexts batch) {
  if (_threads < _most_calls) {
    try {
      std::thread([calls = _calls] { calls->run(); }).detach();
    } catch (const std::system_error& error) {
      throw Failure(ExitStatus::not_ready,
                    "cannot start a thread for a call: " + error.code().message() +
                        "; try again later, or with fewer at once");
    }
    ++_threads;
  }
  const LockGuard lock(_calls->mutex);
  _calls->waiting.push_back({_calls->taken + _calls->results.size(), std::move(batch)});
  _calls->results.emplace_back();
  _calls->changed.notify_all();
}

EmbeddingWindow::Finished EmbeddingWindow::take(const RunLimits& limits) {
  const LockGuard lock(_calls->mutex);
  while (!_calls->results.front()) {
    limits.check_interrupted();
    system_clock().wait_until(_calls->changed, _calls->mutex,
                              system_clock().now() + kStopTestPeriodS);
  }
  Finished oldest = *std::move(_calls->results.front());
  _calls->results.pop_front();
  ++_calls->taken;
  return oldest;
}

}  // namespace tovana::tool
