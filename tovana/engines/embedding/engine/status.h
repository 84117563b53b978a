#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "tovana/base/export.h"
#include "tovana/exceptions/exceptions.h"

/// What an engine says of itself: in a record, in a sentence, in a map, and in the error of a call
/// that it cannot serve yet.
namespace tovana::embedding {

/// What the embedding engine was doing at one moment. A record that does not change after it was
/// made, so that threads may hand it around freely.
///
/// | `state` | means |
/// |---|---|
/// | "idle" | no load has started yet |
/// | "loading" | the loader is choosing the backend or loading its model |
/// | "ready" | the backend can embed |
/// | "unavailable" | the last attempt to load failed; another follows in `retry_in_s` seconds |
/// | "closed" | the engine was closed before any backend was ready; nothing will be loaded |
struct TOVANA_API EmbeddingStatus {
  const std::string state;

  /// The name of the engine's backend, which it has exactly when it is ready.
  const std::optional<std::string> backend = std::nullopt;

  /// When unavailable, the failure of the last attempt: the error's kind, ": ", and its message.
  /// Otherwise why the backend is not the best one, if it is not.
  const std::optional<std::string> detail = std::nullopt;

  /// While loading: seconds since the current attempt began, to one decimal place.
  const std::optional<double> loading_s = std::nullopt;

  /// While unavailable: seconds to the next attempt, to one decimal place and not below 0.
  const std::optional<double> retry_in_s = std::nullopt;

  /// Whether the backend can embed.
  bool ready() const noexcept { return state == "ready"; }

  /// The state as the end of a sentence that begins with "The embedding model". Seconds are whole
  /// ones, halves rounded to the even one.
  std::string describe() const;

  /// The fields that have a value, each with its name, in the order of the record.
  std::vector<std::pair<std::string, std::variant<std::string, double>>> to_dict() const;

  friend bool operator==(const EmbeddingStatus&, const EmbeddingStatus&) = default;
};

/// The embedding model is not ready: it is loading, could not be loaded, or was shut down.
class TOVANA_API EmbeddingNotReadyError final : public TryAgainLaterError {
 public:
  /// What to tell whoever asked, beside the message.
  static constexpr std::string_view hint =
      "Retry in a moment. Search by name or text (search with action symbols or code, or explore) "
      "does not need the model.";

  /// The message is "The embedding model " and what `describe` says.
  explicit EmbeddingNotReadyError(const EmbeddingStatus& status,
                                  std::exception_ptr cause = nullptr);

  const char* kind() const noexcept override { return "EmbeddingNotReadyError"; }

  const EmbeddingStatus& status() const noexcept { return *_status; }

  /// What the last attempt to load failed with, for whoever has to tell a failure that may pass
  /// from one that will not; null when the model is not unavailable, or when that is not known.
  const std::exception_ptr& cause() const noexcept { return _cause; }

 private:
  std::shared_ptr<const EmbeddingStatus> _status;  ///< Shared by the error's copies, which may not
                                                   ///< fail.
  std::exception_ptr _cause;
};

/// Seconds to wait before the next attempt after so many failed ones in a row: `RETRY_BASE_S`,
/// doubled with each further failure up to `RETRY_MAX_S`.
TOVANA_API double retry_delay(std::int64_t failures) noexcept;

}  // namespace tovana::embedding
