#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "call_limits.h"
#include "tovana/engines/embedding/backends/local/call_pace.h"
#include "tovana/engines/embedding/embedding.h"
#include "vector_array.h"

/// The ways in which an engine that is ready embeds so that Ctrl-C ends it. All have the interpreter
/// and let others have it meanwhile.
namespace tovana::python {

using SharedEngine = std::shared_ptr<embedding::EmbeddingEngine>;

/// Part after part, for a model, whose vectors are the same whatever they are embedded with. Adds
/// to the counts of tokens where they are asked for.
void embed_in_parts(embedding::LocalEmbeddingBackend& model, std::vector<std::string> texts,
                    const embedding::PromptOptions& prompt, embedding::CallPace& pace,
                    const CallLimits& limits, VectorArray& array,
                    std::vector<std::uint32_t>* token_counts);

/// All texts in one call, on this thread: for what is quick.
void embed_at_once(const SharedEngine& engine, const std::vector<std::string>& texts,
                   VectorArray& array);

/// All texts in one call, on a thread of its own, which is left alone when this one has to end. An
/// endpoint (`is_bounded`) ends by the limits' deadline itself, and says how far it was.
void embed_apart(const SharedEngine& engine, std::vector<std::string> texts, bool is_bounded,
                 const CallLimits& limits, VectorArray& array);

}  // namespace tovana::python
