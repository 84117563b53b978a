#pragma once

#include <iterator>
#include <optional>
#include <string_view>

namespace tovana::sentence_transformers {

/// What a small table has under a name, if it has that.
template <class Table>
auto find_named(const Table& table, std::string_view name) {
  using Value = decltype(std::begin(table)->second);
  for (const auto& [known, value] : table) {
    if (known == name) return std::optional<Value>(value);
  }
  return std::optional<Value>();
}

}  // namespace tovana::sentence_transformers
