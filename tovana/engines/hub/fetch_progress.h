#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

#include "tovana/base/export.h"

/// Telling somebody how far a fetch is. A fetch happens deep inside of whatever wanted the model,
/// so this is process-wide, as the log sink is.
namespace tovana::hub {

/// One moment of the fetch of one model. The texts live as long as the call.
struct FetchProgress {
  std::string_view model = {};  ///< The repository: "organisation/name".

  /// The file that has got on, and how far it is.
  std::string_view file = {};
  std::uint64_t file_bytes = 0;
  std::uint64_t file_size = 0;

  /// All files that are known to be needed and were not there; which those are may become known
  /// only on the way. Bytes that an earlier fetch left behind count as got.
  std::size_t files = 0;
  std::size_t files_done = 0;
  std::uint64_t bytes = 0;
  std::uint64_t size = 0;

  bool is_file_done = false;  ///< The file has been checked and stored.
  bool is_waiting = false;    ///< Another process fetches the file: this one waits until it ends.
  /// The host that a request goes to, when it is sent and, with `is_answered`, when the response
  /// begins; no file is named.
  std::string_view asked_host = {};
  bool is_answered = false;
  /// After an attempt that failed, why, and how long it is until the next one; no file is named.
  std::string_view problem = {};
  double retry_in_s = 0;
  /// What is on the disk is read, to be compared with its hash; no file need be named.
  bool is_checking = false;
  bool is_over = false;  ///< The fetch has ended, in whichever way; no file is named.
};

/// Receives the moments of every fetch, on the threads that fetch: several at a time, some thousand
/// times a second where the network is fast. What it throws is dropped. It is bound by what binds a
/// `LogSink` (tovana/base/log_sink.h): the fetch goes on when it returns and holds locks, so it
/// neither embeds nor waits for who does, and it uses nothing that the host destroys at exit.
using FetchObserver = std::function<void(const FetchProgress&)>;

/// Replaces the observer; an empty one is none. A fetch that is under way may still call the old
/// one.
TOVANA_API void set_fetch_observer(FetchObserver observer);

}  // namespace tovana::hub
