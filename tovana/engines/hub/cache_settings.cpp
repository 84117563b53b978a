#include "tovana/engines/hub/cache_settings.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <pwd.h>
#include <unistd.h>

#include "tovana/exceptions/exceptions.h"

namespace tovana::hub {
namespace {

constexpr std::string_view kUnderCacheHome = "huggingface";

/// One environment, in which what is empty is not set.
class Variables {
 public:
  explicit Variables(const Environment* environment) : _environment(environment) {}

  std::optional<std::string> get(const std::string& name) const {
    std::optional<std::string> value = environment_variable(name, _environment);
    if (value && value->empty()) value.reset();
    return value;
  }

  /// The first of the variables that is set.
  std::optional<std::string> first_of(std::initializer_list<const char*> names) const {
    for (const char* const name : names) {
      if (std::optional<std::string> value = get(name)) return value;
    }
    return std::nullopt;
  }

  std::string home() const {
    if (std::optional<std::string> home = get("HOME")) return *home;
    std::vector<char> buffer(std::size_t{16} << 10U);
    passwd entry = {};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 ||
        found == nullptr || *found->pw_dir == '\0') {
      throw RuntimeError(
          "the home folder is unknown, and with it the model cache: set HOME or HF_HOME");
    }
    return found->pw_dir;
  }

  std::string with_home(std::string text) const {
    if (text == "~" || text.starts_with("~/")) text.replace(0, 1, home());
    return text;
  }

  std::string with_variables(std::string_view text) const {
    std::string result;
    while (!text.empty()) {
      const std::size_t dollar = std::min(text.find('$'), text.size());
      result += text.substr(0, dollar);
      text.remove_prefix(dollar);
      if (text.empty()) break;
      const auto [name, size] = _reference(text);
      const std::optional<std::string> value =
          name.empty() ? std::nullopt : environment_variable(std::string(name), _environment);
      result += value ? *value : text.substr(0, size);
      text.remove_prefix(size);
    }
    return result;
  }

 private:
  struct Reference {
    std::string_view name;  ///< Empty: just a dollar sign.
    std::size_t size;
  };

  /// What stands at the head of `text`, which begins with a dollar sign.
  static Reference _reference(std::string_view text) {
    if (text.starts_with("${")) {
      const std::size_t end = text.find('}');
      if (end == std::string_view::npos) return {{}, 1};
      return {text.substr(2, end - 2), end + 1};
    }
    const auto end = std::find_if_not(text.begin() + 1, text.end(), [](char c) {
      return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    });
    const auto size = static_cast<std::size_t>(end - text.begin());
    return {text.substr(1, size - 1), size};
  }

  const Environment* _environment;
};

std::filesystem::path cache_root(const Variables& variables) {
  if (const auto home = variables.get("SENTENCE_TRANSFORMERS_HOME")) {
    return variables.with_home(*home);
  }
  const auto expanded = [&variables](const std::string& text) {
    return std::filesystem::path(variables.with_variables(variables.with_home(text)));
  };
  if (const auto root = variables.first_of({"HF_HUB_CACHE", "HUGGINGFACE_HUB_CACHE"})) {
    return expanded(*root);
  }
  if (const auto home = variables.get("HF_HOME")) return expanded(*home) / "hub";
  if (const auto cache = variables.get("XDG_CACHE_HOME")) {
    return expanded(*cache) / kUnderCacheHome / "hub";
  }
  return std::filesystem::path(variables.home()) / ".cache" / kUnderCacheHome / "hub";
}

bool is_true(std::string text) {
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  constexpr std::array<std::string_view, 4> kTrue = {"1", "ON", "YES", "TRUE"};
  return std::ranges::find(kTrue, std::string_view(text)) != kTrue.end();
}

}  // namespace

CacheSettings cache_settings(const Environment* environment) {
  const Variables variables(environment);
  return {
      .root = std::filesystem::absolute(cache_root(variables)),
      .is_offline =
          is_true(variables.first_of({"HF_HUB_OFFLINE", "TRANSFORMERS_OFFLINE"}).value_or("")),
  };
}

}  // namespace tovana::hub
