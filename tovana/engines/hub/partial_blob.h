#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "tovana/engines/hub/durable_file.h"
#include "tovana/engines/hub/file_listing.h"

struct evp_md_ctx_st;

namespace tovana::hub {

/// The hash that names a content in the hub and in its cache, computed as the content passes by.
/// The name's length says which it is: 64 digits are SHA-256 of the content, 40 are SHA-1 of the
/// content as a git blob, whose header holds the size.
class ContentHash {
 public:
  /// For a content of `size` bytes that is named `id` (is_content_id). Throws RuntimeError when
  /// libcrypto has no such hash.
  ContentHash(std::string_view id, std::uint64_t size);

  void update(std::string_view bytes);

  /// The hash in hexadecimal digits. Nothing may be added afterwards.
  std::string finish();

 private:
  struct Free {
    void operator()(evp_md_ctx_st* context) const noexcept;
  };
  std::unique_ptr<evp_md_ctx_st, Free> _context;
};

/// A content on its way into the cache: a file blobs/ID.XXXXXXXX.incomplete that grows, and takes
/// the name blobs/ID once it is whole and its hash is right. The hash is that of the file's own
/// bytes, read back while they are still in memory. Memory does not depend on its size.
///
/// No two of them write to one file, whether a lock keeps them off each other or not. A leftover
/// that is abandoned is resumed in place, by the one who succeeds in renaming it, as there may
/// not be room for it twice; whoever finds before a write that its own file has lost its
/// name continues in a copy. Any other leftover is copied, as its writer may be alive.
///
/// One thread uses it. What it throws is CacheNotWritableError.
class PartialBlob {
 public:
  /// `blob` is the final path, `file` what the content has to be. Resumes the longest leftover
  /// of the same content (leftover.h), and removes what is abandoned.
  PartialBlob(std::filesystem::path blob, const ListedFile& file);
  /// Leaves what there is for the next fetch.
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

  /// Once it is whole: gives it its name, on the disk, and removes what others have of it, who will
  /// find the blob. False, having thrown the content away, when its hash is another.
  bool finish();

 private:
  bool _take_name();
  void _leave_if_taken_over();
  void _move_to_new_file();
  void _adopt_leftover();
  bool _take_over(const std::filesystem::path& leftover);
  void _copy(const std::filesystem::path& leftover);
  void _cut_to(std::uint64_t size);
  void _hash_written();

  const std::filesystem::path _blob;
  const ListedFile _file;
  NewFile _partial;
  ContentHash _hash;
  std::uint64_t _size = 0;
  std::uint64_t _hashed = 0;   ///< As far as the hash has come.
  std::uint64_t _flushed = 0;  ///< Bytes that the system was asked to begin writing.
  bool _is_finished = false;
};

/// Whether a file, which may be a link, holds what `file` says. Reads all of it, if its length is
/// right.
bool holds_content(const std::filesystem::path& path, const ListedFile& file);

}  // namespace tovana::hub
