#include "tovana/engines/hub/fetch_model.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <map>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "tovana/base/logging.h"
#include "tovana/base/mutex.h"
#include "tovana/base/text.h"
#include "tovana/engines/http/failure.h"
#include "tovana/engines/hub/blob_fetch.h"
#include "tovana/engines/hub/cache_layout.h"
#include "tovana/engines/hub/cache_writer.h"
#include "tovana/engines/hub/fetch_errors.h"
#include "tovana/engines/hub/fetch_progress.h"
#include "tovana/engines/hub/hub_client.h"
#include "tovana/engines/hub/needed_files.h"
#include "tovana/engines/hub/partial_blob.h"
#include "tovana/engines/hub/report_fetch_progress.h"
#include "tovana/files/model_directory.h"

namespace tovana::hub {
namespace {

constexpr std::size_t kFetchesAtOnce = 4;
constexpr std::uint64_t kLargestFile = 50'000'000'000;
/// Of a file that holds no weights.
constexpr std::uint64_t kLargestSmallFile = 100'000'000;

constexpr Logger log("engines.hub");

/// The commit as its listing has it, with the files that have been fetched so far.
class ListedModel final : public AvailableFiles {
 public:
  ListedModel(const FileListing& listing, const CacheWriter& cache)
      : _listing(listing), _cache(cache) {}

  std::optional<std::string> fault(std::string_view name, Need need) const override {
    if (!files::is_contained_name(name)) {
      throw files::ModelFilesError("the model names the file " + files::in_quotes(name) +
                                   ", which is not inside it");
    }
    if (_places.contains(name)) return std::nullopt;
    if (need != Need::required && !is_listed(name)) {
      if (need == Need::settled) _absent.emplace(name);
      return std::nullopt;
    }
    return "is missing";
  }

  bool is_listed(std::string_view name) const override { return _listing.contains(name); }

  std::string shown(std::string_view name) const override {
    return "the model's file " + files::in_quotes(name);
  }

  std::optional<nlohmann::json> read_json(std::string_view name) const override {
    try {
      return AvailableFiles::read_json(name);
    } catch (const ValueError& error) {
      throw files::ModelFilesError(shown(name) + " cannot be used: " + error.what());
    }
  }

  /// The file is there: at `place`, which is relative to the repository's folder.
  void add(const std::string& name, std::string place) { _places.emplace(name, std::move(place)); }

  /// Files whose absence decides something.
  const std::set<std::string, std::less<>>& absent() const { return _absent; }

 private:
  files::ModelDirectory _model_directory() const override {
    return {_cache.folder(), trusted_folder(_cache.root(), _cache.folder())};
  }
  std::string _place(std::string_view name) const override { return _places.find(name)->second; }

  const FileListing& _listing;
  const CacheWriter& _cache;
  std::map<std::string, std::string, std::less<>> _places;
  mutable std::set<std::string, std::less<>> _absent;
};

/// Counts what the threads of a fetch have got, and passes it on.
class ProgressCount {
 public:
  explicit ProgressCount(const std::string& model) : _model(model) {}
  ~ProgressCount() { report_fetch_progress({.model = _model, .is_over = true}); }
  ProgressCount(const ProgressCount&) = delete;
  ProgressCount& operator=(const ProgressCount&) = delete;

  void expect(const WantedFile& file) {
    ++_files;
    _size += file.listed.size;
  }

  /// Says what `moment` says, and adds the model and the counts.
  void tell(FetchProgress moment) const {
    moment.model = _model;
    moment.files = _files;
    moment.files_done = _done;
    moment.bytes = _bytes;
    moment.size = _size;
    report_fetch_progress(moment);
  }

  /// A file has got on, or back, from `before` to `moment.file_bytes`.
  void moved(const FetchProgress& moment, std::uint64_t before) {
    _bytes += moment.file_bytes - before;  // modulo 2^64, also for a step back
    _done += moment.is_file_done ? 1 : 0;
    tell(moment);
  }

 private:
  const std::string& _model;
  std::atomic<std::size_t> _files = 0;
  std::atomic<std::size_t> _done = 0;
  std::atomic<std::uint64_t> _bytes = 0;
  std::atomic<std::uint64_t> _size = 0;
};

/// Does `work` with each item on a few threads, this one among them. The first error ends them all,
/// by way of `is_ended`, and is thrown.
template <class Item, class Work>
void for_each_at_once(const std::vector<Item>& items, std::atomic<bool>& is_ended, Work work) {
  std::atomic<std::size_t> next = 0;
  Mutex mutex;
  std::exception_ptr first_error;
  const auto run = [&]() noexcept {
    try {
      for (std::size_t i = next++; i < items.size() && !is_ended; i = next++) work(items[i]);
    } catch (...) {
      const LockGuard lock(mutex);
      if (first_error == nullptr) first_error = std::current_exception();
      is_ended = true;
    }
  };
  std::vector<std::thread> threads;
  try {
    while (threads.size() + 1 < std::min(kFetchesAtOnce, items.size())) threads.emplace_back(run);
  } catch (const std::system_error&) {  // no more threads to be had: those there are will do
  }
  run();
  for (std::thread& thread : threads) thread.join();
  if (first_error != nullptr) std::rethrow_exception(first_error);
}

class Fetch {
 public:
  Fetch(const ModelName& name, const CacheSettings& settings, const FetchOptions& options)
      : _name(name),
        _settings(settings),
        _options(options),
        _should_stop(
            [this] { return _is_ended || (_options.should_stop && _options.should_stop()); }),
        _progress(name.repo_id),
        _client(options.hub, name.repo_id,
                options.transport != nullptr ? *options.transport : http::default_transport(),
                *options.clock, _should_stop,
                [this](const FetchProgress& moment) { _progress.tell(moment); }),
        _cache(settings, name.repo_id) {}

  CachedModel run() {
    try {
      return _fetched();
    } catch (const ModelFetchError& error) {
      throw ModelFetchError(error.cause(), _client.masked(error.what()));
    } catch (const files::ModelFilesError& error) {
      throw files::ModelFilesError(_client.masked(error.what()));
    }
  }

 private:
  CachedModel _fetched() {
    const std::string& revision = _name.revision;
    if (!files::is_contained_name(revision)) {
      throw ValueError("no revision: " + files::in_quotes(revision));
    }
    _commit = is_commit(revision) ? revision : _client.commit_of(revision);
    _listing = _client.files_of(_commit);
    ListedModel model(_listing, _cache);
    NeededFiles needed = needed_files(model);
    for (; !needed.missing.empty(); needed = needed_files(model)) {
      std::vector<WantedFile> wanted;
      wanted.reserve(needed.missing.size());
      for (const MissingFile& missing : needed.missing) wanted.push_back(_listed(missing));
      _fetch(std::move(wanted), model);
    }
    check_contents(model, needed.present);
    _store(model);
    _cache.remove_abandoned();
    log.info("Fetched the model %s, commit %s", _name.repo_id, _commit);
    return find_cached_model(_name, _settings);
  }

  WantedFile _listed(const MissingFile& missing) const {
    const std::string file = escape_control_characters(repair_utf8(missing.name));
    const auto found = _listing.find(missing.name);
    if (found == _listing.end() || found->second.size == 0) {
      throw ModelFetchError(
          ModelFetchError::Cause::not_a_model,
          "the repository " + _name.repo_id + " is no model that can be used: " +
              (found == _listing.end() ? "it has no " + file : "its " + file + " is empty") +
              "; a sentence-transformers model with safetensors weights is needed");
    }
    const bool has_weights = missing.name.ends_with(".safetensors");
    const std::uint64_t largest = has_weights ? kLargestFile : kLargestSmallFile;
    if (found->second.size > largest) {
      constexpr unsigned kMegabyte = 1'000'000;
      throw ModelFetchError(ModelFetchError::Cause::not_a_model,
                            "the model " + _name.repo_id + " is too large: its " + file + " has " +
                                std::to_string(found->second.size / kMegabyte) +
                                " MB, and no more than " + std::to_string(largest / kMegabyte) +
                                " MB of such a file are fetched");
    }
    return {.name = missing.name, .listed = found->second};
  }

  void _fetch(std::vector<WantedFile> wanted, ListedModel& model) {
    _cache.prepare(_commit);
    std::vector<WantedFile> absent;
    std::set<std::string> ids;
    for (WantedFile& file : wanted) {
      _progress.tell({.is_checking = true});
      const std::string in_snapshot = "snapshots/" + _commit + "/" + file.name;
      if (holds_content(_cache.folder() / in_snapshot, file.listed)) {
        model.add(file.name, in_snapshot);
        continue;
      }
      model.add(file.name, "blobs/" + file.listed.id);
      if (!ids.contains(file.listed.id) &&
          !holds_content(_cache.blob(file.listed.id), file.listed)) {
        _progress.expect(file);
        ids.insert(file.listed.id);
        absent.push_back(file);
      }
      _to_place.push_back(std::move(file));
    }
    _check_room(absent);
    // The large ones first: they take longest, and the small ones fit in beside them.
    std::ranges::sort(absent, std::greater<>(),
                      [](const WantedFile& file) { return file.listed.size; });
    for_each_at_once(absent, _is_ended, [this](const WantedFile& file) { _fetch_one(file); });
  }

  /// What is left of contents that this commit has not is removed first, so that its room counts.
  void _check_room(const std::vector<WantedFile>& absent) const {
    std::set<std::string> of_commit;
    for (const auto& [name, listed] : _listing) of_commit.insert(listed.id);
    const std::map<std::string, std::uint64_t> in_place = _cache.remove_abandoned(of_commit);
    std::uint64_t size = 0;
    for (const WantedFile& file : absent) {
      const auto found = in_place.find(file.listed.id);
      const std::uint64_t there = found != in_place.end() ? found->second : 0;
      size += file.listed.size - std::min(file.listed.size, there);
    }
    _cache.check_room(size);
  }

  void _fetch_one(const WantedFile& file) {
    std::uint64_t last = 0;
    const std::string shown = _client.masked(file.name);
    const auto tell = [&](std::uint64_t bytes, bool is_done) {
      _progress.moved({.file = shown,
                       .file_bytes = bytes,
                       .file_size = file.listed.size,
                       .is_file_done = is_done},
                      std::exchange(last, bytes));
    };
    fetch_blob({.client = _client,
                .cache = _cache,
                .clock = *_options.clock,
                .should_stop = _should_stop,
                .commit = _commit,
                .on_progress = [&](std::uint64_t bytes) { tell(bytes, false); },
                .on_wait = [&] { _tell_of_wait(file); }},
               file);
    tell(file.listed.size, true);
  }

  void _tell_of_wait(const WantedFile& file) const {
    log.info("Waiting for another process that fetches %s of the model %s",
             _client.masked(files::in_quotes(file.name)), _name.repo_id);
    const std::string shown = _client.masked(file.name);
    _progress.tell({.file = shown, .file_size = file.listed.size, .is_waiting = true});
  }

  void _store(const ListedModel& model) const {
    _cache.sync_blobs();
    for (auto file = _to_place.begin(); file != _to_place.end(); ++file) {
      const bool is_wanted_again =
          std::any_of(file + 1, _to_place.end(),
                      [&](const WantedFile& other) { return other.listed.id == file->listed.id; });
      _cache.place(_commit, file->name, file->listed.id, is_wanted_again);
    }
    for (const std::string& name : model.absent()) _cache.mark_absent(_commit, name);
    _cache.sync(_commit);
    if (!is_commit(_name.revision)) _cache.set_reference(_name.revision, _commit);
  }

  const ModelName& _name;
  const CacheSettings& _settings;
  const FetchOptions& _options;
  std::atomic<bool> _is_ended = false;  ///< One of the threads has failed.
  const http::StopTest _should_stop;
  ProgressCount _progress;  ///< Told by the client.
  HubClient _client;
  const CacheWriter _cache;
  std::string _commit;
  FileListing _listing;
  std::vector<WantedFile> _to_place;  ///< Files whose blobs are there or being fetched.
};

}  // namespace

CachedModel fetch_model(const ModelName& name, const CacheSettings& cache,
                        const FetchOptions& options) {
  return Fetch(name, cache, options).run();
}

CachedModel find_or_fetch_model(const ModelName& name, const CacheSettings& cache,
                                const FindOptions& options) {
  const bool may_fetch = !name.directory && !options.local_files_only && !cache.is_offline();
  try {
    CachedModel model = find_cached_model(name, cache);
    if (options.on_damage) {
      const ProgressCount progress(name.text);
      progress.tell({.is_checking = true});
      check_model(model);
      if (!name.directory) CacheWriter(cache, name.repo_id).remove_abandoned();
    }
    return model;
  } catch (const ModelNotCachedError&) {
    if (!may_fetch) throw;
  } catch (const files::ModelFilesError& error) {
    if (!may_fetch || !options.on_damage) throw;
    options.on_damage(error.what());
  }
  return fetch_model(name, cache, {.hub = hub_settings(), .should_stop = options.should_stop});
}

}  // namespace tovana::hub
