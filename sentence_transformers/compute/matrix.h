#pragma once

#include <cstddef>
#include <span>

#include "sentence_transformers/compute/float_block.h"

namespace tovana::sentence_transformers {

/// Rows of floats, one behind the other, in memory of its own or in somebody else's. A vector is a
/// matrix of one row. Move only; one that was moved from may be assigned to and destroyed.
class Matrix {
 public:
  Matrix() = default;

  /// In memory of its own, which is not set to anything. Throws std::bad_alloc.
  Matrix(std::size_t rows, std::size_t columns)
      : _memory(rows * columns), _data(_memory.data()), _rows(rows), _columns(columns) {}

  /// Of `rows * columns` floats that somebody else keeps, and that outlive it.
  static Matrix view(const float* data, std::size_t rows, std::size_t columns) {
    Matrix matrix;
    matrix._data = data;
    matrix._rows = rows;
    matrix._columns = columns;
    return matrix;
  }

  std::size_t rows() const noexcept { return _rows; }
  std::size_t columns() const noexcept { return _columns; }
  std::size_t size() const noexcept { return _rows * _columns; }
  bool empty() const noexcept { return size() == 0; }

  const float* data() const noexcept { return _data; }
  std::span<const float> row(std::size_t index) const noexcept {
    return {_data + index * _columns, _columns};
  }

  /// To fill it; null for a view.
  float* mutable_data() noexcept { return _memory.data(); }

 private:
  FloatBlock _memory;
  const float* _data = nullptr;
  std::size_t _rows = 0;
  std::size_t _columns = 0;
};

}  // namespace tovana::sentence_transformers
