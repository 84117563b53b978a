#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "tovana/base/export.h"

/// A database as far as this component asks for one: a query, and the first row of its result.
namespace tovana::storage {

using Blob = std::vector<std::byte>;
using DatabaseValue = std::variant<std::nullptr_t, std::int64_t, double, std::string, Blob>;

/// The values of a row in the order of the columns, or by the columns' names.
using PositionalRow = std::vector<DatabaseValue>;
using NamedRow = std::map<std::string, DatabaseValue, std::less<>>;
using DatabaseRow = std::variant<PositionalRow, NamedRow>;

class TOVANA_API Database {
 public:
  virtual ~Database() = default;

  /// Runs one SQL text: the first row of the result, or null when there is none. Blocks for as long
  /// as the query takes. Throws what the implementation says.
  virtual std::optional<DatabaseRow> fetchone(const std::string& sql) = 0;
};

}  // namespace tovana::storage
