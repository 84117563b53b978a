#pragma once

#include <cstddef>
#include <span>

#include <nanobind/nanobind.h>

#include "tovana/engines/embedding/backends/backend.h"

namespace tovana::python {

/// A numpy array that vectors are copied into as they come, once.
class VectorArray {
 public:
  /// For so many vectors, as 32-bit or 64-bit floats.
  VectorArray(std::size_t rows, bool single_precision)
      : _rows(rows), _single_precision(single_precision) {}

  /// The next vectors, which have as many numbers as the first one; otherwise throws RuntimeError.
  /// Has the interpreter, and lets others have it while it copies.
  void add(std::span<const embedding::Vector> vectors);

  /// The array, `[rows x dimension]`, when all have come; `[0 x 0]` for no rows.
  nanobind::object release();

 private:
  void _allocate(std::size_t columns);

  const std::size_t _rows;
  const bool _single_precision;
  std::size_t _columns = 0;
  std::size_t _filled = 0;
  nanobind::object _array;
  void* _numbers = nullptr;
};

}  // namespace tovana::python
