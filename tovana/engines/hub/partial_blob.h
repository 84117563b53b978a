#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "tovana/engines/hub/content_hash.h"
#include "tovana/engines/hub/durable_file.h"
#include "tovana/engines/hub/file_listing.h"

namespace tovana::hub {

/// A content on its way into the cache: a file blobs/ID.XXXXXXXX.incomplete that grows, hashed as
/// it does, and takes the name blobs/ID once it is whole and its hash is right. Memory does not
/// depend on its size.
///
/// One thread uses it. What it throws is CacheNotWritableError.
class PartialBlob {
 public:
  /// `blob` is the final path, `file` what the content has to be. Under the blob's lock
  /// (`is_alone`) the largest file that an earlier fetch left behind is gone on with, and the
  /// others are removed; without it nothing is known of who else may be writing to them.
  PartialBlob(std::filesystem::path blob, const ListedFile& file, bool is_alone);
  /// Leaves what there is for the next fetch, if that will be able to go on with it.
  ~PartialBlob();
  PartialBlob(const PartialBlob&) = delete;
  PartialBlob& operator=(const PartialBlob&) = delete;

  std::uint64_t size() const noexcept { return _size; }
  bool is_whole() const noexcept { return _size == _file.size; }
  std::uint64_t missing() const noexcept { return _file.size - _size; }

  /// At most `missing()` bytes.
  void append(std::string_view bytes);

  /// Throws away what there is.
  void restart();

  /// Once it is whole: gives it its name, on the disk. False, having thrown the content away, when
  /// its hash is another.
  bool finish();

 private:
  void _cut_to(std::uint64_t size);

  const std::filesystem::path _blob;
  const ListedFile _file;
  const bool _is_kept;  ///< What is unfinished can be found and gone on with.
  NewFile _partial;
  ContentHash _hash;
  std::uint64_t _size = 0;
  std::uint64_t _flushed = 0;  ///< Bytes that the system was asked to begin writing.
  bool _is_finished = false;
};

/// How much an earlier fetch has left behind of a blob.
std::uint64_t unfinished_bytes(const std::filesystem::path& blob);

/// Whether a file, which may be a link, holds what `file` says. Reads all of it, if its length is
/// right.
bool holds_content(const std::filesystem::path& path, const ListedFile& file);

}  // namespace tovana::hub
