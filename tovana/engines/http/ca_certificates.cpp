#include "tovana/engines/http/ca_certificates.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

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

/// What it was and is, is never destroyed: threads may be reading it, also while the process exits.
std::atomic<const std::string*> last_file = nullptr;

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
  CaPlaces places{.named = named_ca_places(), .built_in = built_in_place()};
  for (const char* const file : kFiles) places.others.push_back({.path = file});
  for (const char* const directory : kDirectories) {
    places.others.push_back({.path = directory, .is_directory = true});
  }
  if (const std::string* const file = last_file) places.others.push_back({.path = *file});
  return places;
}

void set_last_ca_file(std::string path) { last_file = new std::string(std::move(path)); }

std::optional<CaPlace> find_ca_certificates(const CaPlaces& places) {
  const bool is_named = !places.named.empty();
  if (!is_named && (places.built_in.path.empty() || holds_certificates(places.built_in))) {
    return CaPlace{};
  }
  const std::vector<CaPlace>& candidates = is_named ? places.named : places.others;
  const auto found = std::ranges::find_if(candidates, holds_certificates);
  if (found == candidates.end()) return std::nullopt;
  return *found;
}

std::string no_ca_certificates_text(const CaPlaces& places) {
  std::vector<CaPlace> candidates = places.named;
  std::string remedy = "correct SSL_CERT_FILE and SSL_CERT_DIR, which name where they should be";
  if (candidates.empty()) {
    remedy = "install the system's package ca-certificates, or name a PEM file in SSL_CERT_FILE";
    candidates = places.others;
    std::erase_if(candidates,
                  [&](const CaPlace& each) { return each.path == places.built_in.path; });
    candidates.insert(candidates.begin(), places.built_in);
  }
  std::string looked_at;
  for (const CaPlace& place : candidates) {
    if (!looked_at.empty()) looked_at += ", ";
    looked_at += place.path;
  }
  return "no CA certificates were found, without which no https server is trusted: " + remedy +
         " (looked at " + escape_control_characters(looked_at) + ")";
}

}  // namespace tovana::http
