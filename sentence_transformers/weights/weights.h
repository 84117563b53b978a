#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "sentence_transformers/weights/safetensors.h"
#include "sentence_transformers/weights/tensor.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {

/// A tensor and the file that it lies in, which is kept open.
struct StoredTensor {
  const TensorEntry* entry;
  std::shared_ptr<const SafetensorsFile> file;
};

/// The weights of one module: all tensors of model.safetensors or, where that is absent, those that
/// model.safetensors.index.json finds in several files.
///
/// Threads: immutable once opened; any number may read.
class Weights {
 public:
  using Map = std::map<std::string, StoredTensor, std::less<>>;

  /// Opens those in a module's folder. The files of a snapshot are mapped, others are read. Throws
  /// ModelFilesError, naming file and fault: damaged weights, weights in no format that is read
  /// here (with how to convert them), or none at all. RuntimeError when the system would not let us
  /// read them.
  static Weights open(const files::ModelDirectory& directory);

  /// The path of the file that says what there is, for messages.
  const std::string& path() const noexcept { return _path; }

  const Map& tensors() const noexcept { return _tensors; }

  /// Throws RuntimeError if one of the files has changed since it was opened.
  void check_unchanged() const;

 private:
  Weights(std::string path, std::vector<std::shared_ptr<const SafetensorsFile>> files,
          Map tensors) noexcept;

  std::string _path;
  std::vector<std::shared_ptr<const SafetensorsFile>> _files;
  Map _tensors;
};

}  // namespace tovana::sentence_transformers
