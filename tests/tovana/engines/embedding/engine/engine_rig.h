#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/log_recorder.h"
#include "tests/support/manual_clock.h"
#include "tests/support/waiting.h"
#include "tests/tovana/engines/embedding/backends/local/fake_model_runtime.h"
#include "tovana/base/condition_variable.h"
#include "tovana/base/mutex.h"
#include "tovana/engines/embedding/engine/engine.h"
#include "tovana/engines/embedding/engine/engine_surroundings.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::embedding {

/// An engine that forces the local backend, and what it stands on under a test's hand: each attempt
/// to load waits until the test says how it ends, time stands still, and the loader's thread can be
/// joined.
class EngineRig : public ::testing::Test {
 protected:
  EngineRig() {
    _runtime.on_load_model = [this](bool local_files_only) { end_as_told(local_files_only); };
  }
  ~EngineRig() override {
    if (_engine != nullptr) _engine->close();
    succeed();  // whatever still waits at the gate
    join();
  }

  std::unique_ptr<EmbeddingEngine> make(EngineConfiguration config = kLocal) {
    return std::make_unique<EmbeddingEngine>(std::move(config), nullptr,
                                             EngineOptions{.surroundings = &_surroundings});
  }

  double in(double seconds) const { return _clock.now() + seconds; }

  /// Blocks until so many attempts have begun in all.
  void await_attempts(int count) {
    const testing::Waiting waiting("attempt " + std::to_string(count) + " to load");
    const LockGuard guard(_lock);
    while (_attempts < count) _changed.wait(_lock);
  }

  /// Ends an attempt, the one under way or the next.
  void succeed() { tell(true); }
  void fail() { tell(false); }

  /// Lets an attempt fail, and returns once the loader waits to try again.
  void fail_attempt(double delay) {
    fail();
    _clock.await_waiter(in(delay));
  }

  /// What an attempt does in place of the model's load; the fetch that follows a failure fails too.
  void end_as_told(bool local_files_only = true) {
    const LockGuard guard(_lock);
    if (local_files_only) {
      ++_attempts;
      _changed.notify_all();
      const testing::Waiting waiting("the test to end attempt " + std::to_string(_attempts));
      while (_endings.empty()) _changed.wait(_lock);
      _succeeds = _endings.front();
      _endings.pop_front();
    }
    if (!_succeeds) throw RuntimeError("no disk");
  }

  /// Blocks until the loaders have ended.
  void join() {
    const testing::Waiting waiting("the loader to end");
    for (std::jthread& loader : _loaders) {
      if (loader.joinable()) loader.join();
    }
  }

  inline static const EngineConfiguration kLocal = {{"backend", "local"}, {"model_name", "m"}};

  testing::LogRecorder _log;
  testing::ManualClock _clock;
  FakeModelRuntime _runtime;
  EngineSurroundings _surroundings = {
      .clock = &_clock, .runtime = &_runtime, .start_thread = [this](std::function<void()> loader) {
        _loaders.emplace_back(std::move(loader));
      }};
  std::deque<std::jthread> _loaders;  ///< All that an engine has started, one at a time.
  std::unique_ptr<EmbeddingEngine> _engine = make();

 private:
  void tell(bool succeeds) {
    const LockGuard guard(_lock);
    _endings.push_back(succeeds);
    _changed.notify_all();
  }

  Mutex _lock;
  ConditionVariable _changed;
  int _attempts TOVANA_GUARDED_BY(_lock) = 0;
  std::deque<bool> _endings TOVANA_GUARDED_BY(_lock);
  bool _succeeds TOVANA_GUARDED_BY(_lock) = false;
};

}  // namespace tovana::embedding
