#include <cstddef>
#include <cstdio>
#include <ctime>
#include <exception>
#include <initializer_list>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>
#include <simdjson.h>

#include "bench/corpus.h"
#include "tovana/engines/embedding/backends/dialects.h"
#include "tovana/engines/embedding/backends/http.h"
#include "tovana/engines/http/json.h"
#include "tovana/engines/http/reply_sink.h"
#include "tovana/engines/http/transport.h"
#include "tovana/exceptions/exceptions.h"

/// Our side of a comparison of clients of an OpenAI-compatible endpoint: does one round whenever
/// asked, so that the rounds of both sides can alternate on the same machine in the same minute.
///
///     endpoint_rounds CORPUS TEXTS
///
/// Embeds the first TEXTS lines of the corpus. Reads requests from standard input, one a line, each
/// a verb and the endpoint's base URL, and answers each with a line of seconds:
///
/// - "embed URL": one call of the backend; the process's CPU time, and the time on the wall.
/// - "parse URL": the same two for no more than simdjson's DOM parser, new each time, over the same
///   reply in memory.
/// - "parts URL": the CPU time of a call's four parts, done one by one: writing the request and
///   receiving the reply, parsing it, copying out the vectors, giving the parsed reply back.
///
/// The vectors, and the parser of "parse" with its document, are destroyed after the clock has
/// stopped.
namespace tovana::bench {
namespace {

using embedding::OpenAIEmbeddingBackend;

double seconds_of(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double cpu_seconds() { return seconds_of(CLOCK_PROCESS_CPUTIME_ID); }
double wall_seconds() { return seconds_of(CLOCK_MONOTONIC); }

void answer(std::initializer_list<double> seconds) {
  for (const double value : seconds) std::printf("%.9f ", value);
  std::printf("\n");
  std::fflush(stdout);
}

template <class Work>
void answer_time_of(Work&& work) {
  const double cpu = cpu_seconds();
  const double wall = wall_seconds();
  const auto kept = work();
  answer({cpu_seconds() - cpu, wall_seconds() - wall});
}

class Rounds {
 public:
  Rounds(const std::string& corpus, std::size_t count) : _texts(read_corpus(corpus)) {
    if (_texts.size() < count) throw ValueError("the corpus has too few texts");
    _texts.resize(count);
  }

  void embed(const std::string& url) {
    OpenAIEmbeddingBackend backend({.base_url = url, .model_name = _model});
    answer_time_of([&] { return backend.embed(_texts); });
  }

  void parse(const std::string& url) {
    std::string text = received(url);
    const std::size_t size = text.size();
    text.append(simdjson::SIMDJSON_PADDING, ' ');
    answer_time_of([&] {
      auto parser = std::make_unique<simdjson::dom::parser>();
      if (parser->parse(text.data(), size, false).error() != simdjson::SUCCESS) {
        throw RuntimeError("the reply is no JSON");
      }
      return parser;
    });
  }

  void parts(const std::string& url) {
    OpenAIEmbeddingBackend backend({.base_url = url, .model_name = _model});
    const double begin = cpu_seconds();
    std::string text = received(url);
    const double after_receiving = cpu_seconds();
    std::optional reply = http::JsonReply::parse(std::move(text));
    const double after_parsing = cpu_seconds();
    const auto kept = backend._vectors(reply->root(), _texts.size());
    const double after_copying = cpu_seconds();
    reply.reset();
    const double end = cpu_seconds();
    answer({after_receiving - begin, after_parsing - after_receiving, after_copying - after_parsing,
            end - after_copying});
  }

 private:
  std::string received(const std::string& url) const {
    const std::string body = embedding::_OPENAI.body(_texts, _model).dump();
    const http::Request request{.method = http::Method::post,
                                .url = url + "/embeddings",
                                .headers = {{"Content-Type", "application/json"}},
                                .body = body,
                                .accept_gzip = true};
    http::ReplySink sink(std::numeric_limits<std::size_t>::max());
    const http::Outcome outcome = http::default_transport().send(request, sink);
    if (outcome.ending != http::Ending::complete || !http::is_success(outcome.head.status)) {
      throw RuntimeError("no reply from " + url + ": " + outcome.problem);
    }
    return std::move(sink.text());
  }

  const std::string _model = "text-embedding-3-small";
  std::vector<std::string> _texts;
};

int serve(const std::string& corpus, std::size_t count) {
  Rounds rounds(corpus, count);
  std::string verb;
  std::string url;
  while (std::cin >> verb >> url) {
    if (verb == "embed") {
      rounds.embed(url);
    } else if (verb == "parse") {
      rounds.parse(url);
    } else if (verb == "parts") {
      rounds.parts(url);
    } else {
      throw ValueError("unknown request '" + verb + "'");
    }
  }
  return 0;
}

}  // namespace
}  // namespace tovana::bench

int main(int argc, char** argv) {
  try {
    if (argc == 3) return tovana::bench::serve(argv[1], std::stoul(argv[2]));
    std::fputs("usage: endpoint_rounds CORPUS TEXTS\n", stderr);
    return 64;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "endpoint_rounds: %s\n", error.what());
    return 1;
  }
}
