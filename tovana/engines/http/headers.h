#pragma once

#include <map>
#include <string>
#include <string_view>

/// Header fields of requests and responses. Their names are compared without regard to ASCII case.
namespace tovana::http {

struct HeaderNameLess {
  using is_transparent = void;
  bool operator()(std::string_view left, std::string_view right) const noexcept;
};

/// The headers that a caller adds to a request: each name once.
using Headers = std::map<std::string, std::string, HeaderNameLess>;

/// The headers of a response: a name may come several times, and `find` gives the first.
using ResponseHeaders = std::multimap<std::string, std::string, HeaderNameLess>;

}  // namespace tovana::http
