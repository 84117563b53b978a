#include "tovana/engines/hub/content_hash.h"

#include <array>
#include <new>

#include <openssl/evp.h>

#include "tovana/base/libcrypto.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::hub {
namespace {

constexpr std::size_t kGitIdDigits = 40;

void check(int result) {
  if (result != 1)
    throw RuntimeError("libcrypto cannot compute the hash that files are checked by");
}

}  // namespace

void ContentHash::Free::operator()(evp_md_ctx_st* context) const noexcept {
  EVP_MD_CTX_free(context);
}

ContentHash::ContentHash(std::string_view id, std::uint64_t size) {
  initialize_libcrypto();
  _context.reset(EVP_MD_CTX_new());
  if (_context == nullptr) throw std::bad_alloc();
  const bool is_git = id.size() == kGitIdDigits;
  check(EVP_DigestInit_ex2(_context.get(), is_git ? EVP_sha1() : EVP_sha256(), nullptr));
  if (is_git) {
    const std::string header = "blob " + std::to_string(size);
    update({header.c_str(), header.size() + 1});  // its NUL belongs to it
  }
}

void ContentHash::update(std::string_view bytes) {
  check(EVP_DigestUpdate(_context.get(), bytes.data(), bytes.size()));
}

std::string ContentHash::finish() {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  check(EVP_DigestFinal_ex(_context.get(), digest.data(), &size));
  std::string hex;
  for (unsigned i = 0; i < size; ++i) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    hex += kDigits[digest[i] >> 4U];
    hex += kDigits[digest[i] & 15U];
  }
  return hex;
}

}  // namespace tovana::hub
