#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace tovana::hub {

/// How much has to be known of a file in a snapshot.
enum class Need {
  required,   ///< It is there.
  settled,    ///< It is there, or it is known that the repository has none.
  if_listed,  ///< It is there unless no listing names it.
};

/// One commit of a repository as the cache holds it:
///   snapshots/COMMIT/NAME   a link to the content, or the content itself
///   .no_exist/COMMIT/NAME   an empty file: the hub said that the repository has no such file
///   trees/COMMIT.json       the listing of the whole commit, if anybody asked for one
class Snapshot {
 public:
  /// `repo_folder` is the repository's folder in the cache `cache_root`; `commit` has been checked
  /// to be one. An unreadable listing is as good as none.
  Snapshot(std::filesystem::path cache_root, std::filesystem::path repo_folder, std::string commit);

  std::filesystem::path directory() const { return _repo_folder / "snapshots" / _commit; }

  /// What keeps the file `name` from being as much there as it is needed; none when it is. Throws
  /// ValueError for a name that leads out of the snapshot.
  std::optional<std::string> fault(std::string_view name, Need need) const;

  bool has(std::string_view name) const { return !fault(name, Need::required); }

  /// Throws ValueError, naming file and fault, when the file is there but is no JSON.
  std::optional<nlohmann::json> read_json(std::string_view name) const;

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
