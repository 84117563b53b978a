#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tovana::tool {

/// The different ones of some texts, numbered in the order in which they come first.
struct UniqueTexts {
  explicit UniqueTexts(const std::vector<std::string>& texts);

  std::vector<std::size_t> places;     ///< Of each, where it comes first.
  std::vector<std::size_t> number_of;  ///< Of each text, which of them it is.
};

}  // namespace tovana::tool
