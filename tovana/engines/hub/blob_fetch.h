#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tovana/engines/hub/cache_writer.h"
#include "tovana/engines/hub/hub_client.h"

namespace tovana::hub {

/// One file of one commit.
struct WantedFile {
  std::string name;
  ListedFile listed;
};

/// What fetching one file stands on; all of it has to outlive the call.
struct BlobFetch {
  HubClient& client;
  const CacheWriter& cache;
  Clock& clock;
  const http::StopTest& should_stop;
  const std::string& commit;
  /// Told how many bytes of the file there are, on the calling thread.
  std::function<void(std::uint64_t bytes)> on_progress;
  /// Told once, before it waits for another process that fetches the same file.
  std::function<void()> on_wait;
};

/// Makes the blob of a file be there, whole and with the right hash. Throws as `fetch_model` does.
void fetch_blob(const BlobFetch& fetch, const WantedFile& file);

}  // namespace tovana::hub
