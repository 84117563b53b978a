#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

/// What a hub says a commit consists of. It is taken to be hostile.
namespace tovana::hub {

struct ListedFile {
  std::uint64_t size = 0;
  /// The hash of its content (is_content_id), and so the name of its blob.
  std::string id;
};

/// The files by their names, all of which stay inside the repository (is_contained_name).
using FileListing = std::map<std::string, ListedFile, std::less<>>;

/// Adds one page of a hub's listing to `listing`:
/// [{"type": "file", "path": …, "size": …, "oid": …, "lfs": {"oid": …, "size": …}}, …]. Entries
/// that are no files are passed over, and so are files whose names lead out of the repository,
/// which nobody asks for. Throws ValueError, saying what is wrong, for anything else that is not as
/// above: a file that is there must not be taken for absent.
void add_listing_page(std::string_view page, FileListing& listing);

}  // namespace tovana::hub
