// What a daemon does with the component, from its start to its end. Without an argument it takes the
// hashing embedder; with the folder of a model, that model.
#include <cstdio>
#include <exception>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tovana/base/clock.h"
#include "tovana/engines/embedding/embedding.h"

namespace {

using namespace tovana::embedding;

/// The daemon's log. It must serve until the process is gone: threads of the component may write to
/// it while main returns. It neither calls an engine nor waits for a thread that does.
void log_line(const tovana::LogRecord& record) {
  std::fprintf(stderr, "daemon: %s: %s\n", record.logger.c_str(), record.message().c_str());
}

/// The daemon's database: one that has a table `symbol_embeddings` runs the query there.
class Symbols final : public tovana::storage::Database {
 public:
  std::optional<tovana::storage::DatabaseRow> fetchone(const std::string& /*sql*/) override {
    if (_vectors.empty()) return std::nullopt;
    return tovana::storage::PositionalRow{_model_name};
  }

  void store(std::vector<Vector> vectors, std::string model_name) {
    _vectors = std::move(vectors);
    _model_name = std::move(model_name);
  }

 private:
  std::vector<Vector> _vectors;
  std::string _model_name;
};

/// A request, to be answered now: with the model if it is ready, else without.
void answer(EmbeddingEngine& engine, const std::string& query) {
  try {
    const Vector vector = engine.embed_single(query, {.wait = false});
    std::printf("\"%s\" has %zu numbers\n", query.c_str(), vector.size());
  } catch (const EmbeddingNotReadyError& error) {
    std::printf("%s. %s\n", error.what(), error.hint.data());
  } catch (const std::exception& error) {
    std::printf("%s\n", tovana::failure_text(error).c_str());
  }
}

/// Work in the background, on a thread of the daemon's own. It may wait, but not for ever. Returns
/// whether all symbols have a vector now.
bool embed_symbols(EmbeddingEngine& engine, Symbols& symbols, const std::stop_token& stop) {
  const std::vector<std::string> texts = {"readFile", "parse_config", "HTTPClient.connect"};
  try {
    if (engine.check_backend_migration(symbols)) symbols.store({}, "");  // none of them compares
    std::vector<Vector> vectors =
        engine.embed(texts, {.should_stop = [&stop] { return stop.stop_requested(); },
                             .deadline = tovana::system_clock().now() + 60});
    symbols.store(std::move(vectors), engine.backend_name());
    return true;
  } catch (const EmbeddingStopped&) {  // the daemon ends
  } catch (const EmbeddingNotReadyError& error) {
    std::printf("%s; the symbols have to wait\n", error.what());
  } catch (const std::exception& error) {
    std::printf("the symbols have no vectors: %s\n", tovana::failure_text(error).c_str());
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  tovana::set_log_sink(log_line);

  tovana::Config settings;
  settings.daemon.embedding_backend = argc > 1 ? "local" : "tfidf";
  EngineConfiguration configuration = engine_config(settings);
  if (argc > 1) configuration["model_name"] = argv[1];

  const auto engine = SHARED_ENGINES.acquire(configuration);
  engine->warm_up_async();  // returns at once
  std::printf("The embedding model %s\n", engine->status().describe().c_str());
  answer(*engine, "open a file");

  Symbols symbols;
  symbols.store({{0.6, 0.8}}, "local:a-model-of-last-year");
  bool embedded = false;
  std::jthread worker(
      [&](const std::stop_token& stop) { embedded = embed_symbols(*engine, symbols, stop); });
  // Here a daemon serves, until it is told to end; then it would call worker.request_stop().
  worker.join();

  std::printf("The embedding model %s\n", engine->status().describe().c_str());
  answer(*engine, "open a file");
  SHARED_ENGINES.release(engine);  // the last hold: that closes the engine
  return embedded ? 0 : 1;
}
