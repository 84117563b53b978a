#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

/// Where things lie in the hub's cache:
///
///     ROOT/models--ORGANISATION--NAME/
///       refs/REVISION           a text file with the commit that the revision stood for
///       blobs/ID                contents, named after their hash
///       snapshots/COMMIT/NAME   links to ../../blobs/ID
///       .no_exist/COMMIT/NAME   empty: the repository has no such file
///       trees/COMMIT.json       a listing of the whole commit; not written here
///     ROOT/.locks/models--ORGANISATION--NAME/ID.lock
///
/// Other programs read and write the same folders.
namespace tovana::hub {

/// What the folders of repositories begin with.
inline constexpr std::string_view kRepositoryPrefix = "models--";

/// A text in refs/ is not longer.
inline constexpr std::size_t kLargestReference = 4096;

/// "models--organisation--name" for "organisation/name".
std::string repository_folder_name(std::string_view repo_id);

/// The folder that the files of the model in `repository`, a folder directly in the cache `root`,
/// have to lie in, links followed: the cache; or where `repository` is a link to another place,
/// that place. Such a link is trusted, and so followed wherever it leads, because only the cache's
/// owner makes one: what a repository brings along, and what its files name, comes to lie below its
/// own folder and never directly in the root. Links further down are anybody's and have to stay
/// inside. Both folders exist; throws std::filesystem::filesystem_error when they do not.
std::filesystem::path trusted_folder(const std::filesystem::path& root,
                                     const std::filesystem::path& repository);

/// Whether `path` is `folder` or below it; both are canonical.
bool lies_in(const std::filesystem::path& path, const std::filesystem::path& folder);

/// 40 hexadecimal digits in lower case.
bool is_commit(std::string_view text) noexcept;

/// The hash of a content: 40 such digits (git's, of a blob) or 64 (SHA-256).
bool is_content_id(std::string_view text) noexcept;

}  // namespace tovana::hub
