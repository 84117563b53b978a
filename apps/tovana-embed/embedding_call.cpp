#include "embedding_call.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "embedding_window.h"
#include "failure.h"
#include "tovana/base/clock.h"
#include "tovana/engines/embedding/backends/endpoint/embedding_stopped.h"
#include "tovana/engines/embedding/backends/endpoint/http.h"
#include "tovana/engines/embedding/backends/local/call_pace.h"
#include "tovana/engines/embedding/backends/local/local.h"
#include "tovana/engines/embedding/backends/tfidf/tfidf.h"
#include "tovana/exceptions/exceptions.h"
#include "unique_texts.h"

namespace tovana::tool {
namespace {

using embedding::EmbeddingBackend;
using embedding::TFIDFEmbeddingBackend;
using embedding::Vector;

[[noreturn]] void throw_out_of_memory(std::size_t texts, const EmbeddingBackend& backend) {
  throw Failure(ExitStatus::call_failed,
                "not enough memory for [" + std::to_string(texts) + " x " +
                    std::to_string(backend.dimension()) +
                    "] numbers; give fewer texts at a time or a smaller --dimension");
}

/// Owns what it refers to, since calls may outlast the run.
struct BackendCall {
  std::shared_ptr<embedding::EmbeddingEngine> engine;
  std::shared_ptr<EmbeddingBackend> backend;
  RunLimits limits;
  std::optional<std::string> prompt = std::nullopt;  ///< Which the engine knows nothing of.

  std::vector<Vector> operator()(const std::vector<std::string>& texts) const {
    try {
      return _embed(texts);
    } catch (const Failure&) {
      limits.check_interrupted();  // which closes the engine
      throw;
    }
  }

  std::vector<Vector> _embed(const std::vector<std::string>& texts) const {
    try {
      if (prompt) {
        return dynamic_cast<embedding::LocalEmbeddingBackend&>(*backend).embed(
            texts, {.prompt_name = prompt});
      }
      return engine->embed(texts, {.wait = false,
                                   .should_stop = [this] { return limits.should_stop(); },
                                   .deadline = limits.deadline()});
    } catch (const embedding::EmbeddingStopped&) {
      throw Interrupted();
    } catch (const std::bad_alloc&) {
      throw_out_of_memory(texts.size(), *backend);
    } catch (const std::length_error& error) {  // tfidf's, of a text or a dimension
      throw Failure(ExitStatus::call_failed,
                    std::string(error.what()) + "; give shorter texts or a smaller --dimension");
    } catch (const Error& error) {  // one of ours says itself what and where
      throw Failure(ExitStatus::call_failed, error.what());
    } catch (const std::exception& error) {
      throw Failure(ExitStatus::call_failed,
                    "the backend " + backend->name() + " could not embed " +
                        std::to_string(texts.size()) + " texts: " + failure_text(error));
    }
  }
};

/// The vectors of all texts from a call for the different ones.
std::vector<Vector> call_with_each_once(const BackendCall& call,
                                        const std::vector<std::string>& texts) {
  const UniqueTexts unique(texts);
  if (unique.places.size() == texts.size()) return call(texts);
  std::vector<std::string> once;
  for (const std::size_t place : unique.places) once.push_back(texts[place]);
  const std::vector<Vector> found = call(once);
  std::vector<Vector> vectors;
  for (const std::size_t number : unique.number_of) vectors.push_back(found[number]);
  return vectors;
}

/// Where `count` texts from number `first` on are: "line 5", "lines 5 to 6".
std::string place(const InputTexts& texts, std::size_t first, std::size_t count = 1) {
  const std::string begin = std::to_string(texts.lines[first]);
  if (count == 1) return texts.unit + " " + begin;
  return texts.unit + "s " + begin + " to " + std::to_string(texts.lines[first + count - 1]);
}

/// That the call for `count` texts from number `first` on failed.
void fail(const InputTexts& texts, std::size_t first, std::size_t count, const Failure& failure,
          const RunLimits& limits, const ResultSink& sink) {
  if (sink.failed) {
    limits.check();  // every later call would fail for the deadline, too
    return sink.failed(texts, first, count, failure);
  }
  // Where the texts of the call are the input's lines there is nothing to tell apart.
  if (texts.is_whole && texts.lines.back() == count) throw failure;
  throw Failure(failure.status(),
                std::string(failure.what()) + "; the call was for " + place(texts, first, count));
}

/// The vectors of `count` texts from number `first` on, at least one; null when the call failed and
/// the run goes on.
std::optional<std::vector<Vector>> call_for(const BackendCall& call, const InputTexts& input,
                                            std::size_t first, std::size_t count,
                                            const ResultSink& sink) {
  const auto begin = input.texts.begin() + static_cast<std::ptrdiff_t>(first);
  try {
    // The whole input, which may be most of the memory, is not copied.
    return count == input.texts.size() ? call(input.texts)
                                       : call({begin, begin + static_cast<std::ptrdiff_t>(count)});
  } catch (const Failure& failure) {
    fail(input, first, count, failure, call.limits, sink);
    return std::nullopt;
  }
}

/// Gives parts of `input`, which outlives it.
TextSource parts_of(const InputTexts& input) {
  return [&input, first = std::size_t{0}](std::size_t most) mutable {
    const std::size_t count = std::min(most, input.texts.size() - first);
    const auto part = [&](const auto& all) {
      const auto begin = all.begin() + static_cast<std::ptrdiff_t>(all.empty() ? 0 : first);
      const auto size = static_cast<std::ptrdiff_t>(all.empty() ? 0 : count);
      return std::decay_t<decltype(all)>(begin, begin + size);
    };
    InputTexts texts{.texts = part(input.texts),
                     .members = part(input.members),
                     .ids = part(input.ids),
                     .lines = part(input.lines),
                     .unit = input.unit,
                     .is_whole = count == input.texts.size()};
    first += count;
    return texts;
  };
}

}  // namespace

bool is_endpoint(const EmbeddingBackend& backend) {
  return dynamic_cast<const embedding::_HTTPEmbeddingBackend*>(&backend) != nullptr;
}

bool is_tfidf(const EmbeddingBackend& backend) {
  return dynamic_cast<const TFIDFEmbeddingBackend*>(&backend) != nullptr;
}

void check_vector(const EngineSession& session, const InputTexts& texts, std::size_t index,
                  const Vector& vector, std::size_t& dimension) {
  if (vector.empty()) {
    throw Failure(
        ExitStatus::call_failed,
        "the backend " + session.engine().backend_name() + " returned a vector without numbers" +
            (texts.is_whole && texts.texts.size() == 1 ? "" : " for " + place(texts, index)) +
            "; give another text, or another --model");
  }
  if (dimension == 0) dimension = vector.size();
  if (vector.size() == dimension) return;
  throw Failure(ExitStatus::call_failed,
                "the backend returned vectors of " + std::to_string(dimension) + " and of " +
                    std::to_string(vector.size()) + " numbers (" + place(texts, index) +
                    "), which do not compare; use a model with one dimension");
}

void embed_in_batches(EngineSession& session, const InputTexts& input, const Batching& batching,
                      const RunLimits& limits, const ResultSink& sink) {
  const std::span<const std::string> texts(input.texts);
  if (texts.empty()) return;
  limits.check();
  const std::shared_ptr<EmbeddingBackend>& backend = session.wait_ready(limits);
  if (is_endpoint(*backend)) return embed_from(parts_of(input), session, batching, limits, sink);
  if (batching.concurrency > 1) {
    report("the backend " + backend->name() +
           " gets one batch at a time; --concurrency is for endpoints");
  }
  std::optional<embedding::CallPace> pace;
  if (!is_tfidf(*backend)) pace.emplace();
  const BackendCall call{session.shared_engine(), backend, limits, batching.prompt};
  for (std::size_t first = 0; first < texts.size();) {
    limits.check();
    const auto batch = texts.subspan(first, std::min(batching.size, texts.size() - first));
    const std::size_t count = pace ? pace->next(batch) : texts.size();
    const double start = system_clock().now();
    const auto vectors = call_for(call, input, first, count, sink);
    if (pace) pace->took(batch.first(count), system_clock().now() - start);
    if (vectors) sink.vectors(input, first, *vectors);
    first += count;
  }
}

void embed_from(const TextSource& source, EngineSession& session, const Batching& batching,
                const RunLimits& limits, const ResultSink& sink) {
  using enum EmbeddingWindow::AfterFailure;
  const BackendCall call{session.shared_engine(), session.wait_ready(limits), limits};
  EmbeddingWindow window(
      batching.concurrency,
      [call](const std::vector<std::string>& texts) { return call_with_each_once(call, texts); },
      sink.failed ? go_on : stop);
  std::exception_ptr unreadable;
  for (bool has_more = true;;) {
    while (has_more && window.has_room()) {
      limits.check();
      try {
        InputTexts batch = source(batching.size);
        has_more = !batch.texts.empty();
        if (has_more) window.add(std::move(batch));
      } catch (const Failure&) {
        limits.check();
        unreadable = std::current_exception();
        has_more = false;
      }
    }
    if (window.is_empty()) break;
    const EmbeddingWindow::Finished finished = window.take(limits);
    if (!finished.failure) {
      sink.vectors(finished.batch, 0, finished.vectors);
      continue;
    }
    try {
      std::rethrow_exception(finished.failure);
    } catch (const Failure& failure) {
      fail(finished.batch, 0, finished.batch.texts.size(), failure, limits, sink);
    }
  }
  if (unreadable) std::rethrow_exception(unreadable);
}

}  // namespace tovana::tool
