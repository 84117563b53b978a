#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "sentence_transformers/tokenizer/unicode_forms.h"
#include "sentence_transformers/tokenizer/unicode_tables.h"

namespace tovana::sentence_transformers {

/// The characters that one place of an expression accepts.
class CharacterSet {
 public:
  void add(char32_t first, char32_t last) {
    for (char32_t code_point = first; code_point <= last && code_point < kAscii; ++code_point) {
      _add_ascii(code_point);
    }
    if (last >= kAscii) _ranges.emplace_back(first < kAscii ? kAscii : first, last);
  }

  /// All that have one of these properties, or all that have none of them.
  void add_form(std::uint16_t any_of, bool negated = false) {
    _add_where([&](char32_t c) { return unicode::form_of(c).is(any_of) != negated; });
    (negated ? _negated_forms : _forms).push_back(any_of);
  }

  void add_space(bool negated = false) {
    _add_where([&](char32_t c) { return unicode::is_white_space(c) != negated; });
    (negated ? _has_no_space : _has_space) = true;
  }

  void negate() { _negated = !_negated; }

  bool contains(char32_t code_point) const noexcept {
    if (code_point < kAscii) {
      return ((_ascii[code_point / 64] >> (code_point % 64)) & 1U) != _negated;
    }
    return _has(code_point) != _negated;
  }

 private:
  static constexpr char32_t kAscii = 0x80;

  template <class Condition>
  void _add_where(const Condition& condition) {
    for (char32_t code_point = 0; code_point < kAscii; ++code_point) {
      if (condition(code_point)) _add_ascii(code_point);
    }
  }

  void _add_ascii(char32_t code_point) {
    _ascii[code_point / 64] |= std::uint64_t{1} << (code_point % 64);
  }

  bool _has(char32_t code_point) const noexcept {
    const unicode::FormRecord& form = unicode::form_of(code_point);
    for (const std::uint16_t any_of : _forms) {
      if (form.is(any_of)) return true;
    }
    for (const std::uint16_t any_of : _negated_forms) {
      if (!form.is(any_of)) return true;
    }
    if (_has_space || _has_no_space) {
      if (unicode::is_white_space(code_point) ? _has_space : _has_no_space) return true;
    }
    for (const auto& [first, last] : _ranges) {
      if (code_point >= first && code_point <= last) return true;
    }
    return false;
  }

  std::uint64_t _ascii[2] = {};
  std::vector<std::uint16_t> _forms;
  std::vector<std::uint16_t> _negated_forms;
  std::vector<std::pair<char32_t, char32_t>> _ranges;  ///< Beyond ASCII.
  bool _has_space = false;
  bool _has_no_space = false;
  bool _negated = false;
};

}  // namespace tovana::sentence_transformers
