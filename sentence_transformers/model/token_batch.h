#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace tovana::sentence_transformers {

/// Texts that go through the encoder together: their tokens one behind the other, a row each in
/// every matrix of the forward pass. No text is padded to the length of its neighbours.
class TokenBatch {
 public:
  /// Consecutive texts of the same length: attention, the one step that looks at a text as a whole,
  /// takes them together.
  struct Group {
    std::int64_t first_row;
    std::int64_t texts;
    std::int64_t length;  ///< Tokens of each text, at least 1.
  };

  /// Appends a text of at least one token. Texts of equal length should follow one another.
  void add(std::span<const std::int32_t> ids) {
    const auto length = static_cast<std::int64_t>(ids.size());
    if (_groups.empty() || _groups.back().length != length) {
      _groups.push_back({.first_row = rows(), .texts = 0, .length = length});
    }
    ++_groups.back().texts;
    ++_texts;
    _ids.insert(_ids.end(), ids.begin(), ids.end());
  }

  std::int64_t rows() const noexcept { return static_cast<std::int64_t>(_ids.size()); }
  std::int64_t texts() const noexcept { return _texts; }
  const std::vector<std::int32_t>& ids() const noexcept { return _ids; }
  const std::vector<Group>& groups() const noexcept { return _groups; }

 private:
  std::vector<std::int32_t> _ids;
  std::vector<Group> _groups;
  std::int64_t _texts = 0;
};

}  // namespace tovana::sentence_transformers
