#include "tovana/engines/http/ca_certificates.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <filesystem>
#include <string_view>
#include <system_error>

#include <curl/curl.h>

#include "tovana/base/text.h"

namespace tovana::http {
namespace {

constexpr std::array kFiles = {
    "/etc/ssl/certs/ca-certificates.crt",                 // Debian, Ubuntu, Arch, Gentoo
    "/etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem",  // Fedora, RHEL
    "/etc/pki/tls/certs/ca-bundle.crt",                   // and older ones
    "/var/lib/ca-certificates/ca-bundle.pem",             // SUSE
    "/etc/ssl/ca-bundle.pem",                             // and older ones
    "/etc/ssl/cert.pem",                                  // Alpine
};
constexpr std::array kDirectories = {"/etc/ssl/certs", "/etc/pki/tls/certs"};

bool is_hashed_name(std::string_view name) {
  constexpr std::size_t kHashDigits = 8;
  return name.size() > kHashDigits + 1 &&
         name.find_first_not_of("0123456789abcdef") == kHashDigits && name[kHashDigits] == '.' &&
         name.find_first_not_of("0123456789", kHashDigits + 1) == std::string_view::npos;
}

bool holds_certificates(const CaPlace& place) {
  std::error_code error;
  if (!place.is_directory) return std::filesystem::is_regular_file(place.path, error);
  std::filesystem::directory_iterator entry(place.path, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    if (is_hashed_name(entry->path().filename().native())) return true;
  }
  return false;
}

CaPlace built_in_place() {
  const curl_version_info_data& libcurl = *curl_version_info(CURLVERSION_NOW);
  if (libcurl.cainfo != nullptr) return {.path = libcurl.cainfo};
  if (libcurl.capath != nullptr) return {.path = libcurl.capath, .is_directory = true};
  return {};
}

}  // namespace

std::vector<CaPlace> named_ca_places(const Environment* environment) {
  std::vector<CaPlace> places;
  const std::string file = environment_variable("SSL_CERT_FILE", environment).value_or("");
  if (!file.empty()) places.push_back({.path = file});
  std::string directories = environment_variable("SSL_CERT_DIR", environment).value_or("");
  for (std::size_t begin = 0; begin < directories.size();) {
    const std::size_t end = std::min(directories.find(':', begin), directories.size());
    const std::string directory = directories.substr(begin, end - begin);
    if (!directory.empty()) places.push_back({.path = directory, .is_directory = true});
    begin = end + 1;
  }
  return places;
}

CaPlaces system_ca_places() {
  CaPlaces places{.built_in = built_in_place(), .others = named_ca_places()};
  for (const char* const file : kFiles) places.others.push_back({.path = file});
  for (const char* const directory : kDirectories) {
    places.others.push_back({.path = directory, .is_directory = true});
  }
  return places;
}

std::optional<CaPlace> find_ca_certificates(const CaPlaces& places) {
  if (places.built_in.path.empty() || holds_certificates(places.built_in)) return CaPlace{};
  const auto found = std::ranges::find_if(places.others, holds_certificates);
  if (found == places.others.end()) return std::nullopt;
  return *found;
}

std::string no_ca_certificates_text(const CaPlaces& places) {
  std::string looked_at = places.built_in.path;
  for (const CaPlace& place : places.others) {
    if (place.path != places.built_in.path) looked_at += ", " + place.path;
  }
  return "no CA certificates were found, without which no https server is trusted: install the "
         "system's package ca-certificates, or name a PEM file in SSL_CERT_FILE (looked at " +
         escape_control_characters(looked_at) + ")";
}

}  // namespace tovana::http
