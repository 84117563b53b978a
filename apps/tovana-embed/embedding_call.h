#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "run_limits.h"
#include "tovana/engines/embedding/backends/backend.h"

namespace tovana::tool {

inline constexpr std::size_t kDefaultBatchSize = 256;

/// Takes the vectors of one batch, which are those of the texts from number `first` on.
using VectorSink =
    std::function<void(std::size_t first, const std::vector<embedding::Vector>& vectors)>;

/// Embeds the texts batch by batch, in their order; the one place where the tool calls a backend.
///
/// `tfidf` gets all texts as one batch, whatever `batch_size` says: its weights are those of the
/// batch, so vectors from different batches do not compare. The limits are asked before each call.
///
/// Throws what `sink` throws, as RunLimits::check does, and Failure (call_failed, not_ready) when
/// the backend fails.
void embed_in_batches(embedding::EmbeddingBackend& backend, const std::vector<std::string>& texts,
                      std::size_t batch_size, const RunLimits& limits, const VectorSink& sink);

/// Throws Failure (call_failed) for a vector of another dimension than those before it.
void check_dimension(const embedding::Vector& vector, std::size_t dimension);

}  // namespace tovana::tool
