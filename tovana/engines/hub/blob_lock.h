#pragma once

#include <filesystem>
#include <functional>

#include "tovana/base/clock.h"
#include "tovana/engines/http/retry_policy.h"
#include "tovana/engines/hub/durable_file.h"

namespace tovana::hub {

/// Keeps others, in this process or another, from fetching the same content at the same time: an
/// exclusive flock on a file that is never removed. All it does is save work: where files cannot be
/// locked, the lock file cannot be made, or every lock is granted, each of them fetches the content,
/// and what they write must not come into conflict.
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
