#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <nlohmann/json.hpp>
#include <simdjson.h>

#include "tests/support/http_server.h"
#include "tovana/engines/http/curl_transport.h"
#include "tovana/engines/http/post_json.h"

/// What the HTTP client adds to the libraries below it: to simdjson's parse of a large reply, and
/// to libcurl's exchange over a kept-alive connection.
namespace {

using namespace tovana::http;

/// The reply of an embedding endpoint, with numbers as a float32 model prints them.
std::string reply_text(std::size_t vectors, std::size_t dimension) {
  std::mt19937 random(7);
  std::normal_distribution<float> coordinate(0, 0.03F);
  std::string text = R"({"embeddings":[)";
  char number[32];
  for (std::size_t i = 0; i < vectors; ++i) {
    text += i == 0 ? "[" : ",[";
    for (std::size_t j = 0; j < dimension; ++j) {
      const int size = std::snprintf(number, sizeof number, "%s%.17g", j == 0 ? "" : ",",
                                     static_cast<double>(coordinate(random)));
      text.append(number, static_cast<std::size_t>(size));
    }
    text += ']';
  }
  return text += "]}";
}

void parsed_by_simdjson(benchmark::State& state) {
  const simdjson::padded_string text(reply_text(static_cast<std::size_t>(state.range(0)), 1536));
  for (auto _ : state) {
    simdjson::dom::document document;
    simdjson::dom::parser parser;
    benchmark::DoNotOptimize(
        parser
            .parse_into_document(document, reinterpret_cast<const std::uint8_t*>(text.data()),
                                 text.size(), false)
            .error());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void into_vectors(benchmark::State& state) {
  const std::string text = reply_text(static_cast<std::size_t>(state.range(0)), 1536);
  for (auto _ : state) {
    state.PauseTiming();
    std::string received;
    received.reserve(text.size() + JsonReply::kSpareBytes);
    received = text;
    state.ResumeTiming();
    const JsonReply reply = JsonReply::parse(std::move(received));
    std::vector<std::vector<double>> vectors;
    for (const JsonValue vector : reply.root().find("embeddings")->elements()) {
      vectors.push_back(vector.numbers());
    }
    benchmark::DoNotOptimize(vectors.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

BENCHMARK(parsed_by_simdjson)->Arg(32)->Arg(2048)->Unit(benchmark::kMillisecond);
BENCHMARK(into_vectors)->Arg(32)->Arg(2048)->Unit(benchmark::kMillisecond);

/// Answers any request with one vector of 384 numbers.
class EmbeddingServer {
 public:
  std::string url() const { return _server.url(); }

 private:
  tovana::testing::HttpServer _server{
      [reply = reply_text(1, 384)](tovana::testing::HttpServer::Connection& connection) {
        connection.body();
        connection.respond(200, reply);
      }};
};

void one_text_by_libcurl(benchmark::State& state) {
  const EmbeddingServer server;
  const std::string url = server.url();
  const std::string body = R"({"texts":["fn main() {}"]})";
  std::string received;
  CURL* const easy = curl_easy_init();
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &received);
  curl_easy_setopt(
      easy, CURLOPT_WRITEFUNCTION, +[](char* bytes, std::size_t one, std::size_t size, void* text) {
        static_cast<std::string*>(text)->append(bytes, one * size);
        return one * size;
      });
  for (auto _ : state) {
    received.clear();
    if (curl_easy_perform(easy) != CURLE_OK) std::abort();
  }
  curl_easy_cleanup(easy);
}

void one_text_by_post_json(benchmark::State& state) {
  const EmbeddingServer server;
  const std::string url = server.url();
  CurlTransport transport;
  for (auto _ : state) {
    const JsonReply reply =
        post_json(url, {{"texts", {"fn main() {}"}}}, {.transport = &transport});
    benchmark::DoNotOptimize(reply.root().find("embeddings")->elements()[0].numbers().data());
  }
}

BENCHMARK(one_text_by_libcurl)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(one_text_by_post_json)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
