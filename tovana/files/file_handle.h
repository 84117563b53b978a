#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>

#include <time.h>

namespace tovana::files {

/// A regular file, open for reading. Move only; closes itself. Errors are RuntimeErrors that name
/// the file.
class FileHandle {
 public:
  /// Takes over `descriptor`; `path` is for messages. Throws ModelFilesError when it is anything
  /// but a regular file.
  FileHandle(int descriptor, std::string path);
  FileHandle(FileHandle&& other) noexcept
      : _descriptor(std::exchange(other._descriptor, -1)),
        _path(std::move(other._path)),
        _size(other._size),
        _modified(other._modified) {}
  FileHandle& operator=(FileHandle&& other) noexcept;
  ~FileHandle();

  int descriptor() const noexcept { return _descriptor; }
  const std::string& path() const noexcept { return _path; }
  /// The length when it was opened.
  std::uint64_t size() const noexcept { return _size; }

  /// Fills `bytes` with what lies from `offset` on. Throws when the file ends before that.
  void read(std::uint64_t offset, std::span<std::byte> bytes) const;

  /// Fills `bytes`, as long as the file, with its content. Throws when the file has changed
  /// meanwhile.
  void read_all(std::span<std::byte> bytes) const;

  /// Throws unless the file has the length and the time of modification with which it was opened.
  void check_unchanged() const;

 private:
  FileHandle(std::string path, int descriptor) noexcept
      : _descriptor(descriptor), _path(std::move(path)) {}

  int _descriptor;
  std::string _path;
  std::uint64_t _size = 0;
  timespec _modified = {};
};

}  // namespace tovana::files
