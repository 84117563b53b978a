#pragma once

#include <functional>
#include <string>

#include "tovana/base/clock.h"
#include "tovana/engines/http/retry_policy.h"
#include "tovana/engines/http/transport.h"
#include "tovana/engines/hub/cached_model.h"
#include "tovana/engines/hub/hub_settings.h"
#include "tovana/engines/hub/model_name.h"

namespace tovana::hub {

struct FetchOptions {
  HubSettings hub = {};
  /// What the requests go over; null for `http::default_transport()`. Has to outlive the call.
  http::Transport* transport = nullptr;
  /// What waits are measured on; has to outlive the call.
  Clock* clock = &system_clock();
  /// Asked between requests, while waiting, and ten times a second while a request is under way, on
  /// any of the fetch's threads; empty: never stops.
  http::StopTest should_stop = nullptr;
};

/// Fetches a repository's model into the cache, and finds it there as `find_cached_model` does.
///
/// The hub is asked also when the cache holds the model: this is how a newer commit is got, and how
/// damaged files are mended.
///
/// The revision is resolved to a commit once, and all files are of that commit. Only files that the
/// model needs are fetched, up to four at a time, and none that the cache holds with the right
/// content; hub and cache agree on a file by its hash, which every fetched byte goes through.
/// Broken connections, timeouts, 408, 429 and 500 to 599 are tried again, three times without
/// getting anything, going on where the file broke off. A fetch that fails, or whose process ends,
/// leaves what it got for the next one, and the cache as complete as it was.
///
/// Another process may fetch the same model at the same time: each file is then fetched by one of
/// them, for which the others wait as long as it takes. Where the file system's locks do not keep
/// them apart they fetch it more than once, and do each other no harm. No file of more than 50 GB
/// is fetched, and no weights of an encoder that does not load.
///
/// Blocks for as long as the network takes. Says how far it is to the fetch observer
/// (fetch_progress.h). Throws
/// - ModelFetchError: no such model, no access to it, the hub does not answer, its answers are
///   wrong, or the repository is no model that can be loaded;
/// - CacheNotWritableError: no right or no room to write;
/// - ModelFilesError for files of the model that name others outside of it, are malformed, or are
///   of a kind that does not load;
/// - http::Stopped when the stop test says stop.
CachedModel fetch_model(const ModelName& name, const CacheSettings& cache,
                        const FetchOptions& options);

struct FindOptions {
  /// The hub is not asked; nor is it when the cache's settings are offline.
  bool local_files_only = false;
  /// Where there is one, what is found is looked at closely (`check_model`), what fetches that ended
  /// before their time have left of the model is removed, and a model that is damaged is fetched
  /// again, after this has been told in one line what is wrong with it.
  std::function<void(const std::string& fault)> on_damage = nullptr;
  http::StopTest should_stop = nullptr;
};

/// The model as `find_cached_model` finds it; where the cache does not hold it, and the hub may be
/// asked, as `fetch_model` does with the hub that the environment names. Throws as these do, and as
/// `hub_settings` when it fetches.
CachedModel find_or_fetch_model(const ModelName& name, const CacheSettings& cache,
                                const FindOptions& options = {});

}  // namespace tovana::hub
