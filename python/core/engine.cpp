#include "engine.h"

#include <algorithm>
#include <numeric>
#include <utility>
#include <vector>

#include <unistd.h>

#include "conversions.h"
#include "embedding_call.h"
#include "interpreter.h"
#include "tovana/exceptions/exceptions.h"
#include "vector_array.h"

namespace tovana::python {
namespace {

namespace nb = nanobind;
using embedding::EmbeddingBackend;
using embedding::EmbeddingEngine;
using embedding::EmbeddingNotReadyError;
using embedding::EngineConfiguration;
using embedding::SharedEngines;

/// The waiting is done here: an engine of ours never waits by itself.
SharedEngine make_engine(EngineConfiguration configuration,
                         std::shared_ptr<EmbeddingBackend> backend = nullptr) {
  return std::make_shared<EmbeddingEngine>(std::move(configuration), std::move(backend),
                                           embedding::EngineOptions{.wait_s = 0});
}

/// This process's factory; guarded by the interpreter's lock. Never destroyed: engines of a parent
/// process, whose locks may be held for ever, least of all.
SharedEngines& shared_engines() {
  static SharedEngines* engines = nullptr;
  static pid_t process = 0;
  if (process != getpid()) {
    engines = new SharedEngines(
        [](EngineConfiguration configuration) { return make_engine(std::move(configuration)); });
    process = getpid();
  }
  return *engines;
}

/// A row that was fetched once, on the thread that may.
class FetchedRow final : public storage::Database {
 public:
  explicit FetchedRow(const nb::callable& fetchone) : _fetchone(fetchone) {}

  std::optional<storage::DatabaseRow> fetchone(const std::string& sql) override {
    if (!_is_fetched) {
      const WithInterpreter interpreter;
      if (!interpreter) return std::nullopt;
      _row = row_of(_fetchone(python_text(sql)));
      _is_fetched = true;
    }
    return _row;
  }

 private:
  const nb::callable& _fetchone;
  bool _is_fetched = false;
  std::optional<storage::DatabaseRow> _row;
};

/// Texts of so many bytes take the hashing embedder some tens of milliseconds.
constexpr std::size_t kQuickBytes = 1 << 20;

bool is_quick(const std::vector<std::string>& texts) {
  const auto add = [](std::size_t sum, const std::string& text) { return sum + text.size(); };
  return std::accumulate(texts.begin(), texts.end(), std::size_t{0}, add) <= kQuickBytes;
}

bool is_loading(const EmbeddingNotReadyError& error) { return error.status().state == "loading"; }

}  // namespace

Engine::Engine(EngineConfiguration configuration)
    : _configuration(std::move(configuration)),
      _engine(make_engine(_configuration)),
      _process(getpid()) {}

Engine::Engine(EngineConfiguration configuration, SharedEngine shared)
    : _configuration(std::move(configuration)), _engine(std::move(shared)), _process(getpid()) {}

std::unique_ptr<Engine> Engine::acquire(const EngineConfiguration& configuration) {
  return std::unique_ptr<Engine>(
      new Engine(configuration, shared_engines().acquire(configuration)));
}

void Engine::release() {
  const SharedEngine& engine = _of_this_process();
  if (_is_inherited) return engine->close();
  shared_engines().release(engine);
}

const SharedEngine& Engine::_of_this_process() {
  if (_process != getpid()) {
    _engine = make_engine(_configuration, _backend);
    _process = getpid();
    _is_inherited = true;
  }
  return _engine;
}

std::shared_ptr<EmbeddingBackend> Engine::wait_ready(double wait_s, const CallLimits& limits) {
  const SharedEngine engine = _of_this_process();
  const double until = std::min(system_clock().now() + wait_s, limits.deadline());
  for (;;) {
    const double left = until - system_clock().now();
    try {
      std::shared_ptr<EmbeddingBackend> backend;
      {
        const WithoutInterpreter others_may_run;
        backend = engine->wait_ready(std::clamp(left, 0.0, CallLimits::kSliceS));
      }
      _backend = backend;
      return backend;
    } catch (const EmbeddingNotReadyError& error) {
      if (!is_loading(error) || left <= CallLimits::kSliceS) throw;
    }
    limits.check_stopped();
  }
}

embedding::ModelPrompts Engine::prompts(double wait_s) {
  const auto backend = wait_ready(wait_s, CallLimits(wait_s, nb::none()));
  auto* const model = dynamic_cast<embedding::LocalEmbeddingBackend*>(backend.get());
  return model != nullptr ? model->prompts() : embedding::ModelPrompts();
}

nb::object Engine::embed(const nb::tuple& given, const embedding::PromptOptions& prompt,
                         double wait_s, const CallLimits& limits, bool single_precision,
                         std::vector<std::uint32_t>* token_counts) {
  std::vector<std::string> texts = texts_of(given);
  VectorArray array(texts.size(), single_precision);
  if (texts.empty()) return array.release();
  limits.check_stopped();
  const std::shared_ptr<EmbeddingBackend> backend = wait_ready(wait_s, limits);
  const SharedEngine engine = _engine;
  if (auto* const model = dynamic_cast<embedding::LocalEmbeddingBackend*>(backend.get())) {
    embed_in_parts(*model, std::move(texts), prompt, _pace, limits, array, token_counts);
  } else if (token_counts != nullptr) {
    throw ValueError("the backend " + backend->name() + " does not count tokens");
  } else if (prompt.prompt_name || prompt.prompt) {
    throw ValueError("the backend " + backend->name() +
                     " has no prompts; put a text before the texts yourself");
  } else if (dynamic_cast<embedding::_HTTPEmbeddingBackend*>(backend.get()) != nullptr) {
    embed_apart(engine, std::move(texts), true, limits, array);
  } else if (is_quick(texts)) {
    limits.check();
    embed_at_once(engine, texts, array);
  } else {
    embed_apart(engine, std::move(texts), false, limits, array);
  }
  return array.release();
}

bool Engine::check_backend_migration(const nb::callable& fetchone, double wait_s) {
  const CallLimits limits(wait_s, nb::none());
  FetchedRow database(fetchone);
  for (;;) {
    try {
      const SharedEngine engine = _of_this_process();
      const WithoutInterpreter others_may_run;
      return engine->check_backend_migration(database);
    } catch (const EmbeddingNotReadyError& error) {
      if (!is_loading(error) || system_clock().now() >= limits.deadline()) throw;
    }
    wait_ready(wait_s, limits);
  }
}

}  // namespace tovana::python
