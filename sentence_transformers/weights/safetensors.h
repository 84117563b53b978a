#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "sentence_transformers/weights/tensor.h"
#include "tovana/files/file_handle.h"
#include "tovana/files/file_mapping.h"

/// Tensors in the safetensors format: a length (64 bits, little-endian), a JSON header of that
/// length that says where each tensor lies, and the tensors' bytes.
namespace tovana::sentence_transformers {

/// How a file's tensors get into memory. `map` is for files that nobody changes in place
/// (`files::FileMapping`): they are used where they lie. `read` copies those that are asked for.
enum class FileAccess { read, map };

/// The bytes that a file of `file_size` bytes has before its first tensor, told by its first 8, or by
/// all when it has less. Throws ValueError when it cannot have so many.
std::size_t safetensors_head_size(std::span<const std::byte> first_bytes, std::uint64_t file_size);

/// The tensors of a file of `file_size` bytes that begins with `head`, of which there are at least
/// `safetensors_head_size`. The header has to account for every byte of data exactly once; a name
/// that comes twice keeps its last tensor. Throws ValueError with the fault for anything else; every
/// tensor it returns lies inside the file.
TensorMap parse_safetensors(std::span<const std::byte> head, std::uint64_t file_size);

/// A safetensors file, open while its tensors are read.
///
/// Threads: immutable once opened; any number may read. Reading blocks on the disk.
class SafetensorsFile {
 public:
  /// Reads the header, and of a file that is not mapped nothing else. Throws ModelFilesError, naming
  /// file and fault, for a file that is not a valid safetensors file, and RuntimeError when it cannot
  /// be read or has changed meanwhile.
  SafetensorsFile(files::FileHandle file, FileAccess access);

  const std::string& path() const noexcept { return _file.path(); }
  const TensorMap& tensors() const noexcept { return _tensors; }

  /// The floats of one of its F32 tensors where they lie, for as long as `mapping()` lives; none
  /// when the file is not mapped, or did not align them.
  std::optional<std::span<const float>> in_place(const TensorEntry& tensor) const noexcept;

  /// Null for a file that is not mapped.
  const std::shared_ptr<const files::FileMapping>& mapping() const noexcept { return _mapping; }

  /// Converts a tensor's elements from `first` on into `out`, as `copy_float32` does. Throws
  /// RuntimeError when the file cannot be read.
  void read_float32(const TensorEntry& tensor, std::size_t first, std::span<float> out) const;

  /// Gives back the memory of `count` elements of a mapped tensor, from `first` on, which nobody is
  /// to look at again.
  void discard(const TensorEntry& tensor, std::size_t first, std::size_t count) const noexcept;

  /// Throws RuntimeError if the file has changed since it was opened.
  void check_unchanged() const { _file.check_unchanged(); }

 private:
  files::FileHandle _file;
  std::shared_ptr<const files::FileMapping> _mapping;
  TensorMap _tensors;
};

}  // namespace tovana::sentence_transformers
