#include "tovana/engines/embedding/backends/tfidf/term_hash.h"

#include <array>
#include <new>

#include <openssl/evp.h>
#include <openssl/provider.h>

#include "tovana/base/libcrypto.h"
#include "tovana/base/process_once.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::embedding {
namespace {

/// MD5 from a library context of our own with OpenSSL's default provider: the process's context may
/// have been configured to refuse MD5 (FIPS), which is right for security and beside the point
/// here.
const EVP_MD* fetch_md5() {
  initialize_libcrypto();
  OSSL_LIB_CTX* const context = OSSL_LIB_CTX_new();
  if (context == nullptr) throw std::bad_alloc();
  const EVP_MD* digest = nullptr;
  if (OSSL_PROVIDER_load(context, "default") != nullptr) {
    digest = EVP_MD_fetch(context, "MD5", nullptr);
  }
  if (digest == nullptr) {
    OSSL_LIB_CTX_free(context);
    throw RuntimeError(
        "libcrypto offers no MD5, which the hashing embedder spreads terms with: "
        "use an OpenSSL built with it");
  }
  return digest;
}

/// Fetched once and never freed, as fetching costs more than digesting a term.
const EVP_MD* md5() {
  static constinit ProcessOnce once;
  static constinit const EVP_MD* fetched = nullptr;
  once.call([] { fetched = fetch_md5(); });
  return fetched;
}

}  // namespace

void TermHasher::FreeContext::operator()(evp_md_ctx_st* context) const noexcept {
  EVP_MD_CTX_free(context);
}

TermHasher::TermHasher() : _context(EVP_MD_CTX_new()) {
  if (_context == nullptr) throw std::bad_alloc();
  // With the digest set once, starting the next one needs no look-up.
  if (EVP_DigestInit_ex2(_context.get(), md5(), nullptr) != 1) {
    throw RuntimeError("libcrypto could not start an MD5 digest");
  }
}

TermHash TermHasher::operator()(std::string_view term) {
  const std::uint64_t bucket_hash = _digest_of(term, {});
  const bool odd = (_digest_of(term, "_sign") & 1U) != 0;
  return {bucket_hash, odd ? -1.0 : 1.0};
}

std::uint64_t TermHasher::_digest_of(std::string_view term, std::string_view suffix) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
  EVP_MD_CTX* const context = _context.get();
  if (EVP_DigestInit_ex2(context, nullptr, nullptr) != 1 ||
      EVP_DigestUpdate(context, term.data(), term.size()) != 1 ||
      EVP_DigestUpdate(context, suffix.data(), suffix.size()) != 1 ||
      EVP_DigestFinal_ex(context, digest.data(), nullptr) != 1) {
    throw RuntimeError("libcrypto could not compute an MD5 digest");
  }
  std::uint64_t value = 0;
  for (std::size_t byte = 8; byte-- > 0;) value = value << 8U | digest[byte];
  return value;
}

}  // namespace tovana::embedding
