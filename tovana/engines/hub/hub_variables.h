#pragma once

#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "tovana/base/environment.h"

namespace tovana::hub {

/// The environment as programs that use the hub read it: what is empty is not set.
class HubVariables {
 public:
  /// Null is the process's own; otherwise it has to outlive this.
  explicit HubVariables(const Environment* environment) : _environment(environment) {}

  std::optional<std::string> get(const std::string& name) const;
  /// The first of the variables that is set.
  std::optional<std::string> first_of(std::initializer_list<const char*> names) const;
  /// Whether the first of them that is set says 1, on, yes or true.
  bool is_true(std::initializer_list<const char*> names) const;

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

}  // namespace tovana::hub
