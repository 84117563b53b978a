#pragma once

#include <cstddef>
#include <span>
#include <utility>

#include "tovana/files/file_handle.h"

namespace tovana::files {

/// The content of a file, mapped into memory: it costs neither time nor memory for what is not
/// looked at, but when somebody cuts the file short, the next look ends the process with SIGBUS. So
/// it is for files that nobody changes in place. Move only; moving leaves the bytes where they are.
class FileMapping {
 public:
  /// Throws RuntimeError, naming the file, when it cannot be mapped, or when it is no longer the one
  /// that was opened.
  explicit FileMapping(const FileHandle& file);
  FileMapping(FileMapping&& other) noexcept : _bytes(std::exchange(other._bytes, {})) {}
  FileMapping& operator=(FileMapping&& other) noexcept;
  ~FileMapping();

  std::span<const std::byte> bytes() const noexcept { return _bytes; }

  /// Gives the system back what it can of the memory of `part`, which is not to be looked at again.
  void discard(std::span<const std::byte> part) const noexcept;

 private:
  explicit FileMapping(std::span<std::byte> bytes) noexcept : _bytes(bytes) {}

  std::span<std::byte> _bytes;
};

}  // namespace tovana::files
