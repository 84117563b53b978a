#include "tovana/engines/hub/hub_variables.h"

#include <algorithm>
#include <array>
#include <vector>

#include <pwd.h>
#include <unistd.h>

#include "tovana/exceptions/exceptions.h"

namespace tovana::hub {
namespace {

struct Reference {
  std::string_view name;  ///< Empty: just a dollar sign.
  std::size_t size;
};

/// What stands at the head of `text`, which begins with a dollar sign.
Reference reference_in(std::string_view text) {
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

}  // namespace

std::optional<std::string> HubVariables::get(const std::string& name) const {
  std::optional<std::string> value = environment_variable(name, _environment);
  if (value && value->empty()) value.reset();
  return value;
}

std::optional<std::string> HubVariables::first_of(std::initializer_list<const char*> names) const {
  for (const char* const name : names) {
    if (std::optional<std::string> value = get(name)) return value;
  }
  return std::nullopt;
}

bool HubVariables::is_true(std::initializer_list<const char*> names) const {
  std::string text = first_of(names).value_or("");
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  constexpr std::array<std::string_view, 4> kTrue = {"1", "ON", "YES", "TRUE"};
  return std::ranges::find(kTrue, std::string_view(text)) != kTrue.end();
}

std::string HubVariables::with_home(std::string text) const {
  if (text == "~" || text.starts_with("~/")) text.replace(0, 1, _home());
  return text;
}

std::filesystem::path HubVariables::expanded(const std::string& text) const {
  return _with_variables(with_home(text));
}

std::filesystem::path HubVariables::hub_home() const {
  if (const auto home = get("HF_HOME")) return expanded(*home);
  if (const auto cache = get("XDG_CACHE_HOME")) return expanded(*cache) / "huggingface";
  return std::filesystem::path(_home()) / ".cache/huggingface";
}

std::string HubVariables::_home() const {
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

std::string HubVariables::_with_variables(std::string_view text) const {
  std::string result;
  while (!text.empty()) {
    const std::size_t dollar = std::min(text.find('$'), text.size());
    result += text.substr(0, dollar);
    text.remove_prefix(dollar);
    if (text.empty()) break;
    const auto [name, size] = reference_in(text);
    const std::optional<std::string> value =
        name.empty() ? std::nullopt : environment_variable(std::string(name), _environment);
    result += value ? *value : text.substr(0, size);
    text.remove_prefix(size);
  }
  return result;
}

}  // namespace tovana::hub
