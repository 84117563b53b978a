#include "embedding_call.h"

#include <algorithm>
#include <new>
#include <stdexcept>

#include "failure.h"
#include "tovana/engines/embedding/backends/http.h"
#include "tovana/engines/embedding/backends/model_library.h"
#include "tovana/engines/embedding/backends/tfidf.h"
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

std::vector<Vector> call(EmbeddingBackend& backend, const std::vector<std::string>& texts,
                         const RunLimits& limits) {
  limits.check();
  try {
    // What works in this process is not stopped in the middle; a request to an endpoint can be.
    if (auto* const endpoint = dynamic_cast<embedding::_HTTPEmbeddingBackend*>(&backend)) {
      return endpoint->embed(texts, {.should_stop = [&limits] { return limits.should_stop(); },
                                     .deadline = limits.deadline()});
    }
    return backend.embed(texts);
  } catch (const embedding::EmbeddingStopped&) {
    throw Interrupted();
  } catch (const TryAgainLaterError& error) {
    throw Failure(ExitStatus::not_ready, std::string(error.what()) + "; try again later");
  } catch (const std::bad_alloc&) {
    throw_out_of_memory(texts.size(), backend);
  } catch (const std::length_error&) {
    throw_out_of_memory(texts.size(), backend);
  } catch (const embedding::ModelLibraryNotInstalled& error) {
    throw Failure(ExitStatus::call_failed,
                  std::string(error.what()) +
                      "; scripts/setup --model installs it, --backend tfidf needs nothing");
  } catch (const Error& error) {  // one of ours says itself what and where
    throw Failure(ExitStatus::call_failed, error.what());
  } catch (const std::exception& error) {
    throw Failure(ExitStatus::call_failed, "the backend " + backend.name() + " could not embed " +
                                               std::to_string(texts.size()) +
                                               " texts: " + failure_text(error));
  }
}

}  // namespace

void check_dimension(const Vector& vector, std::size_t dimension) {
  if (vector.size() == dimension) return;
  throw Failure(ExitStatus::call_failed,
                "the backend returned vectors of " + std::to_string(dimension) + " and of " +
                    std::to_string(vector.size()) +
                    " numbers, which do not compare; use a model with one dimension");
}

void embed_in_batches(EmbeddingBackend& backend, const std::vector<std::string>& texts,
                      std::size_t batch_size, const RunLimits& limits, const VectorSink& sink) {
  // Not asked by its name, which an endpoint's model may have as well.
  const bool weighs_batch = dynamic_cast<embedding::TFIDFEmbeddingBackend*>(&backend) != nullptr;
  if (weighs_batch || texts.size() <= batch_size) {
    if (!texts.empty()) sink(0, call(backend, texts, limits));
    return;
  }
  for (std::size_t first = 0; first < texts.size(); first += batch_size) {
    const auto begin = texts.begin() + static_cast<std::ptrdiff_t>(first);
    const auto size = static_cast<std::ptrdiff_t>(std::min(batch_size, texts.size() - first));
    sink(first, call(backend, {begin, begin + size}, limits));
  }
}

}  // namespace tovana::tool
