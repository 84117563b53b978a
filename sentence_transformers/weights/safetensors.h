#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "sentence_transformers/weights/tensor.h"
#include "tovana/files/file_handle.h"
#include "tovana/files/file_memory.h"

/// Tensors in the safetensors format: a length (64 bits, little-endian), a JSON header of that
/// length that says where each tensor lies, and the tensors' bytes.
namespace tovana::sentence_transformers {

/// The tensors of a whole file that lies in memory, as views into it. The header has to account for
/// every byte of data exactly once; a name that comes twice keeps its last tensor. Throws
/// ValueError with the fault for anything else; no content makes it read outside of `file`.
TensorMap parse_safetensors(std::span<const std::byte> file);

/// A safetensors file and the memory its tensors lie in. Move only, and moving leaves the views
/// valid.
///
/// Threads: immutable once opened; any number may read.
class SafetensorsFile {
 public:
  /// Throws ModelFilesError, naming file and fault, for a file that is not a valid safetensors
  /// file, and RuntimeError when it cannot be read or changes meanwhile.
  static SafetensorsFile open(const files::FileHandle& file, files::FileAccess access);

  const TensorMap& tensors() const noexcept { return _tensors; }
  const TensorView* find(std::string_view name) const noexcept;

  /// Gives back the memory of one of its tensors, which is not to be looked at again. Nothing for a
  /// tensor of another file.
  void discard(const TensorView& tensor) const noexcept;

 private:
  SafetensorsFile(files::FileMemory memory, TensorMap tensors) noexcept;

  files::FileMemory _memory;
  TensorMap _tensors;
};

}  // namespace tovana::sentence_transformers
