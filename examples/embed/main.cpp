#include <cstdio>

#include "tovana/engines/embedding/embedding.h"

int main() {
  tovana::embedding::TFIDFEmbeddingBackend backend;
  const auto vectors = backend.embed({"read a file", "readFileLines", "open a socket"});

  tovana::embedding::EmbeddingIndex index(vectors[0].size());
  for (int i : {1, 2}) index.add(i, vectors[i]);
  for (const auto& found : index.nearest(vectors[0], 2)) {
    std::printf("%ld %.3f\n", static_cast<long>(found.id), found.similarity);
  }
}
