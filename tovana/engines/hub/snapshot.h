#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tovana/engines/hub/needed_files.h"

namespace tovana::hub {

/// One commit of a repository as the cache holds it (cache_layout.h).
class Snapshot final : public AvailableFiles {
 public:
  /// `repo_folder` is the repository's folder in a cache, whose files have to lie in
  /// `allowed_root`, links followed (trusted_folder); `commit` has been checked to be one. An
  /// unreadable listing is as good as none.
  Snapshot(std::filesystem::path allowed_root, std::filesystem::path repo_folder,
           std::string commit);

  std::filesystem::path directory() const { return _repo_folder / "snapshots" / _commit; }

  std::optional<std::string> fault(std::string_view name, Need need) const override;
  bool is_listed(std::string_view name) const override;

  /// Throws ModelFilesError when one of the files, all of which are there, is not what the name of
  /// its blob says. Reads all of them. Of a file without a blob, in a cache without links, nothing
  /// is known.
  void check_hashes(const std::vector<std::string>& names) const;

 private:
  files::ModelDirectory _model_directory() const override { return {directory(), _allowed_root}; }
  struct Fault {
    bool is_absent = false;  ///< There is nothing of that name.
    std::string text;
  };
  std::optional<Fault> _fault_of_content(std::string_view name) const;
  bool _is_known_absent(std::string_view name) const;

  std::filesystem::path _allowed_root;
  std::filesystem::path _repo_folder;
  std::string _commit;
  /// The length of each file of the commit; none without a listing.
  std::optional<std::map<std::string, std::uint64_t, std::less<>>> _listed_sizes;
};

}  // namespace tovana::hub
