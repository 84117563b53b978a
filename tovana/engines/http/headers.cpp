#include "tovana/engines/http/headers.h"

#include <algorithm>

namespace tovana::http {

bool HeaderNameLess::operator()(std::string_view left, std::string_view right) const noexcept {
  const auto lower = [](char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
  };
  return std::lexicographical_compare(
      left.begin(), left.end(), right.begin(), right.end(),
      [&](char one, char other) { return lower(one) < lower(other); });
}

}  // namespace tovana::http
