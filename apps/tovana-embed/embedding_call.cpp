#include "embedding_call.h"

#include <algorithm>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>

#include "failure.h"
#include "tovana/base/clock.h"
#include "tovana/engines/embedding/backends/endpoint/embedding_stopped.h"
#include "tovana/engines/embedding/backends/endpoint/http.h"
#include "tovana/engines/embedding/backends/local/call_pace.h"
#include "tovana/engines/embedding/backends/tfidf/tfidf.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::tool {
namespace {

using embedding::EmbeddingBackend;
using embedding::Vector;

[[noreturn]] void throw_out_of_memory(std::size_t texts, const EmbeddingBackend& backend) {
  throw Failure(ExitStatus::call_failed,
                "not enough memory for [" + std::to_string(texts) + " x " +
                    std::to_string(backend.dimension()) +
                    "] numbers; give fewer texts at a time or a smaller --dimension");
}

std::vector<Vector> call(EngineSession& session, const std::vector<std::string>& texts,
                         const RunLimits& limits) {
  const EmbeddingBackend& backend = session.wait_ready(limits);
  try {
    return session.engine().embed(texts, {.wait = false,
                                          .should_stop = [&limits] { return limits.should_stop(); },
                                          .deadline = limits.deadline()});
  } catch (const embedding::EmbeddingStopped&) {
    throw Interrupted();
  } catch (const std::bad_alloc&) {
    throw_out_of_memory(texts.size(), backend);
  } catch (const std::length_error& error) {  // tfidf's, of a text or a dimension
    throw Failure(ExitStatus::call_failed,
                  std::string(error.what()) + "; give shorter texts or a smaller --dimension");
  } catch (const Error& error) {  // one of ours says itself what and where
    throw Failure(ExitStatus::call_failed, error.what());
  } catch (const std::exception& error) {
    throw Failure(ExitStatus::call_failed, "the backend " + backend.name() + " could not embed " +
                                               std::to_string(texts.size()) +
                                               " texts: " + failure_text(error));
  }
}

/// Where `count` texts from number `first` on are: "line 5", "lines 5 to 6".
std::string place(const InputTexts& input, std::size_t first, std::size_t count = 1) {
  const std::string begin = std::to_string(input.lines[first]);
  if (count == 1) return input.unit + " " + begin;
  return input.unit + "s " + begin + " to " + std::to_string(input.lines[first + count - 1]);
}

/// The vectors of `count` texts from number `first` on, at least one.
std::vector<Vector> call_for(EngineSession& session, const InputTexts& input, std::size_t first,
                             std::size_t count, const RunLimits& limits) {
  const auto begin = input.texts.begin() + static_cast<std::ptrdiff_t>(first);
  std::vector<Vector> vectors;
  try {
    // The whole input, which may be most of the memory, is not copied.
    vectors = count == input.texts.size()
                  ? call(session, input.texts, limits)
                  : call(session, {begin, begin + static_cast<std::ptrdiff_t>(count)}, limits);
  } catch (const Failure& failure) {
    if (input.lines.back() == count) throw;  // the texts of the call are the input's lines
    throw Failure(failure.status(),
                  std::string(failure.what()) + "; the call was for " + place(input, first, count));
  }
  const auto empty = std::ranges::find(vectors, Vector());
  if (empty == vectors.end()) return vectors;
  const std::size_t index = first + static_cast<std::size_t>(empty - vectors.begin());
  throw Failure(ExitStatus::call_failed,
                "the backend " + session.engine().backend_name() +
                    " returned a vector without numbers" +
                    (input.texts.size() == 1 ? "" : " for " + place(input, index)) +
                    "; give another text, or another --model");
}

}  // namespace

void check_dimension(const InputTexts& input, std::size_t index, const Vector& vector,
                     std::size_t dimension) {
  if (vector.size() == dimension) return;
  throw Failure(ExitStatus::call_failed,
                "the backend returned vectors of " + std::to_string(dimension) + " and of " +
                    std::to_string(vector.size()) + " numbers (" + place(input, index) +
                    "), which do not compare; use a model with one dimension");
}

void embed_in_batches(EngineSession& session, const InputTexts& input, std::size_t batch_size,
                      const RunLimits& limits, const VectorSink& sink) {
  const std::span<const std::string> texts(input.texts);
  if (texts.empty()) return;
  limits.check();
  EmbeddingBackend* const backend = &session.wait_ready(limits);
  if (dynamic_cast<embedding::TFIDFEmbeddingBackend*>(backend) != nullptr) {
    return sink(0, call_for(session, input, 0, texts.size(), limits));
  }
  std::optional<embedding::CallPace> pace;  // an endpoint's call can be ended, whatever its size
  if (dynamic_cast<embedding::_HTTPEmbeddingBackend*>(backend) == nullptr) pace.emplace();
  for (std::size_t first = 0; first < texts.size();) {
    limits.check();
    const auto batch = texts.subspan(first, std::min(batch_size, texts.size() - first));
    const std::size_t count = pace ? pace->next(batch) : batch.size();
    const double start = system_clock().now();
    const std::vector<Vector> vectors = call_for(session, input, first, count, limits);
    if (pace) pace->took(batch.first(count), system_clock().now() - start);
    sink(first, vectors);
    first += count;
  }
}

}  // namespace tovana::tool
