#pragma once

#include <cstddef>
#include <span>

#include "output.h"

/// NumPy's file format, version 1.0: what `numpy.load` reads.
/// https://numpy.org/doc/stable/reference/generated/numpy.lib.format.html
namespace tovana::tool {

/// The header of a `[rows x columns]` array of little-endian 64-bit floats in C order.
void write_npy_header(Output& output, std::size_t rows, std::size_t columns);

/// One row; the header comes first, and all rows have its number of columns.
void write_npy_row(Output& output, std::span<const double> row);

}  // namespace tovana::tool
