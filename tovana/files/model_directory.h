#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

#include "tovana/files/file_handle.h"
#include "tovana/files/model_files_error.h"

/// The files of a model, which are taken to be hostile: they come from whoever published the model,
/// and names inside them ask for other files.
namespace tovana::files {

/// Whether `name` is a relative path that stays below where it is resolved, before links are looked
/// at: not empty, no "..", not absolute, no drive letter or backslash, no NUL, not overlong.
bool is_contained_name(std::string_view name) noexcept;

/// A text from a model's file as it may stand in a message: in double quotes, on one line, control
/// characters and whatever is not ASCII as JSON escapes, and cut to a readable length.
std::string in_quotes(std::string_view text);

/// The same for a JSON text, as it is but for what is escaped or cut.
std::string shown_json(std::string_view json);

/// A whole JSON text. Throws ValueError saying what is wrong: not JSON to the letter (a byte-order
/// mark, a NUL and anything behind the value included), or nested more than 64 deep. Numbers that
/// are too large for their type are as `with_numbers_in_range` has them.
nlohmann::json parse_json(std::string_view text);

/// A model's folder, and the only way to its files. A name is relative to the folder (see
/// `is_contained_name`), and where it leads to, links followed, has to lie below the folder or, for
/// a snapshot in a hub cache, below the cache's root: a snapshot consists of links to
/// ../../blobs/NAME, which may in turn be links into a store that several models share.
///
/// Every operation tells a file that is absent from one that is there but cannot serve: the first
/// is `nullopt`, the second an error that names file and fault. ModelFilesError: the name, the
/// file's content or its place is at fault (a link to nowhere included); RuntimeError: the system
/// would not let us read it.
///
/// Whoever may write into the folder may also exchange a file between two calls: what is checked is
/// the file that is then read, not that two of them belong together.
///
/// Threads: immutable; any number may use one. Reading blocks on the disk.
class ModelDirectory {
 public:
  /// Configuration files are a few kilobytes; this leaves room for the oddest of them.
  static constexpr std::size_t kLargestConfig = std::size_t{4} << 20U;
  /// Vocabularies, listings and indices may be tens of megabytes. Larger ones are not read.
  static constexpr std::size_t kLargestJson = std::size_t{64} << 20U;
  /// Larger files are not a model's.
  static constexpr std::uint64_t kLargestFile = std::uint64_t{64} << 30U;

  /// A folder whose files all lie in it. Throws ModelFilesError when there is no such folder.
  explicit ModelDirectory(const std::filesystem::path& root);

  /// A snapshot in the hub cache `cache_root`, which has to contain it. When both are the same
  /// folder, this is the other constructor.
  ModelDirectory(const std::filesystem::path& root, const std::filesystem::path& cache_root);

  /// The folder of one of the model's modules, "1_Pooling"; "" is this one. It need not exist: then
  /// every file in it is absent. Throws ModelFilesError for a name that is not contained.
  ModelDirectory subdirectory(std::string_view name) const;

  /// The folder, absolute. For messages; files are opened through the operations below.
  const std::filesystem::path& path() const noexcept { return _path; }

  /// The path of a file in it, as a message names it.
  std::string path_of(std::string_view name) const;

  /// Whether the files are blobs of a hub cache: written once under a name made from their content,
  /// replaced by renaming, never changed in place. Only such a file may be mapped into memory.
  bool is_snapshot() const noexcept { return _is_snapshot; }

  /// Opens a file for reading. It is a regular file of at most `largest` bytes.
  std::optional<FileHandle> open(std::string_view name, std::uint64_t largest) const;

  /// The whole content of a file of at most `largest` bytes.
  std::optional<std::string> read(std::string_view name, std::size_t largest) const;

  /// A file of at most `largest` bytes as JSON, as `parse_json` reads it.
  std::optional<nlohmann::json> read_json(std::string_view name,
                                          std::size_t largest = kLargestConfig) const;

 private:
  ModelDirectory(std::filesystem::path path, std::filesystem::path allowed_root, bool is_snapshot);

  std::filesystem::path _path;
  std::filesystem::path _allowed_root;
  bool _is_snapshot;
};

}  // namespace tovana::files
