#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace tovana::hub {

/// The hash that names a content in the hub and in its cache, computed as the content passes by.
/// The name's length says which it is: 64 digits are SHA-256 of the content, 40 are SHA-1 of the
/// content as a git blob, whose header holds the size.
class ContentHash {
 public:
  /// For a content of `size` bytes that is named `id` (is_content_id). Throws RuntimeError when
  /// libcrypto has no such hash.
  ContentHash(std::string_view id, std::uint64_t size);

  void update(std::string_view bytes);

  /// The hash in hexadecimal digits. Nothing may be added afterwards.
  std::string finish();

 private:
  struct Free {
    void operator()(evp_md_ctx_st* context) const noexcept;
  };
  std::unique_ptr<evp_md_ctx_st, Free> _context;
};

}  // namespace tovana::hub
