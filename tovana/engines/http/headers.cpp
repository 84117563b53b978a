#include "tovana/engines/http/headers.h"

#include <algorithm>

#include "tovana/base/text.h"

namespace tovana::http {

bool HeaderNameLess::operator()(std::string_view left, std::string_view right) const noexcept {
  return std::lexicographical_compare(
      left.begin(), left.end(), right.begin(), right.end(),
      [&](char one, char other) { return ascii_lower(one) < ascii_lower(other); });
}

}  // namespace tovana::http
