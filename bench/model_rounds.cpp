#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <ATen/Parallel.h>

#include "bench/corpus.h"
#include "sentence_transformers/model/sentence_transformer.h"

/// Our side of a comparison: does one round whenever asked, so that the rounds of both sides can
/// alternate on the same machine in the same minute.
///
///     model_rounds MODEL TEXTS THREADS
///
/// Reads requests from standard input, one a line, and answers each with a line: the seconds that
/// it took. "encode FIRST COUNT" encodes so many of the texts in one call, into unit vectors.
namespace tovana::bench {
namespace {

int serve(const char* folder, const char* path, int threads) {
  using sentence_transformers::ModelDirectory;
  using sentence_transformers::SentenceTransformer;

  at::set_num_threads(threads);
  const std::vector<std::string> texts = read_corpus(path);
  const std::vector<std::string_view> views(texts.begin(), texts.end());
  const auto model = SentenceTransformer::load(ModelDirectory(folder));
  std::vector<float> vectors(texts.size() * static_cast<std::size_t>(model->dimension()));

  std::string request;
  for (std::size_t first = 0, count = 0; std::cin >> request >> first >> count;) {
    if (request != "encode" || first > texts.size() || count > texts.size() - first) {
      std::fprintf(stderr, "model_rounds: cannot do '%s'\n", request.c_str());
      return 1;
    }
    const auto begin = std::chrono::steady_clock::now();
    model->encode(std::span(views).subspan(first, count), true, vectors.data());
    const auto end = std::chrono::steady_clock::now();
    std::printf("%.9f\n", std::chrono::duration<double>(end - begin).count());
    std::fflush(stdout);
  }
  return 0;
}

}  // namespace
}  // namespace tovana::bench

int main(int argc, char** argv) {
  try {
    if (argc == 4) return tovana::bench::serve(argv[1], argv[2], std::atoi(argv[3]));
    std::fputs("usage: model_rounds MODEL TEXTS THREADS\n", stderr);
    return 64;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "model_rounds: %s\n", error.what());
    return 1;
  }
}
