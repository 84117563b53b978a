#include "unique_call.h"

#include <cstddef>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "unique_texts.h"

namespace tovana::tool {
namespace {

using embedding::Vector;

/// Gives the results of different texts to the sink of all texts, in the order of those.
class EachOnce {
 public:
  EachOnce(const InputTexts& input, const UniqueTexts& unique, const ResultSink& sink)
      : _input(input), _unique(unique), _sink(sink), _uses(unique.places.size()) {
    for (const std::size_t number : unique.number_of) ++_uses[number];
  }

  ResultSink sink() {
    ResultSink sink;
    sink.vectors = [this](const InputTexts&, std::size_t, const std::vector<Vector>& vectors) {
      for (const Vector& vector : vectors) _results[_done++].vector = vector;
      _give();
    };
    if (!_sink.failed) return sink;
    sink.failed = [this](const InputTexts&, std::size_t, std::size_t count,
                         const Failure& failure) {
      const auto shared = std::make_shared<const Failure>(failure);
      for (std::size_t i = 0; i < count; ++i) _results[_done++].failure = shared;
      _give();
    };
    return sink;
  }

 private:
  struct Result {
    Vector vector;
    std::shared_ptr<const Failure> failure;  ///< Null: none.
  };

  /// What has a result by now, up to the first text that has none.
  void _give() {
    std::vector<Vector> vectors;
    const auto give_vectors = [&] {
      const std::size_t count = vectors.size();
      if (count > 0) _sink.vectors(_input, _next - count, std::exchange(vectors, {}));
    };
    for (; _next < _input.texts.size(); ++_next) {
      const auto found = _results.find(_unique.number_of[_next]);
      if (found == _results.end()) break;
      Result& result = found->second;
      const bool is_last = --_uses[found->first] == 0;
      if (result.failure) {
        give_vectors();
        _sink.failed(_input, _next, 1, *result.failure);
      } else {
        vectors.push_back(is_last ? std::move(result.vector) : result.vector);
      }
      if (is_last) _results.erase(found);
    }
    give_vectors();
  }

  const InputTexts& _input;
  const UniqueTexts& _unique;
  const ResultSink& _sink;
  std::vector<std::size_t> _uses;                    ///< Of each, how often it is still to come.
  std::unordered_map<std::size_t, Result> _results;  ///< Of those that are still to come.
  std::size_t _done = 0;                             ///< Different ones that have had their result.
  std::size_t _next = 0;  ///< Of all texts, the first one that has not been given.
};

}  // namespace

void embed_each_once(EngineSession& session, const InputTexts& input, const Batching& batching,
                     const RunLimits& limits, const ResultSink& sink) {
  if (input.texts.empty()) return;
  limits.check();
  const UniqueTexts unique(input.texts);
  if (unique.places.size() == input.texts.size() || is_tfidf(*session.wait_ready(limits))) {
    return embed_in_batches(session, input, batching, limits, sink);
  }
  InputTexts once;
  once.unit = input.unit;
  once.is_whole = input.is_whole;
  for (const std::size_t place : unique.places) {
    once.texts.push_back(input.texts[place]);
    once.lines.push_back(input.lines[place]);
  }
  EachOnce each(input, unique, sink);
  embed_in_batches(session, once, batching, limits, each.sink());
}

}  // namespace tovana::tool
