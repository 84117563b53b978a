#include <cstdio>

#include "tovana/engines/embedding/embedding.h"

int main() {
  using namespace tovana::embedding;
  const tovana::Config settings;  // "auto": the best backend that is there
  const auto engine = SHARED_ENGINES.acquire(engine_config(settings));
  engine->warm_up_async();  // on a thread of the engine's own; nobody has waited yet
  try {
    const auto vectors = engine->embed({"read a file", "readFileLines", "open a socket"});
    EmbeddingIndex index(vectors[0].size());
    for (int i : {1, 2}) index.add(i, vectors[i]);
    for (const auto& found : index.nearest(vectors[0], 2)) {
      std::printf("%ld %.3f\n", static_cast<long>(found.id), found.similarity);
    }
  } catch (const EmbeddingNotReadyError& error) {
    std::printf("%s\n%s\n", error.what(), error.hint.data());
  }
  SHARED_ENGINES.release(engine);
}
