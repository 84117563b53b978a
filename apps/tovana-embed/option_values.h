#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

/// Options with a number, read strictly: decimal digits and nothing around them.
namespace tovana::tool {

/// An option with a whole number of at least 1, and at most `most`. Parsing throws
/// CLI::ValidationError for anything else.
void add_count(CLI::App& command, const std::string& name, std::int64_t& value,
               const std::string& description,
               std::int64_t most = std::numeric_limits<std::int64_t>::max());
void add_count(CLI::App& command, const std::string& name, std::optional<std::int64_t>& value,
               const std::string& description);

/// An option with a number of seconds, at least 0 and finite.
void add_seconds(CLI::App& command, const std::string& name, std::optional<double>& value,
                 const std::string& description);

}  // namespace tovana::tool
