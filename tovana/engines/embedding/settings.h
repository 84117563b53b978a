#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <utility>

#include "tovana/engines/http/retry_policy.h"

/// The embedding component's settings: what is fixed when it is built, in one place.
namespace tovana::embedding {

/// Seconds without a byte moved that fail one attempt of an endpoint call.
inline constexpr double DEFAULT_EMBED_TIMEOUT = 30.0;

/// Attempts of one endpoint call in all.
inline constexpr std::int64_t DEFAULT_EMBED_MAX_ATTEMPTS = 3;

/// Seconds to wait after the first failed attempt of an endpoint call, doubled after each next one.
inline constexpr double DEFAULT_EMBED_BACKOFF = 0.5;

/// HTTP statuses of an endpoint that are tried again: it is overloaded, or it failed.
inline constexpr http::StatusSet _EMBED_RETRY_STATUSES = {429, {500, 599}};

/// Seconds that the engine's waiting calls wait for the model before they say it is not ready.
inline constexpr double DEFAULT_WAIT_S = 60.0;

/// Seconds to wait after the first failed load of the model, doubled after each next one.
inline constexpr double RETRY_BASE_S = 30.0;

/// Seconds of the longest wait between two attempts to load the model.
inline constexpr double RETRY_MAX_S = 600.0;

/// The models that are taken when none is named, and the numbers in a vector where nothing says
/// otherwise: of a local model that is not known, of either kind of endpoint, of the hashing
/// embedder.
inline constexpr const char* DEFAULT_LOCAL_MODEL = "all-MiniLM-L6-v2";
inline constexpr const char* DEFAULT_API_MODEL = "api";
inline constexpr const char* DEFAULT_OPENAI_MODEL = "text-embedding-3-small";
inline constexpr std::int64_t DEFAULT_LOCAL_DIMENSION = 384;
inline constexpr std::int64_t DEFAULT_API_DIMENSION = 384;
inline constexpr std::int64_t DEFAULT_OPENAI_DIMENSION = 1536;
inline constexpr std::int64_t DEFAULT_TFIDF_DIMENSION = 256;

/// The numbers in a vector of the local models that are known to have others.
inline constexpr std::array<std::pair<std::string_view, std::int64_t>, 1> LOCAL_DIMENSIONS = {
    {{"all-mpnet-base-v2", 768}}};

/// Environment variables of the endpoint's API key, in order of precedence.
inline constexpr std::array<const char*, 2> EMBEDDING_KEY_ENVS = {"BRUNE_LLM_EMBEDDING_API_KEY",
                                                                  "BRUNE_LLM_API_KEY"};

/// Environment variable that bounds the intra-op threads of one local embedding call.
inline constexpr const char* EMBED_THREADS_ENV = "TOVANA_EMBED_THREADS";

/// The bound when the variable is not set, or holds no whole number.
inline constexpr std::int64_t DEFAULT_EMBED_THREADS = 2;

/// Environment variable of what local models compute in: "float32", or "bfloat16".
inline constexpr const char* EMBED_PRECISION_ENV = "TOVANA_EMBED_PRECISION";

}  // namespace tovana::embedding
