#include "tovana/engines/embedding/engine/status.h"

#include <algorithm>

#include "tovana/base/text.h"
#include "tovana/engines/embedding/settings.h"

namespace tovana::embedding {
namespace {

std::string whole_seconds(std::optional<double> seconds) {
  return with_decimals(seconds.value_or(0), 0);
}

}  // namespace

std::string EmbeddingStatus::describe() const {
  if (state == "ready") return "is ready (" + backend.value_or("unknown") + ")";
  if (state == "loading") return "is still loading (" + whole_seconds(loading_s) + " s so far)";
  if (state == "unavailable") {
    return "could not be loaded (" + detail.value_or("unknown") + "); the next attempt is in " +
           whole_seconds(retry_in_s) + " s";
  }
  if (state == "closed") return "was shut down before it was loaded";
  return "has not started loading";
}

std::vector<std::pair<std::string, std::variant<std::string, double>>> EmbeddingStatus::to_dict()
    const {
  std::vector<std::pair<std::string, std::variant<std::string, double>>> fields;
  const auto add = [&fields](const char* name, const auto& value) {
    if (value) fields.emplace_back(name, *value);
  };
  fields.emplace_back("state", state);
  add("backend", backend);
  add("detail", detail);
  add("loading_s", loading_s);
  add("retry_in_s", retry_in_s);
  return fields;
}

EmbeddingNotReadyError::EmbeddingNotReadyError(const EmbeddingStatus& status,
                                               std::exception_ptr cause)
    : TryAgainLaterError("The embedding model " + status.describe()),
      _status(std::make_shared<const EmbeddingStatus>(status)),
      _cause(std::move(cause)) {}

double retry_delay(std::int64_t failures) noexcept {
  double delay = RETRY_BASE_S;
  // Ends at the cap, which a model that is missing for weeks would else pass by far.
  for (; failures > 1 && delay < RETRY_MAX_S; --failures) delay = std::min(2 * delay, RETRY_MAX_S);
  return delay;
}

}  // namespace tovana::embedding
