#pragma once

#include <filesystem>

#include "tovana/base/clock.h"
#include "tovana/engines/http/retry_policy.h"
#include "tovana/engines/hub/durable_file.h"

namespace tovana::hub {

/// Keeps others, in this process or another, from fetching the same content meanwhile: an exclusive
/// flock on a file that stays. Best effort: where files cannot be locked, or the lock file cannot
/// be made, everybody fetches for himself, which costs time but no correctness.
class BlobLock {
 public:
  /// Waits for whoever holds it, up to ten minutes. Throws http::Stopped.
  BlobLock(const std::filesystem::path& path, const http::StopTest& should_stop, Clock& clock);
  /// Does not wait.
  explicit BlobLock(const std::filesystem::path& path);

  /// Whether everybody else who heeds locks is kept out.
  bool is_held() const noexcept { return _is_held; }

 private:
  enum class Attempt { taken, busy, impossible };
  Attempt _try() noexcept;

  Descriptor _file;
  bool _is_held = false;
};

}  // namespace tovana::hub
