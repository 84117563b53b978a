#include <latch>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "tovana/engines/embedding/engine/engine.h"
#include "tovana/engines/embedding/engine/engine_surroundings.h"

/// What the engine itself costs: a call through it beside the same call of its backend, and a
/// status. The backend does nothing, so that all there is to see is the way to it.
namespace {

using namespace tovana::embedding;

class IdleBackend final : public EmbeddingBackend {
 public:
  const std::string& name() const noexcept override { return _name; }
  std::int64_t dimension() const noexcept override { return 1; }
  std::vector<Vector> embed(const std::vector<std::string>& texts) override {
    return std::vector<Vector>(texts.size(), Vector(1));
  }
  void warm_up() override {}

 private:
  std::string _name = "local:all-MiniLM-L6-v2";
};

const std::string kText = "parse the configuration file of the daemon";

/// Loads for as long as the process lives.
class EndlessRuntime final : public ModelRuntime {
 public:
  TorchRuntime* loaded_torch() noexcept override { return nullptr; }
  std::optional<ModelLibraryDescription> loaded_library() noexcept override { return {}; }
  void check_model(const std::filesystem::path&, const std::filesystem::path&) override {}
  void load_library() override { std::latch(1).wait(); }
  std::unique_ptr<const LocalModel> sentence_transformer(const std::string&, bool) override {
    return nullptr;
  }
};

EmbeddingEngine& engine() {
  static auto& made = *new EmbeddingEngine({}, std::make_shared<IdleBackend>());
  return made;
}

void backend_alone(benchmark::State& state) {
  IdleBackend backend;
  for (auto _ : state) benchmark::DoNotOptimize(backend.embed({kText}));
}

void embed_single(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(engine().embed_single(kText, {.wait = false}));
}

void status(benchmark::State& state) {
  for (auto _ : state) {
    const EmbeddingStatus status = engine().status();
    benchmark::DoNotOptimize(&status);
  }
}

void fallback_reason(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(engine().fallback_reason());
}

void status_while_loading(benchmark::State& state) {
  static EndlessRuntime runtime;
  static const EngineSurroundings surroundings = {.runtime = &runtime};
  static auto& loading =
      *new EmbeddingEngine({{"backend", "local"}}, nullptr, {.surroundings = &surroundings});
  loading.warm_up_async();
  for (auto _ : state) {
    const EmbeddingStatus status = loading.status();
    benchmark::DoNotOptimize(&status);
  }
}

BENCHMARK(backend_alone)->ThreadRange(1, 8)->UseRealTime();
BENCHMARK(embed_single)->ThreadRange(1, 8)->UseRealTime();
BENCHMARK(status)->ThreadRange(1, 8)->UseRealTime();
BENCHMARK(status_while_loading);
BENCHMARK(fallback_reason);

}  // namespace

BENCHMARK_MAIN();
