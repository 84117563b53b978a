#pragma once

#include <filesystem>
#include <functional>

#include "tovana/base/clock.h"
#include "tovana/engines/http/retry_policy.h"
#include "tovana/engines/hub/durable_file.h"

namespace tovana::hub {

/// Keeps others, in this process or another, from fetching the same content meanwhile: an exclusive
/// flock on a file that stays. It saves work, and no more: where files cannot be locked, the lock
/// file cannot be made, or locks are granted to everybody, everybody fetches on their own, and what
/// they write must not come into conflict.
class BlobLock {
 public:
  /// Waits for whoever holds it, for as long as that takes: the system frees the lock of a process
  /// that has ended. `on_wait` is called once before that. Throws http::Stopped.
  BlobLock(const std::filesystem::path& path, const http::StopTest& should_stop, Clock& clock,
           const std::function<void()>& on_wait);

 private:
  Descriptor _file;
};

/// Whether somebody holds the lock at the moment, as far as can be told.
bool is_locked(const std::filesystem::path& path) noexcept;

}  // namespace tovana::hub
