#pragma once

#include <cstddef>
#include <span>

#include "output.h"

/// NumPy's file format, version 1.0: what `numpy.load` reads.
/// https://numpy.org/doc/stable/reference/generated/numpy.lib.format.html
namespace tovana::tool {

enum class NpyType { float64, float32 };

/// The header of a `[rows x columns]` array of little-endian floats in C order.
void write_npy_header(Output& output, std::size_t rows, std::size_t columns, NpyType type);

/// One row; the header comes first, and all rows have its number of columns and its type, to which
/// numbers are rounded.
void write_npy_row(Output& output, std::span<const double> row, NpyType type);

}  // namespace tovana::tool
