#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

// OpenSSL's digest context; its own header stays out of ours.
struct evp_md_ctx_st;

namespace tovana::embedding {

/// Where the hashing trick puts a term: the element is `bucket_hash` modulo the dimension.
struct TermHash {
  std::uint64_t bucket_hash;
  double sign;  ///< +1.0 or -1.0.
};

/// Hashes terms with MD5 (RFC 1321), which here only spreads them and protects nothing. One digest
/// context serves one term after another; one thread at a time.
class TermHasher {
 public:
  TermHasher();

  /// Of the term's UTF-8 bytes. The bucket comes from the term's digest, the sign from that of the
  /// term followed by "_sign". Throws RuntimeError when libcrypto cannot digest.
  TermHash operator()(std::string_view term);

 private:
  /// The first 8 bytes of a digest, least significant byte first.
  std::uint64_t _digest_of(std::string_view term, std::string_view suffix);

  struct FreeContext {
    void operator()(evp_md_ctx_st* context) const noexcept;
  };
  std::unique_ptr<evp_md_ctx_st, FreeContext> _context;
};

}  // namespace tovana::embedding
