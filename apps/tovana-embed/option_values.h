#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

/// Options with a value that commands share. Numbers are read strictly: decimal digits and nothing
/// around them.
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

/// An option with any finite number, called S.
void add_number(CLI::App& command, const std::string& name, std::optional<double>& value,
                const std::string& description);

/// An option with a name, which may be given again for another one. The names replace those that
/// are there by default.
CLI::Option* add_names(CLI::App& command, const std::string& name, std::vector<std::string>& names,
                       const std::string& description);

}  // namespace tovana::tool
