#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "bench/corpus.h"
#include "tovana/engines/embedding/backends/tfidf.h"

/// Our side of a comparison: does one round whenever asked, so that the rounds of both sides can
/// alternate on the same machine in the same minute.
///
///     tfidf_rounds CORPUS
///
/// Reads requests from standard input, one a line, and answers each with a line: the seconds that
/// it took. "batch" embeds the corpus in one call; "single N" embeds its first N texts in N calls.
/// The vectors are destroyed after the clock has stopped.
namespace tovana::bench {
namespace {

using embedding::TFIDFEmbeddingBackend;
using embedding::Vector;

template <class Work>
double seconds(Work&& work) {
  const auto begin = std::chrono::steady_clock::now();
  const auto kept = work();
  const auto end = std::chrono::steady_clock::now();
  return std::chrono::duration<double>(end - begin).count();
}

int serve(const std::string& path) {
  const std::vector<std::string> texts = read_corpus(path);
  TFIDFEmbeddingBackend backend;
  for (std::string request; std::cin >> request;) {
    double taken = 0;
    if (request == "batch") {
      taken = seconds([&] { return backend.embed(texts); });
    } else if (std::size_t count = 0; request == "single" && std::cin >> count) {
      std::vector<std::vector<std::string>> calls;
      for (std::size_t i = 0; i < std::min(count, texts.size()); ++i) calls.push_back({texts[i]});
      taken = seconds([&] {
        std::vector<std::vector<Vector>> results;
        results.reserve(calls.size());
        for (const auto& call : calls) results.push_back(backend.embed(call));
        return results;
      });
    } else {
      std::fprintf(stderr, "tfidf_rounds: unknown request '%s'\n", request.c_str());
      return 1;
    }
    std::printf("%.9f\n", taken);
    std::fflush(stdout);
  }
  return 0;
}

}  // namespace
}  // namespace tovana::bench

int main(int argc, char** argv) {
  try {
    if (argc == 2) return tovana::bench::serve(argv[1]);
    std::fputs("usage: tfidf_rounds CORPUS\n", stderr);
    return 64;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tfidf_rounds: %s\n", error.what());
    return 1;
  }
}
