#include "tests/support/certificates.h"

#include <cstdio>
#include <stdexcept>

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "tovana/base/libcrypto.h"

namespace tovana::testing {
namespace {

constexpr long kDayS = 24L * 60 * 60;

void require(bool succeeded) {
  if (!succeeded) throw std::runtime_error("OpenSSL failed to make a certificate");
}

EVP_PKEY* new_key() {
  initialize_libcrypto();
  return EVP_EC_gen("P-256");
}

void add_extension(X509* certificate, int kind, const char* value) {
  const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
      X509V3_EXT_conf_nid(nullptr, nullptr, kind, value), &X509_EXTENSION_free);
  require(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1);
}

}  // namespace

Certificate::Certificate() : Certificate(nullptr, Options{}) {}
Certificate::Certificate(const Certificate& authority, Options options)
    : Certificate(&authority, options) {}

Certificate::Certificate(const Certificate* authority, Options options)
    : _key(new_key(), &EVP_PKEY_free), _certificate(X509_new(), &X509_free) {
  X509* const certificate = _certificate.get();
  const bool is_authority = authority == nullptr;
  const Certificate& signer = is_authority ? *this : *authority;
  X509_set_version(certificate, X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), is_authority ? 1 : 2);
  X509_gmtime_adj(X509_getm_notBefore(certificate), -2 * kDayS);
  X509_gmtime_adj(X509_getm_notAfter(certificate), options.is_expired ? -kDayS : kDayS);
  X509_set_pubkey(certificate, _key.get());
  const auto* name =
      reinterpret_cast<const unsigned char*>(is_authority ? "test CA" : "test server");
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC, name, -1, -1,
                             0);
  X509_set_issuer_name(certificate, X509_get_subject_name(signer._certificate.get()));
  if (is_authority) {
    add_extension(certificate, NID_basic_constraints, "critical,CA:TRUE");
  } else {
    add_extension(certificate, NID_subject_alt_name, options.host);
  }
  require(X509_sign(certificate, signer._key.get(), EVP_sha256()) > 0);
}

std::shared_ptr<SSL_CTX> Certificate::server_context() const {
  std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free);
  require(SSL_CTX_use_certificate(context.get(), _certificate.get()) == 1 &&
          SSL_CTX_use_PrivateKey(context.get(), _key.get()) == 1);
  return context;
}

void Certificate::write(const std::string& path) const {
  const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(std::fopen(path.c_str(), "w"),
                                                                &std::fclose);
  require(file != nullptr && PEM_write_X509(file.get(), _certificate.get()) == 1);
}

}  // namespace tovana::testing
