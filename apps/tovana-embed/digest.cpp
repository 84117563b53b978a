#include "digest.h"

#include <new>

#include <openssl/evp.h>

#include "failure.h"
#include "tovana/base/libcrypto.h"

namespace tovana::tool {

void Digester::Free::operator()(evp_md_ctx_st* context) const noexcept { EVP_MD_CTX_free(context); }

void Digester::Free::operator()(evp_md_st* algorithm) const noexcept { EVP_MD_free(algorithm); }

Digester::Digester() {
  initialize_libcrypto();
  _context.reset(EVP_MD_CTX_new());
  if (_context == nullptr) throw std::bad_alloc();
  _algorithm.reset(EVP_MD_fetch(nullptr, "SHA-256", nullptr));
  if (_algorithm == nullptr || EVP_DigestInit_ex2(_context.get(), _algorithm.get(), nullptr) != 1) {
    throw Failure(ExitStatus::call_failed,
                  "libcrypto has no SHA-256 to tell texts apart by; see to its configuration");
  }
}

Digest Digester::of(std::string_view bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> whole{};
  if (EVP_DigestInit_ex2(_context.get(), nullptr, nullptr) != 1 ||
      EVP_DigestUpdate(_context.get(), bytes.data(), bytes.size()) != 1 ||
      EVP_DigestFinal_ex(_context.get(), whole.data(), nullptr) != 1) {
    throw Failure(ExitStatus::call_failed, "libcrypto could not make a digest of a text");
  }
  Digest digest;
  std::memcpy(digest.data(), whole.data(), digest.size());
  return digest;
}

}  // namespace tovana::tool
