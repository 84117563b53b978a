#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <string>

#include "tovana/engines/hub/hub_settings.h"

namespace tovana::hub {

/// Writes one repository's folder in the cache (cache_layout.h), in steps that leave it in order
/// whenever the process ends: contents come before the links to them, and the reference to a commit
/// last. Others may write the same things at the same time.
///
/// Operations throw CacheNotWritableError.
class CacheWriter {
 public:
  CacheWriter(const CacheSettings& settings, const std::string& repo_id);

  const std::filesystem::path& root() const noexcept { return _root; }
  const std::filesystem::path& folder() const noexcept { return _folder; }
  std::filesystem::path blob(const std::string& id) const { return _folder / "blobs" / id; }
  std::filesystem::path lock_file(const std::string& id) const;
  std::filesystem::path snapshot(const std::string& commit) const {
    return _folder / "snapshots" / commit;
  }

  /// Makes the folders for contents, having looked at what is there of them and of the commit's: of
  /// a folder that leads somewhere else, nothing is written.
  void prepare(const std::string& commit) const;

  /// Throws when the disk has not got room for `bytes` more.
  void check_room(std::uint64_t bytes) const;

  /// Waits until the names of the blobs are on the disk.
  void sync_blobs() const;

  /// Makes the blob `id` the file `name` of a commit: by a link; where there can be none by moving
  /// the blob, or by copying it when it `is_wanted_again`.
  void place(const std::string& commit, const std::string& name, const std::string& id,
             bool is_wanted_again) const;

  /// Notes that a commit has no such file.
  void mark_absent(const std::string& commit, const std::string& name) const;

  /// Waits until what was placed is on the disk.
  void sync(const std::string& commit) const;

  /// Notes what commit a revision stands for.
  void set_reference(const std::string& revision, const std::string& commit) const;

  /// Removes what fetches left behind (leftover.h), but for the longest leftover of each content
  /// that is `wanted`: the sizes of those, which are resumed in place, by id. Fails silently.
  std::map<std::string, std::uint64_t> remove_abandoned(
      const std::set<std::string>& wanted = {}) const noexcept;

 private:
  std::filesystem::path _root;
  std::filesystem::path _folder;
  bool _has_links;
};

}  // namespace tovana::hub
