#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "sentence_transformers/compute/matrix.h"
#include "sentence_transformers/weights/weights.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {

/// The numbers of a shape, as a message shows them.
std::string shape_text(std::span<const std::int64_t> shape);

/// A part of something that is counted.
struct Range {
  std::size_t first;
  std::size_t count;
};

/// A matrix of which few rows are read.
struct Table {
  Matrix matrix;
  std::shared_ptr<const void> memory;  ///< What the matrix lies in, if that is not its own.
};

/// A module's weights under the names that today's models give them, as float32. Its files stay open
/// for as long as it lives; nothing that it returns needs it.
///
/// A tensor of one extent is a matrix of one row. What reads numbers throws ModelFilesError, naming
/// tensor and file, for a tensor that is not there or of no floating-point type that is supported,
/// and RuntimeError when the file cannot be read.
///
/// Threads: immutable; any number may read. Reading blocks on the disk.
class Checkpoint {
 public:
  /// The tensors in a module's folder. `prefixes` are what some checkpoints put before every name
  /// ("bert."); they may be missing. Old names of a layer norm's tensors (gamma, beta) are known by
  /// the new ones. Throws as `Weights::open` does, and ModelFilesError for two tensors that are the
  /// same one by that.
  explicit Checkpoint(const files::ModelDirectory& directory,
                      std::span<const std::string_view> prefixes = {});

  bool contains(std::string_view name) const { return _tensors.contains(name); }

  /// Null when there is no such tensor.
  const std::vector<std::int64_t>* shape(std::string_view name) const;

  /// Throws ModelFilesError, naming tensor and file, unless there is a tensor of this shape that
  /// `tensor` can read.
  void expect(const std::string& name, std::initializer_list<std::int64_t> shape) const;

  /// A tensor's numbers. Throws ModelFilesError for one that is not finite.
  Matrix tensor(const std::string& name) const;

  /// `count` rows, from the one with the index `first` among those asked for on.
  using RowsBody = std::function<void(std::size_t first, std::size_t count, const float* rows)>;

  /// Goes over some rows of a tensor once, in their order, a few at a time; never has more of them
  /// in memory, and none afterwards. Throws what `tensor` does, and what `body` does.
  void for_rows(const std::string& name, Range rows, const RowsBody& body) const;
  /// The same of all its rows.
  void for_rows(const std::string& name, const RowsBody& body) const;

  /// A tensor of which few rows will be read. In a mapped file it is used where it lies, and its
  /// numbers are not looked at, for that would bring all of it into memory; otherwise it is copied,
  /// on that many threads, and throws what `tensor` does.
  Table table(const std::string& name, std::size_t threads) const;

  /// Throws RuntimeError if a file has changed since it was opened: to be asked when all is read.
  void check_unchanged() const { _weights.check_unchanged(); }

  /// Fails with "file: fault".
  [[noreturn]] void refuse(const std::string& fault) const;

 private:
  const StoredTensor& _find(const std::string& name) const;
  [[noreturn]] void _refuse_not_finite(const std::string& name) const;

  Weights _weights;
  std::map<std::string, const StoredTensor*, std::less<>> _tensors;
};

}  // namespace tovana::sentence_transformers
