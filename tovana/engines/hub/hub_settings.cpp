#include "tovana/engines/hub/hub_settings.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <pwd.h>
#include <unistd.h>

#include "tovana/base/text.h"
#include "tovana/engines/http/url.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::hub {
namespace {

/// A variable that a text asks for.
struct NameInText {
  std::string_view name;  ///< Empty: just a dollar sign.
  std::size_t size;
};

/// What stands at the head of `text`, which begins with a dollar sign.
NameInText name_in(std::string_view text) {
  if (text.starts_with("${")) {
    const std::size_t end = text.find('}');
    if (end == std::string_view::npos) return {{}, 1};
    return {text.substr(2, end - 2), end + 1};
  }
  const auto end = std::find_if_not(text.begin() + 1, text.end(),
                                    [](char c) { return is_ascii_alphanumeric(c) || c == '_'; });
  const auto size = static_cast<std::size_t>(end - text.begin());
  return {text.substr(1, size - 1), size};
}

/// The environment: what is empty is not set.
class Variables {
 public:
  /// Null is the process's own; otherwise it has to outlive this.
  explicit Variables(const Environment* environment) : _environment(environment) {}

  std::optional<std::string> get(const std::string& name) const;
  /// Whether it says 1, on, yes or true.
  bool is_true(const std::string& name) const;

  /// A leading "~" replaced by the user's home. Throws RuntimeError when that is unknown.
  std::string with_home(std::string text) const;
  /// That, and $NAME and ${NAME} replaced. Of a variable that is not set they stay as they are.
  std::filesystem::path expanded(const std::string& text) const;

  /// Where the hub's programs keep what they keep: HF_HOME, else $XDG_CACHE_HOME/huggingface, else
  /// ~/.cache/huggingface. Throws RuntimeError when the home is needed and unknown.
  std::filesystem::path hub_home() const;

 private:
  std::string _home() const;
  std::string _with_variables(std::string_view text) const;

  const Environment* _environment;
};

std::optional<std::string> Variables::get(const std::string& name) const {
  std::optional<std::string> value = environment_variable(name, _environment);
  if (value && value->empty()) value.reset();
  return value;
}

bool Variables::is_true(const std::string& name) const {
  std::string text = get(name).value_or("");
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  constexpr std::array<std::string_view, 4> kTrue = {"1", "ON", "YES", "TRUE"};
  return std::ranges::find(kTrue, std::string_view(text)) != kTrue.end();
}

std::string Variables::with_home(std::string text) const {
  if (text == "~" || text.starts_with("~/")) text.replace(0, 1, _home());
  return text;
}

std::filesystem::path Variables::expanded(const std::string& text) const {
  return _with_variables(with_home(text));
}

std::filesystem::path Variables::hub_home() const {
  if (const auto home = get("HF_HOME")) return expanded(*home);
  if (const auto cache = get("XDG_CACHE_HOME")) return expanded(*cache) / "huggingface";
  return std::filesystem::path(_home()) / ".cache/huggingface";
}

std::string Variables::_home() const {
  if (std::optional<std::string> home = get("HOME")) return *home;
  std::vector<char> buffer(std::size_t{16} << 10U);
  passwd entry = {};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr ||
      *found->pw_dir == '\0') {
    throw RuntimeError(
        "the home folder is unknown, and with it the model cache: set HOME or HF_HOME");
  }
  return found->pw_dir;
}

std::string Variables::_with_variables(std::string_view text) const {
  std::string result;
  while (!text.empty()) {
    const std::size_t dollar = std::min(text.find('$'), text.size());
    result += text.substr(0, dollar);
    text.remove_prefix(dollar);
    if (text.empty()) break;
    const auto [name, size] = name_in(text);
    const std::optional<std::string> value =
        name.empty() ? std::nullopt : environment_variable(std::string(name), _environment);
    result += value ? *value : text.substr(0, size);
    text.remove_prefix(size);
  }
  return result;
}

std::filesystem::path cache_root(const Variables& variables) {
  if (const auto home = variables.get("SENTENCE_TRANSFORMERS_HOME")) {
    return variables.with_home(*home);
  }
  for (const char* const name : {"HF_HUB_CACHE", "HUGGINGFACE_HUB_CACHE"}) {
    if (const auto root = variables.get(name)) return variables.expanded(*root);
  }
  return variables.hub_home() / "hub";
}

std::string without_line_ends(std::string text) {
  std::erase_if(text, [](char c) { return c == '\r' || c == '\n'; });
  return std::string(trimmed(text));
}

std::string token_file_content(const Variables& variables) {
  try {
    const std::optional<std::string> path = variables.get("HF_TOKEN_PATH");
    std::ifstream file(path ? variables.expanded(*path) : variables.hub_home() / "token");
    std::string content(4096, '\0');
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<std::size_t>(file.gcount()));
    return without_line_ends(std::move(content));
  } catch (const RuntimeError&) {
    return {};  // no home, and so no file in it
  }
}

std::string token(const Variables& variables) {
  if (variables.is_true("HF_HUB_DISABLE_IMPLICIT_TOKEN")) return {};
  for (const char* const name : {"HF_TOKEN", "HUGGING_FACE_HUB_TOKEN"}) {
    std::string token = without_line_ends(variables.get(name).value_or(""));
    if (!token.empty()) return token;
  }
  return token_file_content(variables);
}

std::string endpoint(const Variables& variables, const std::string& otherwise) {
  std::string url = variables.get("HF_ENDPOINT").value_or(otherwise);
  while (url.ends_with('/')) url.pop_back();
  const std::optional<http::UrlOrigin> origin = http::url_origin(url);
  if (!origin || (origin->scheme != "http" && origin->scheme != "https")) {
    throw EnvironmentVariableError(
        "HF_ENDPOINT is '" + http::masked_url(url) +
        "', which is no URL of a hub: it has to begin with https:// or http://");
  }
  return url;
}

double seconds(const Variables& variables, const char* name, double otherwise) {
  const std::optional<std::string> text = variables.get(name);
  if (!text) return otherwise;
  char* end = nullptr;
  const double value = std::strtod(text->c_str(), &end);
  if (*end != '\0' || !(value > 0)) {
    throw EnvironmentVariableError(std::string(name) + " is '" + escape_control_characters(*text) +
                                   "': it has to be a number of seconds above 0");
  }
  return value;
}

}  // namespace

CacheSettings cache_settings(const Environment* environment) {
  std::error_code error;
  const Variables variables(environment);
  const std::string offline_variable =
      variables.get("HF_HUB_OFFLINE") ? "HF_HUB_OFFLINE" : "TRANSFORMERS_OFFLINE";
  const std::filesystem::path given = cache_root(variables);
  std::filesystem::path root = std::filesystem::absolute(given, error);
  if (error) {
    throw ValueError("the model cache " + given.string() +
                     " is a relative path, and the working directory cannot be told (" +
                     error.message() + "): set HF_HUB_CACHE to an absolute one");
  }
  return {
      .root = std::move(root),
      .offline_variable = variables.is_true(offline_variable) ? offline_variable : "",
      .has_links = !variables.is_true("HF_HUB_DISABLE_SYMLINKS"),
  };
}

HubSettings hub_settings(const Environment* environment) {
  const Variables variables(environment);
  const HubSettings defaults;
  return {
      .endpoint = endpoint(variables, defaults.endpoint),
      .token = token(variables),
      .metadata_timeout_s = seconds(variables, "HF_HUB_ETAG_TIMEOUT", defaults.metadata_timeout_s),
      .download_timeout_s =
          seconds(variables, "HF_HUB_DOWNLOAD_TIMEOUT", defaults.download_timeout_s),
  };
}

}  // namespace tovana::hub
