#include <chrono>
#include <string>
#include <thread>

#include "soak/exit_runs.h"
#include "tests/tovana/engines/embedding/backends/local/fake_model_runtime.h"
#include "tovana/base/logging.h"
#include "tovana/engines/embedding/engine/engine.h"
#include "tovana/engines/embedding/engine/engine_surroundings.h"
#include "tovana/exceptions/exceptions.h"

/// A process may exit with its own status while an engine loads, waits to load again, or embeds.
/// Usage: exit_during_load RUNS [MODEL]; each run is a child process that exits at a moment of its
/// own, from its main thread and from another one in turn. Without a model the load is a slow fake,
/// which fails in every third run.
namespace {

using namespace tovana;
using namespace std::chrono_literals;
using embedding::EmbeddingEngine;

EmbeddingEngine& fake_engine(unsigned seed) {
  auto& runtime = *new embedding::FakeModelRuntime;
  runtime.on_load_library = [] { std::this_thread::sleep_for(5ms); };
  runtime.on_load_model = [seed](bool) {
    std::this_thread::sleep_for(5ms);
    if (seed % 3 == 0) throw RuntimeError("no disk");
  };
  const embedding::EngineSurroundings surroundings = {.runtime = &runtime};
  return *new EmbeddingEngine({{"backend", "local"}}, nullptr, {.surroundings = &surroundings});
}

void exit_during_load(EmbeddingEngine& engine, std::chrono::microseconds span, unsigned seed) {
  set_log_sink([](const LogRecord&) {});
  const auto embed = [&engine] {
    for (;;) {
      try {
        engine.embed({"some text", "another"});
      } catch (const std::exception&) {  // not loaded, or the process is exiting
        std::this_thread::yield();
      }
    }
  };
  const auto load_and_exit = [&] {
    engine.warm_up_async();
    for (int i = 0; i < 3; ++i) std::thread(embed).detach();
    soak::exit_within(span, seed);
  };
  if (seed % 2 == 0) load_and_exit();
  std::thread(load_and_exit).join();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  return soak::check_exits(std::stoi(argv[1]), [&](unsigned seed) {
    if (argc == 2) {
      exit_during_load(fake_engine(seed), 20ms, seed);
    } else {
      exit_during_load(*new EmbeddingEngine({{"backend", "local"}, {"model_name", argv[2]}}), 800ms,
                       seed);
    }
  });
}
