#include <atomic>
#include <chrono>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/tovana/engines/embedding/backends/local/fake_model_runtime.h"
#include "tovana/base/condition_variable.h"
#include "tovana/base/logging.h"
#include "tovana/engines/embedding/engine/engine.h"
#include "tovana/engines/embedding/engine/engine_surroundings.h"
#include "tovana/engines/embedding/sharing/shared_engines.h"
#include "tovana/exceptions/exceptions.h"

/// Many threads at once acquire, use, close and release engines whose loads fail every other time.
/// Usage: engine_storm SECONDS THREADS. Ends with 0 when every call returned what it may, every loader
/// ended, and engines still become ready afterwards. Meant for the thread sanitizer.
namespace {

using namespace tovana;
using namespace tovana::embedding;

/// Hours go by in seconds.
class HastyClock final : public Clock {
 public:
  double now() const noexcept override { return system_clock().now() * kHaste; }

 protected:
  void wait_until(ConditionVariable& changed, LockReference& held, double deadline) override {
    const double seconds = (deadline - now()) / kHaste;
    if (seconds > 0) changed.native().wait_for(held, std::chrono::duration<double>(seconds));
  }

 private:
  static constexpr double kHaste = 10'000;
};

class Storm {
 public:
  Storm() {
    _runtime.on_load_model = [this](bool) {
      if (++_loads % 2 == 0 && _fails) throw RuntimeError("no disk");
    };
  }

  /// One thread's part, until told to stop.
  void blow(unsigned seed) {
    std::mt19937 random(seed);
    while (!_calm) {
      const auto config = static_cast<std::int64_t>(random() % 40);
      const auto engine = _factory.acquire({{"backend", "local"}, {"dimension", config}});
      use(*engine, random() % 8);
      _factory.release(engine);
    }
  }

  /// Ends the storm. Whether an engine still becomes ready, and nothing was wrong.
  bool subside() {
    _calm = true;
    _fails = false;
    const auto engine = _factory.acquire({{"backend", "local"}});
    if (!engine->wait_ready(1e9)) ++_wrong;
    _factory.release(engine);
    while (_loading > 0) std::this_thread::yield();
    std::cout << _embedded << " embedded, " << _not_ready << " not ready, " << _loads << " loads, "
              << _wrong << " wrong\n";
    return _wrong == 0 && _embedded > 0 && _not_ready > 0;
  }

  void stop() { _calm = true; }

 private:
  std::shared_ptr<EmbeddingEngine> make(EngineConfiguration config) {
    const EngineSurroundings surroundings = {
        .clock = &_clock,
        .runtime = &_runtime,
        .start_thread = [this](std::function<void()> loader) {
          ++_loading;
          std::thread([this, loader = std::move(loader)]() mutable {
            std::exchange(loader, nullptr)();
            --_loading;
          }).detach();
        }};
    return std::make_shared<EmbeddingEngine>(std::move(config), nullptr,
                                             EngineOptions{.surroundings = &surroundings});
  }

  void use(EmbeddingEngine& engine, unsigned way) {
    try {
      const EmbeddingStatus status = engine.status();
      if (status.ready() != status.backend.has_value()) ++_wrong;
      if (way == 0) engine.warm_up_async();
      if (way == 1) engine.close();
      if (way == 2 && engine.fallback_reason()) ++_wrong;
      if (way > 2) {
        const auto vectors = engine.embed({"four", "three"}, {.wait = way != 3});
        if (vectors != std::vector<Vector>{{4, 1}, {5, 1}}) ++_wrong;
        ++_embedded;
      }
    } catch (const EmbeddingNotReadyError&) {
      ++_not_ready;
    }
  }

  HastyClock _clock;
  FakeModelRuntime _runtime;
  SharedEngines _factory{[this](EngineConfiguration config) { return make(std::move(config)); }};
  std::atomic<bool> _calm = false;
  std::atomic<bool> _fails = true;
  std::atomic<int> _loads = 0;
  std::atomic<int> _loading = 0;  ///< Loaders that have not ended.
  std::atomic<int> _embedded = 0;
  std::atomic<int> _not_ready = 0;
  std::atomic<int> _wrong = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  set_log_sink([](const LogRecord& record) { static_cast<void>(record.message()); });
  Storm storm;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < std::stoi(argv[2]); ++i) {
      threads.emplace_back([&storm, i] { storm.blow(static_cast<unsigned>(i)); });
    }
    std::this_thread::sleep_for(std::chrono::seconds(std::stoi(argv[1])));
    storm.stop();
  }
  return storm.subside() ? 0 : 1;
}
