#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>

struct evp_md_ctx_st;
struct evp_md_st;

namespace tovana::tool {

/// The first 16 bytes of a SHA-256: what is told apart by them is told apart even by those who
/// would have it confused.
using Digest = std::array<std::byte, 16>;

/// For unordered containers: any part of a digest is as good as a hash of it.
struct DigestHash {
  std::size_t operator()(const Digest& digest) const noexcept {
    std::size_t hash = 0;
    std::memcpy(&hash, digest.data(), sizeof hash);
    return hash;
  }
};

/// Makes digests; for one thread at a time. Throws std::bad_alloc, and Failure (call_failed) where
/// libcrypto offers no SHA-256.
class Digester {
 public:
  Digester();
  Digest of(std::string_view bytes);

 private:
  struct Free {
    void operator()(evp_md_ctx_st* context) const noexcept;
    void operator()(evp_md_st* algorithm) const noexcept;
  };

  std::unique_ptr<evp_md_ctx_st, Free> _context;
  std::unique_ptr<evp_md_st, Free> _algorithm;
};

}  // namespace tovana::tool
