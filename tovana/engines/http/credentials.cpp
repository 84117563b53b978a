#include "tovana/engines/http/credentials.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <set>
#include <utility>

#include <openssl/evp.h>

#include "tovana/base/logging.h"
#include "tovana/base/mutex.h"
#include "tovana/base/per_process.h"
#include "tovana/base/text.h"
#include "tovana/base/utf8.h"
#include "tovana/engines/http/url.h"

namespace tovana::http {
namespace {

constexpr Logger log("engines.http");

constexpr std::array<std::string_view, 8> kCredentialWords = {"auth",   "key",  "token", "secret",
                                                              "cookie", "pass", "sig",   "code"};

/// Where libcurl looks for proxies.
constexpr std::array<const char*, 5> kProxyVariables = {"http_proxy", "https_proxy", "HTTPS_PROXY",
                                                        "all_proxy", "ALL_PROXY"};

/// A shorter secret is found in the middle of ordinary words.
constexpr std::size_t kShortestAnywhere = 4;

/// With the backslashes of a text that was escaped several times.
constexpr std::size_t kLongestEscape = 16;

bool equal_letters(char one, char other) { return ascii_lower(one) == ascii_lower(other); }

bool carries_credentials(std::string_view name) {
  return std::any_of(kCredentialWords.begin(), kCredentialWords.end(), [&](std::string_view word) {
    return std::search(name.begin(), name.end(), word.begin(), word.end(), equal_letters) !=
           name.end();
  });
}

/// The number that the whole text is in the given base.
std::optional<unsigned> number_in(std::string_view text, int base) {
  unsigned number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

/// One character of a text as some format writes it.
struct Spelled {
  unsigned code_point;
  std::size_t size;  ///< Of the spelling, in bytes.
};

/// `%2F`
std::optional<Spelled> percent_escape(std::string_view text) {
  if (text.size() < 3) return std::nullopt;
  const auto byte = number_in(text.substr(1, 2), 16);
  return byte ? std::optional(Spelled{*byte, 3}) : std::nullopt;
}

/// `\/`, `\u002f`, `\x2f`, with more backslashes when the text was escaped more than once.
std::optional<Spelled> backslash_unit(std::string_view text) {
  const std::size_t start = text.find_first_not_of('\\');
  if (start == std::string_view::npos) return std::nullopt;
  for (const auto& [letter, digits] : {std::pair('u', 4U), std::pair('x', 2U)}) {
    if (text[start] != letter || text.size() < start + 1 + digits) continue;
    if (const auto code = number_in(text.substr(start + 1, digits), 16)) {
      return Spelled{*code, start + 1 + digits};
    }
  }
  return Spelled{static_cast<unsigned char>(text[start]), start + 1};
}

/// As above; what is beyond U+FFFF is two of them.
std::optional<Spelled> backslash_escape(std::string_view text) {
  const std::optional<Spelled> first = backslash_unit(text);
  if (!first || first->code_point >> 10U != 0xD800U >> 10U) return first;
  text.remove_prefix(first->size);
  const std::optional<Spelled> second =
      text.starts_with('\\') ? backslash_unit(text) : std::nullopt;
  if (!second || second->code_point >> 10U != 0xDC00U >> 10U) return first;
  return Spelled{0x10000 + ((first->code_point & 0x3FFU) << 10U) + (second->code_point & 0x3FFU),
                 first->size + second->size};
}

/// `&amp;`, `&#47;`, `&#x2f;`
std::optional<Spelled> entity(std::string_view text) {
  const std::size_t end = text.find(';');
  if (end == std::string_view::npos) return std::nullopt;
  const std::string_view name = text.substr(1, end - 1);
  constexpr std::pair<std::string_view, char> kNamed[] = {
      {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
  for (const auto& [known, character] : kNamed) {
    if (name == known) return Spelled{static_cast<unsigned char>(character), end + 1};
  }
  if (!name.starts_with('#')) return std::nullopt;
  const auto code = name.starts_with("#x") || name.starts_with("#X")
                        ? number_in(name.substr(2), 16)
                        : number_in(name.substr(1), 10);
  return code ? std::optional(Spelled{*code, end + 1}) : std::nullopt;
}

std::optional<Spelled> escape_at(std::string_view text) {
  text = text.substr(0, kLongestEscape);  // a text of backslashes is not searched to its end
  switch (text.front()) {
    case '%':
      return percent_escape(text);
    case '\\':
      return backslash_escape(text);
    case '&':
      return entity(text);
    default:
      return std::nullopt;
  }
}

/// The character at the beginning of a text as it stands there; a byte that is not UTF-8 for itself.
Spelled plain_at(std::string_view text) {
  const utf8::Decoded decoded = utf8::decode(text.data(), text.data() + text.size());
  if (!decoded.well_formed) return {static_cast<unsigned char>(text.front()), 1};
  return {decoded.code_point, decoded.size};
}

/// How much of the beginning of a secret a character stands for: one of its characters, or, where
/// bytes were taken for characters, one of its bytes; 0 when it is another one.
std::size_t matched_size(unsigned character, std::string_view secret) {
  const Spelled wanted = plain_at(secret);
  if (character == wanted.code_point) return wanted.size;
  return character <= 0xFF && equal_letters(static_cast<char>(character), secret.front()) ? 1 : 0;
}

/// The bytes that a whole secret, or so much of it as the text goes on for, takes at the beginning
/// of `text`; 0 when something else is there.
std::size_t spelled_size(std::string_view text, std::string_view secret) {
  std::size_t at = 0;
  for (std::size_t matched = 0; matched < secret.size();) {
    const std::string_view rest = text.substr(at);
    std::size_t size = 0;
    const auto matches = [&](const std::optional<Spelled>& spelled) {
      size = spelled ? matched_size(spelled->code_point, secret.substr(matched)) : 0;
      if (size > 0) at += spelled->size;
      return size > 0;
    };
    if (!rest.empty() && (matches(escape_at(rest)) || matches(plain_at(rest)))) {
      matched += size;
      continue;
    }
    const bool breaks_off =
        rest.empty() || (std::string_view("%\\&").find(rest.front()) != std::string_view::npos &&
                         rest.size() < kLongestEscape);
    return breaks_off && matched >= kShortestAnywhere ? text.size() : 0;
  }
  return at;
}

std::string without(std::string_view secret, std::string_view text) {
  std::string masked;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t size = spelled_size(text.substr(at), secret);
    const bool is_word = (at == 0 || !is_ascii_alphanumeric(text[at - 1])) &&
                         (at + size >= text.size() || !is_ascii_alphanumeric(text[at + size]));
    if (size > 0 && (secret.size() >= kShortestAnywhere || is_word)) {
      masked += "***";
      at += size;
    } else {
      masked += text[at++];
    }
  }
  return masked;
}

std::string percent_decoded(std::string_view text) {
  std::string decoded;
  while (!text.empty()) {
    const std::optional<Spelled> byte = text.front() == '%' ? percent_escape(text) : std::nullopt;
    decoded += byte ? static_cast<char>(byte->code_point) : text.front();
    text.remove_prefix(byte ? byte->size : 1);
  }
  return decoded;
}

/// The parts of a text between the separators, none of them empty.
std::vector<std::string_view> parts_of(std::string_view text, std::string_view separators) {
  std::vector<std::string_view> parts;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find_first_of(separators), text.size());
    if (end > 0) parts.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parts;
}

/// Adds bytes as base64 has them, with its padding and without.
void add_base64(std::string_view bytes, std::vector<std::string>& secrets) {
  std::string encoded(4 * ((bytes.size() + 2) / 3), '\0');
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                  reinterpret_cast<const unsigned char*>(bytes.data()),
                  static_cast<int>(bytes.size()));
  secrets.push_back(encoded);
  if (encoded.ends_with('=')) secrets.push_back(encoded.substr(0, encoded.find('=')));
}

/// Adds user and password whole, also as basic authentication sends them, and in all their pieces,
/// since a reader of an oddly written URL may take any for a host or a port and say so.
void add_userinfo(std::string_view url, std::vector<std::string>& secrets) {
  const std::string_view userinfo = userinfo_of(url);
  if (userinfo.empty()) return;
  std::string sent = percent_decoded(userinfo);
  secrets.push_back(sent);
  const std::size_t colon = userinfo.find(':');
  if (colon != std::string_view::npos) {
    secrets.push_back(percent_decoded(userinfo.substr(colon + 1)));
  } else {
    sent += ':';
  }
  add_base64(sent, secrets);
  for (const std::string_view part : parts_of(userinfo, ":@/?#\\")) {
    secrets.push_back(percent_decoded(part));
  }
}

/// Adds a header's value: whole, without its first word, which may name the kind of key as in
/// "Bearer k", and each of the other words.
void add_header_value(std::string_view value, std::vector<std::string>& secrets) {
  const std::string_view key = value.substr(value.find(' ') + 1);
  for (const std::string_view whole : {value, key}) {
    secrets.emplace_back(whole);
    add_base64(whole, secrets);  // as a server may write what it was sent
  }
  for (const std::string_view word : parts_of(key, " ")) secrets.emplace_back(word);
}

/// The parameters in a URL's query; a part without "=" is a value without a name.
std::vector<std::pair<std::string_view, std::string_view>> parameters_of(std::string_view url) {
  std::vector<std::pair<std::string_view, std::string_view>> parameters;
  for (const std::string_view part : parts_of(query_of(url), "&")) {
    const std::size_t equals = part.find('=');
    const bool has_name = equals != std::string_view::npos;
    parameters.emplace_back(has_name ? part.substr(0, equals) : "", part.substr(equals + 1));
  }
  return parameters;
}

/// The hosts that a warning has named. Never destroyed: calls may run while the process exits.
struct WarnedHosts {
  const pid_t process = getpid();
  Mutex mutex;
  std::set<std::string> hosts TOVANA_GUARDED_BY(mutex);
};

auto& warned_hosts = *new PerProcess<WarnedHosts>;

bool first_warning_for(const std::string& host) {
  WarnedHosts& warned = warned_hosts.get();
  const LockGuard lock(warned.mutex);
  return warned.hosts.insert(host).second;
}

}  // namespace

bool Credentials::empty() const {
  const auto is_key = [](const auto& named) {
    return !named.second.empty() && carries_credentials(named.first);
  };
  return std::ranges::none_of(_headers, is_key) && !has_user(_url) &&
         std::ranges::none_of(parameters_of(_url), is_key);
}

std::vector<std::string> Credentials::_secrets() const {
  std::vector<std::string> secrets;
  for (const auto& [name, value] : _headers) {
    if (carries_credentials(name)) add_header_value(value, secrets);
  }
  add_userinfo(_url, secrets);
  for (const auto& [name, value] : parameters_of(_url)) {
    if (carries_credentials(name) || value.size() >= kShortestAnywhere) {
      secrets.push_back(percent_decoded(value));
    }
  }
  for (const char* variable : kProxyVariables) {
    if (const auto proxy = environment_variable(variable, _environment)) {
      add_userinfo(*proxy, secrets);
    }
  }
  std::erase_if(secrets, [](const std::string& secret) { return secret.empty(); });
  // Wholes before their parts.
  std::ranges::stable_sort(secrets, std::ranges::greater(), &std::string::size);
  return secrets;
}

std::string Credentials::masked(std::string_view text) const {
  std::string masked(text);
  for (const std::string& secret : _secrets()) masked = without(secret, masked);
  return masked;
}

std::string Credentials::excerpt(std::string_view text, std::size_t most_bytes) const {
  const std::string shown = masked(text);
  std::string line = escape_control_characters(std::string_view(shown).substr(0, most_bytes));
  if (line.size() <= most_bytes && shown.size() <= most_bytes) return line;
  std::size_t end = std::min(most_bytes, line.size());
  while (end > 0 && end < line.size() && (static_cast<unsigned char>(line[end]) & 0xC0U) == 0x80) {
    --end;
  }
  line.resize(end);
  return line + "…";
}

void warn_if_exposed(const Credentials& credentials, const std::string& url,
                     const std::string& label) {
  if (credentials.empty()) return;
  const std::optional<UrlOrigin> origin = url_origin(url);
  if (!origin || origin->scheme != "http" || origin->is_loopback()) return;
  if (!names_host(url) || !first_warning_for(origin->host)) return;
  log.warning("%s: the key for %s is sent over plain http, where others can read it: use https",
              label, credentials.masked(origin->host));
}

}  // namespace tovana::http
