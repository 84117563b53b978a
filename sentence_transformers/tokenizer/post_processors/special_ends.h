#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tovana::sentence_transformers {

/// The tokens that a post-processor puts around every text.
struct SpecialEnds {
  /// Without an id, it has the one of its content.
  struct Token {
    std::string content;
    std::optional<std::int32_t> id;
  };

  std::vector<Token> before;
  std::vector<Token> behind;
};

}  // namespace tovana::sentence_transformers
