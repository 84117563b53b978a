#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tovana/base/environment.h"

/// Where the certificates of authorities are. A libcurl knows where they are on the system that it
/// was built for; one that was carried to another system has to be told.
namespace tovana::http {

/// A PEM file of certificates, or a directory in which each has a file with its hash for a name,
/// such as 9d04f354.0, as OpenSSL looks for it.
struct CaPlace {
  std::string path = {};
  bool is_directory = false;
};

struct CaPlaces {
  std::vector<CaPlace> named =
      {};                 ///< By whoever runs the process; where there are any, no other counts.
  CaPlace built_in = {};  ///< libcurl's; an empty path when it has none, and needs none.
  std::vector<CaPlace> others = {};
};

/// What the variables SSL_CERT_FILE and SSL_CERT_DIR name, a colon between directories.
std::vector<CaPlace> named_ca_places(const Environment* environment = nullptr);

/// Those that the variables name, libcurl's own, and those of the systems that are in use; then what
/// the host has named.
CaPlaces system_ca_places();

/// Names a PEM file that `system_ca_places` has at its end from now on, for a host that brings
/// certificates along; it need not be there. Any thread may call it; the default transport heeds what
/// was named before its first request.
void set_last_ca_file(std::string path);

/// The first place with certificates; with an empty path when libcurl's own serves, and none when
/// there are certificates nowhere. Looks at the files at each call.
std::optional<CaPlace> find_ca_certificates(const CaPlaces& places);

/// What to say to a person when there are none: one line.
std::string no_ca_certificates_text(const CaPlaces& places);

}  // namespace tovana::http
