#include "tovana/engines/hub/cached_model.h"

#include <cstdint>
#include <optional>
#include <string_view>
#include <system_error>

#include <nlohmann/json.hpp>

#include "tovana/base/text.h"
#include "tovana/engines/hub/cache_layout.h"
#include "tovana/engines/hub/needed_files.h"
#include "tovana/engines/hub/snapshot.h"
#include "tovana/files/model_directory.h"

namespace tovana::hub {
namespace {

namespace fs = std::filesystem;
using files::ModelDirectory;

bool is_existing_folder(const fs::path& path) {
  std::error_code error;
  return fs::is_directory(path, error);
}

/// A folder that is itself a snapshot in some cache holds links into that cache; any other folder
/// holds its files itself.
CachedModel model_in_folder(const fs::path& path) {
  const std::string shown = "model '" + escape_control_characters(path.string()) + "': ";
  std::error_code error;
  const fs::path folder = fs::canonical(path, error);
  if (error) throw files::ModelFilesError(shown + "no such folder: " + error.message());
  if (!is_existing_folder(folder)) {
    throw files::ModelFilesError(shown + "is a file: give the folder that holds the model");
  }
  CachedModel model{.directory = folder, .allowed_root = folder, .repo_id = {}, .commit = {}};
  const fs::path snapshots = folder.parent_path();
  const fs::path repository = snapshots.parent_path();
  if (is_commit(folder.filename().string()) && snapshots.filename() == "snapshots" &&
      repository.filename().string().starts_with(kRepositoryPrefix)) {
    model.allowed_root = repository.parent_path();
    model.commit = folder.filename().string();
  }
  return model;
}

/// The files of a folder of somebody's own: what is not there is not part of the model.
class FolderFiles final : public AvailableFiles {
 public:
  explicit FolderFiles(const CachedModel& model) : _directory(model.directory) {}

  std::optional<std::string> fault(std::string_view name, Need need) const override {
    const auto file = open(name);
    if (file && file->size() == 0) return "is empty";
    return file || need != Need::required ? std::nullopt : std::optional("is missing");
  }
  bool is_listed(std::string_view name) const override { return open(name).has_value(); }

 private:
  ModelDirectory _model_directory() const override { return _directory; }

  ModelDirectory _directory;
};

/// The search for one repository in one cache.
class Search {
 public:
  Search(const ModelName& name, const CacheSettings& settings)
      : _name(name),
        _settings(settings),
        _repo_folder(settings.root / repository_folder_name(name.repo_id)) {}

  CachedModel run() const {
    if (!is_existing_folder(_settings.root)) _give_up("there is no such folder");
    if (!is_existing_folder(_repo_folder)) {
      _give_up("it has no folder " + _repo_folder.filename().string());
    }
    const fs::path allowed_root = trusted_folder(_settings.root, _repo_folder);
    _check_blobs(allowed_root);
    const Snapshot snapshot(allowed_root, _repo_folder, _commit(allowed_root));
    const fs::path directory = snapshot.directory();
    const std::string below = fs::path("snapshots") / directory.filename();
    if (!is_existing_folder(directory)) {
      _give_up(_repo_folder.filename().string() + " has no " + below);
    }
    for (const MissingFile& missing : needed_files(snapshot).missing) {
      _give_up(below + "/" + escape_control_characters(missing.name) + " " + missing.fault);
    }
    return {.directory = fs::canonical(directory),
            .allowed_root = allowed_root,
            .repo_id = _name.repo_id,
            .commit = directory.filename().string()};
  }

 private:
  [[noreturn]] void _give_up(const std::string& reason) const {
    std::string named = "'" + escape_control_characters(_name.text) + "'";
    if (_name.repo_id != _name.text) named += " (" + _name.repo_id + ")";
    throw ModelNotCachedError(
        "model " + named + " is not in the cache " + _settings.root.string() + ": " + reason +
        (_settings.is_offline()
             ? "; " + _settings.offline_variable + " forbids fetching it: copy it there"
             : "; fetch it") +
        ", or set HF_HUB_CACHE to the cache that holds it");
  }

  /// Every file would be refused by itself, with no advice.
  void _check_blobs(const fs::path& allowed_root) const {
    std::error_code error;
    const fs::path blobs = fs::canonical(_repo_folder / "blobs", error);
    if (error || lies_in(blobs, allowed_root)) return;
    throw files::ModelFilesError(
        (_repo_folder / "blobs").string() + ": leads to " + blobs.string() +
        ", outside of the cache; to keep a model elsewhere, move its whole folder there and put a "
        "link in its place");
  }

  /// The commit that the revision stands for. It becomes part of a path, so it has to be one to the
  /// letter.
  std::string _commit(const fs::path& allowed_root) const {
    if (is_commit(_name.revision)) return _name.revision;
    const std::string reference = "refs/" + _name.revision;
    const std::optional<std::string> content =
        ModelDirectory(_repo_folder, allowed_root).read(reference, kLargestReference);
    if (!content) _give_up(escape_control_characters(reference) + " is missing");
    const std::string_view commit = trimmed(*content);
    if (!is_commit(commit)) _give_up(escape_control_characters(reference) + " holds no commit");
    return std::string(commit);
  }

  const ModelName& _name;
  const CacheSettings& _settings;
  fs::path _repo_folder;
};

}  // namespace

CachedModel find_cached_model(const ModelName& name, const CacheSettings& settings) {
  if (name.directory) return model_in_folder(*name.directory);
  return Search(name, settings).run();
}

void check_model(const CachedModel& model) {
  const auto present_files = [](const AvailableFiles& files) {
    NeededFiles needed = needed_files(files);
    for (const MissingFile& missing : needed.missing) {
      throw files::ModelFilesError(files.shown(missing.name) + ": " + missing.fault);
    }
    return needed.present;
  };
  if (model.commit.empty()) {
    const FolderFiles files(model);
    return check_contents(files, present_files(files));
  }
  const Snapshot snapshot(model.allowed_root, model.directory.parent_path().parent_path(),
                          model.commit);
  const std::vector<std::string> present = present_files(snapshot);
  snapshot.check_hashes(present);
  check_contents(snapshot, present);
}

}  // namespace tovana::hub
