#include "tovana/engines/hub/snapshot.h"

#include <system_error>
#include <utility>

#include <nlohmann/json.hpp>

#include "tovana/engines/hub/cache_layout.h"
#include "tovana/engines/hub/partial_blob.h"
#include "tovana/exceptions/exceptions.h"
#include "tovana/files/model_directory.h"

namespace tovana::hub {
namespace {

namespace fs = std::filesystem;
using files::ModelDirectory;

using ListedSizes = std::map<std::string, std::uint64_t, std::less<>>;

/// A listing is {"format_version": 1, "files": {NAME: {"size": …}}}; where the repository holds a
/// pointer in place of a large file, "lfs_size" is the file's own.
std::optional<ListedSizes> read_listing(const ModelDirectory& repository, const std::string& name) {
  try {
    const std::optional<nlohmann::json> tree =
        repository.read_json(name, ModelDirectory::kLargestJson);
    if (!tree || tree->at("format_version") != 1) return std::nullopt;
    ListedSizes listing;
    for (const auto& [file, entry] : tree->at("files").items()) {
      const auto lfs_size = entry.find("lfs_size");
      const nlohmann::json& size =
          lfs_size != entry.end() && lfs_size->is_number() ? *lfs_size : entry.at("size");
      listing.emplace(file, size.get<std::uint64_t>());
    }
    return listing;
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  } catch (const Error&) {
    return std::nullopt;
  }
}

}  // namespace

Snapshot::Snapshot(fs::path allowed_root, fs::path repo_folder, std::string commit)
    : _allowed_root(std::move(allowed_root)),
      _repo_folder(std::move(repo_folder)),
      _commit(std::move(commit)),
      _listed_sizes(read_listing(ModelDirectory(_repo_folder, _allowed_root),
                                 "trees/" + _commit + ".json")) {}

std::optional<std::string> Snapshot::fault(std::string_view name, Need need) const {
  if (!files::is_contained_name(name)) {
    throw files::ModelFilesError(directory().string() + ": the model names the file " +
                                 files::in_quotes(name) + ", which is not inside it");
  }
  const std::optional<Fault> fault = _fault_of_content(name);
  if (!fault) return std::nullopt;
  if (fault->is_absent && need != Need::required) {
    const bool may_be_absent = need == Need::settled ? _is_known_absent(name) : !is_listed(name);
    if (may_be_absent) return std::nullopt;
    if (need == Need::settled) {
      return fault->text + ", and nothing says that the repository has none";
    }
  }
  return fault->text;
}

std::optional<Snapshot::Fault> Snapshot::_fault_of_content(std::string_view name) const {
  const fs::path path = directory() / name;
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (status.type() == fs::file_type::not_found) {
    if (fs::is_symlink(fs::symlink_status(path, error)))
      return Fault{.text = "is a link to nowhere"};
    return Fault{.is_absent = true, .text = "is missing"};
  }
  if (error) return Fault{.text = "cannot be reached (" + error.message() + ")"};
  if (!fs::is_regular_file(status)) return Fault{.text = "is not a file"};
  const std::uintmax_t size = fs::file_size(path, error);
  if (error) return Fault{.text = "cannot be reached (" + error.message() + ")"};
  if (size == 0) return Fault{.text = "is empty"};
  if (!_listed_sizes) return std::nullopt;
  const auto listed = _listed_sizes->find(name);
  if (listed == _listed_sizes->end() || listed->second == size) return std::nullopt;
  return Fault{.text = "has " + std::to_string(size) + " bytes instead of " +
                       std::to_string(listed->second)};
}

bool Snapshot::_is_known_absent(std::string_view name) const {
  if (_listed_sizes) return !_listed_sizes->contains(name);
  std::error_code error;
  return fs::exists(_repo_folder / ".no_exist" / _commit / name, error);
}

bool Snapshot::is_listed(std::string_view name) const {
  return _listed_sizes && _listed_sizes->contains(name);
}

void Snapshot::check_hashes(const std::vector<std::string>& names) const {
  for (const std::string& name : names) {
    const fs::path path = directory() / name;
    std::error_code error;
    // The blob that the link names: that one may be a link in turn, to a store of other names.
    const std::string id = fs::read_symlink(path, error).filename().string();
    if (error || !is_content_id(id)) continue;
    if (holds_content(path, {.size = fs::file_size(path), .id = id})) continue;
    throw files::ModelFilesError(
        shown(name) + ": is damaged: its content is not the one that the hub had (blob " + id +
        ")");
  }
}

}  // namespace tovana::hub
