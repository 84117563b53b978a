#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/corpus.h"
#include "bench/program.h"
#include "sentence_transformers/tokenizer/byte_trie.h"
#include "sentence_transformers/tokenizer/json_object.h"
#include "sentence_transformers/tokenizer/models/vocabulary.h"
#include "sentence_transformers/tokenizer/tokenizer.h"
#include "tovana/files/model_directory.h"

/// What the local model's tokenizer costs, on one thread.
///
///     tokenizer_bench MODEL_DIRECTORY CORPUS [GOOGLE BENCHMARK ARGUMENT…]
namespace tovana::bench {
namespace {

using files::ModelDirectory;
using sentence_transformers::ByteTrie;
using sentence_transformers::JsonObject;
using sentence_transformers::read_ids;
using sentence_transformers::Tokenizer;
using sentence_transformers::TokenizerFiles;

constexpr std::size_t kNoLimit = std::size_t{1} << 40U;

/// All texts, one a call, each to its end.
void encode(benchmark::State& state, const Tokenizer& tokenizer,
            const std::vector<std::string>& texts) {
  std::size_t ids = 0;
  for (auto _ : state) {
    ids = 0;
    for (const std::string& text : texts) ids += tokenizer.encode(text, kNoLimit).size();
    benchmark::DoNotOptimize(ids);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(total_size(texts)));
  state.counters["ids"] = static_cast<double>(ids);
}

/// The same cut off where all-MiniLM-L6-v2 does.
void encode_truncated(benchmark::State& state, const Tokenizer& tokenizer,
                      const std::vector<std::string>& texts) {
  for (auto _ : state) {
    for (const std::string& text : texts) {
      const std::vector<std::int32_t> ids = tokenizer.encode(text, 256);
      benchmark::DoNotOptimize(ids.data());
    }
  }
}

std::string repeated(const std::string& piece, std::size_t size) {
  std::string text;
  while (text.size() < size) text += piece;
  return text;
}

/// From the files' contents to a tokenizer.
void load(benchmark::State& state, const TokenizerFiles& files) {
  for (auto _ : state) {
    TokenizerFiles copy = files;
    const Tokenizer tokenizer(std::move(copy));
    benchmark::DoNotOptimize(&tokenizer);
  }
}

/// The part of it that builds a trie of the vocabulary.
void build_trie(benchmark::State& state, const TokenizerFiles& files) {
  const JsonObject tokenizer(files.path_of("tokenizer.json"), *files.tokenizer_json);
  const auto vocabulary = read_ids(*tokenizer.object("model"));
  for (auto _ : state) {
    const ByteTrie trie(vocabulary);
    benchmark::DoNotOptimize(&trie);
  }
}

void run(char** arguments) {
  const ModelDirectory directory(arguments[0]);
  const TokenizerFiles files = TokenizerFiles::read(directory);
  const Tokenizer tokenizer = Tokenizer::load(directory);
  const std::vector<std::string> corpus = read_corpus(arguments[1]);
  std::string all;
  for (const std::string& text : corpus) all += text + '\n';

  // What no text in the corpus looks like; each has to stay linear.
  const std::size_t megabytes10 = 10'000'000;
  const std::vector<std::pair<std::string, std::vector<std::string>>> sets = {
      {"descriptions", corpus},
      {"one_text", {all}},
      {"unknown_words", {repeated("xkcdqz", 90) + " " + repeated("qjxzvkw ", 1'000'000)}},
      {"chinese", {repeated("解析器读取文件并返回索引", 1'000'000)}},
      {"accented", {repeated("Généré à l'été, où naïveté été élevée. ", 1'000'000)}},
      {"cyrillic", {repeated("Читает файл и возвращает индекс. ", 1'000'000)}},
      {"no_space_10mb", {std::string(megabytes10, 'a')}},
      {"brackets_10mb", {std::string(megabytes10, '[')}},
      {"spaces_10mb", {std::string(megabytes10, ' ')}},
  };
  for (const auto& set : sets) {
    benchmark::RegisterBenchmark(("encode/" + set.first).c_str(), [&](benchmark::State& state) {
      encode(state, tokenizer, set.second);
    })->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(
        ("encode_truncated/" + set.first).c_str(),
        [&](benchmark::State& state) { encode_truncated(state, tokenizer, set.second); })
        ->Unit(benchmark::kMillisecond);
  }
  const auto add = [&](const char* name, auto function) {
    benchmark::RegisterBenchmark(name, [&files, function](benchmark::State& state) {
      function(state, files);
    })->Unit(benchmark::kMillisecond);
  };
  add("load", load);
  add("load/build_trie", build_trie);
  benchmark::RunSpecifiedBenchmarks();
}

}  // namespace
}  // namespace tovana::bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);  // takes out the arguments that it knows
  return tovana::bench::run_program(
      argc, argv, 2, "tokenizer_bench MODEL_DIRECTORY CORPUS [GOOGLE BENCHMARK ARGUMENT...]",
      tovana::bench::run);
}
