#pragma once

#include <span>
#include <string_view>

#include "output.h"

/// JSON, compact, straight into the output's buffer.
namespace tovana::tool {

/// A string in quotes; `text` is well-formed UTF-8 and stays UTF-8.
void write_json_string(Output& output, std::string_view text);

/// The shortest digits that read back as the same number. Throws Failure (call_failed) for one that
/// is not finite, which JSON cannot hold.
void write_json_number(Output& output, double value);

/// An array of such numbers.
void write_json_vector(Output& output, std::span<const double> vector);

}  // namespace tovana::tool
