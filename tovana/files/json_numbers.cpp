#include "tovana/files/json_numbers.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <system_error>

namespace tovana::files {
namespace {

template <typename Number>
bool is_beyond(std::string_view text) {
  Number number = 0;
  return std::from_chars(text.data(), text.data() + text.size(), number).ec ==
         std::errc::result_out_of_range;
}

/// Of a number that is not a double: whether it lies beyond them, and not between them and 0.
bool is_huge(std::string_view text) {
  const std::size_t first = std::min(text.find_first_not_of("-0"), text.size());
  const std::size_t exponent_at = std::min(text.find_first_of("eE"), text.size());
  const std::size_t point = std::min(text.find('.'), exponent_at);
  if (exponent_at == text.size()) return first < point;
  std::string_view digits = text.substr(exponent_at + 1);
  if (digits.starts_with('+')) digits.remove_prefix(1);
  int exponent =
      digits.starts_with('-') ? std::numeric_limits<int>::min() : std::numeric_limits<int>::max();
  std::from_chars(digits.data(), digits.data() + digits.size(), exponent);
  return static_cast<std::int64_t>(point) - static_cast<std::int64_t>(first) + exponent > 0;
}

std::string in_range(std::string_view number) {
  std::string text(number);
  if (is_beyond<double>(number) && is_huge(number)) {
    return number.front() == '-' ? "-1.7976931348623157e308" : "1.7976931348623157e308";
  }
  const bool is_whole = number.find_first_of(".eE") == std::string_view::npos;
  return is_whole && is_beyond<std::int64_t>(number) ? text + ".0" : text;
}

}  // namespace

std::string with_numbers_in_range(std::string_view json) {
  constexpr std::string_view kNumber = "0123456789+-.eE";
  std::string result;
  result.reserve(json.size() + 64);
  for (std::size_t i = 0; i < json.size();) {
    std::size_t end = i + 1;
    if (json[i] == '"') {
      while (end < json.size() && json[end] != '"') end += json[end] == '\\' ? 2U : 1U;
      end = end < json.size() ? end + 1 : json.size();
      result += json.substr(i, end - i);
    } else if (json[i] == '-' || (json[i] >= '0' && json[i] <= '9')) {
      end = std::min(json.find_first_not_of(kNumber, i), json.size());
      result += in_range(json.substr(i, end - i));
    } else {
      result += json[i];
    }
    i = end;
  }
  return result;
}

}  // namespace tovana::files
