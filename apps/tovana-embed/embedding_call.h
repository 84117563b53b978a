#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "engine_session.h"
#include "failure.h"
#include "run_limits.h"
#include "text_input.h"
#include "tovana/engines/embedding/backends/backend.h"

namespace tovana::tool {

inline constexpr std::size_t kDefaultBatchSize = 256;

/// How a run's texts go to the backend.
struct Batching {
  std::size_t size = kDefaultBatchSize;  ///< Most texts in one call.
  std::size_t concurrency = 1;           ///< Most calls of an endpoint at once.
  /// The local model's that stands before each text, by its name; null: its default.
  std::optional<std::string> prompt = std::nullopt;
};

/// What takes the results of the calls, in the order of the texts, on the thread that embeds.
struct ResultSink {
  /// The vectors of the texts from number `first` of `texts` on.
  std::function<void(const InputTexts& texts, std::size_t first,
                     const std::vector<embedding::Vector>& vectors)>
      vectors;
  /// `count` such texts, whose call failed, and why; the run goes on. Empty: it ends the run.
  std::function<void(const InputTexts& texts, std::size_t first, std::size_t count,
                     const Failure& failure)>
      failed = nullptr;
};

/// Gives the next texts of a run, at most so many, and none when there are no more.
using TextSource = std::function<InputTexts(std::size_t most)>;

/// Whether the backend is an endpoint, whose calls may run side by side and be ended.
bool is_endpoint(const embedding::EmbeddingBackend& backend);
/// Whether its vectors compare only with those of the same call.
bool is_tfidf(const embedding::EmbeddingBackend& backend);

/// Waits for the engine, unless there are no texts, and embeds them batch by batch, in their order.
///
/// `tfidf` gets all texts as one batch, whatever `batching` says: its weights are those of the
/// batch, so vectors from different batches do not compare. A local model gets as much at a time as
/// it computes in a fifth of a second, and no more texts than a batch has. Both are called once at a
/// time; where more was asked for, a line on stderr says so. The limits are asked before each call.
/// Endpoints: as `embed_from`.
///
/// Throws what `sink` throws, as EngineSession::wait_ready and RunLimits::check do, and Failure
/// (call_failed) when the backend fails. Its message names the texts of the call by their lines,
/// unless they are the whole input.
void embed_in_batches(EngineSession& session, const InputTexts& input, const Batching& batching,
                      const RunLimits& limits, const ResultSink& sink);

/// The same for an endpoint, of texts that are asked for as they are needed: at any time it holds
/// twice as many batches as calls run at once, and two more. What comes before texts that cannot be
/// had, or whose call failed, has reached `sink` before their Failure is thrown; calls for texts
/// behind them may then be under way, and end with the process. An endpoint's call observes the
/// limits throughout, and holds of equal texts only one.
void embed_from(const TextSource& source, EngineSession& session, const Batching& batching,
                const RunLimits& limits, const ResultSink& sink);

/// Throws Failure (call_failed) for a vector of text `index` that cannot be used: it has no numbers,
/// or not `dimension` of them as those before it. With a `dimension` of 0 there is none before it,
/// and it becomes this one's.
void check_vector(const EngineSession& session, const InputTexts& texts, std::size_t index,
                  const embedding::Vector& vector, std::size_t& dimension);

}  // namespace tovana::tool
