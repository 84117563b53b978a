#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sentence_transformers/tokenizer/normalizers/normalizer.h"

namespace tovana::sentence_transformers {

/// SentencePiece's compiled map of characters, used as the models' own library uses it, which is
/// not as SentencePiece does: a grapheme cluster of less than 6 bytes that begins with a key
/// becomes as a whole what the shortest such key does; in others each character does for itself.
class Precompiled final : public Normalizer {
 public:
  /// A map as files have it, decoded: the size of a trie (darts-clone), the trie, and texts that
  /// end in NUL. Throws ValueError for anything else.
  explicit Precompiled(std::string_view map);

  void normalize(std::string& text) const override;

 private:
  std::optional<std::string_view> _shortest_match(std::string_view text) const noexcept;
  void _append(std::string_view piece, std::string& normalized) const;

  std::vector<std::uint32_t> _units;
  std::string _texts;
  std::array<bool, 128> _is_kept = {};  ///< ASCII characters that stay what they are.
};

}  // namespace tovana::sentence_transformers
