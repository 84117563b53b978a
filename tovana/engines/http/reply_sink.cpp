#include "tovana/engines/http/reply_sink.h"

#include <charconv>

#include "tovana/base/huge_pages.h"
#include "tovana/engines/http/json.h"

namespace tovana::http {
namespace {

constexpr std::size_t kMostErrorBytes = std::size_t{16} << 10U;

/// What Content-Length says; 0 when it is missing or no number.
std::size_t announced_size(const ResponseHeaders& headers) {
  const auto field = headers.find("Content-Length");
  std::size_t size = 0;
  if (field != headers.end()) {
    const std::string& value = field->second;
    std::from_chars(value.data(), value.data() + value.size(), size);
  }
  return size;
}

}  // namespace

bool ReplySink::head(const ResponseHead& head) {
  _is_success = is_success(head.status);
  if (!_is_success) return true;
  const std::size_t size = announced_size(head.headers);
  _is_too_large = size > _largest;
  if (_is_too_large) return false;
  _text.reserve(size + JsonReply::kSpareBytes);
  prefer_huge_pages(_text.data(), _text.capacity());
  return true;
}

bool ReplySink::body(std::string_view bytes) {
  if (!_is_success) {
    _text += bytes.substr(0, kMostErrorBytes - _text.size());
    return _text.size() < kMostErrorBytes;
  }
  _is_too_large = bytes.size() > _largest - _text.size();
  if (!_is_too_large) _text += bytes;
  return !_is_too_large;
}

}  // namespace tovana::http
