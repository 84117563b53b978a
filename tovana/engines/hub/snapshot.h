#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "tovana/engines/hub/model_files.h"

namespace tovana::hub {

/// One commit of a repository as the cache holds it (cache_layout.h).
class Snapshot final : public ModelFiles {
 public:
  /// `repo_folder` is the repository's folder in the cache `cache_root`; `commit` has been checked
  /// to be one. An unreadable listing is as good as none.
  Snapshot(std::filesystem::path cache_root, std::filesystem::path repo_folder, std::string commit);

  std::filesystem::path directory() const { return _repo_folder / "snapshots" / _commit; }

  std::optional<std::string> fault(std::string_view name, Need need) const override;
  bool is_listed(std::string_view name) const override;
  std::optional<nlohmann::json> read_json(std::string_view name) const override;

 private:
  std::optional<std::string> _fault_of_content(std::string_view name) const;
  bool _is_known_absent(std::string_view name) const;

  std::filesystem::path _cache_root;
  std::filesystem::path _repo_folder;
  std::string _commit;
  /// The length of each file of the commit; none without a listing.
  using Listing = std::map<std::string, std::uint64_t, std::less<>>;
  std::optional<Listing> _listing;
};

}  // namespace tovana::hub
