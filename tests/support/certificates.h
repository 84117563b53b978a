#pragma once

#include <memory>
#include <string>

#include <openssl/ssl.h>

namespace tovana::testing {

/// A certificate with its key, made on the spot.
class Certificate {
 public:
  /// What a client may find wrong with it.
  struct Options {
    const char* host = "IP:127.0.0.1";  ///< As OpenSSL writes a subjectAltName.
    bool is_expired = false;
  };

  /// A certification authority.
  Certificate();
  /// A server's, signed by `authority`.
  Certificate(const Certificate& authority, Options options);

  /// The context of a server that shows this certificate.
  std::shared_ptr<SSL_CTX> server_context() const;

  /// Writes it, without the key, to a PEM file.
  void write(const std::string& path) const;

 private:
  Certificate(const Certificate* authority, Options options);

  std::shared_ptr<EVP_PKEY> _key;
  std::shared_ptr<X509> _certificate;
};

}  // namespace tovana::testing
