#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {

/// A value as it may stand in a message.
std::string shown(const nlohmann::json& value);

/// The members of one of a model's configuration files. A member that is null counts as absent.
/// Every operation throws ModelFilesError, naming file and member, for a value it cannot work with.
class Settings {
 public:
  /// Throws ModelFilesError when `members`, the content of the file `file`, is not a JSON object.
  Settings(nlohmann::json members, std::string file);

  /// The file `name` of the folder; none when it is absent.
  static std::optional<Settings> read(const files::ModelDirectory& directory,
                                      std::string_view name);
  /// The same for a file without which there is no model: ModelFilesError when it is absent.
  static Settings read_required(const files::ModelDirectory& directory, std::string_view name);

  const std::string& file() const noexcept { return _file; }

  const nlohmann::json& members() const noexcept { return _members; }

  /// A member that is an object of its own, in the same file; none when it is absent.
  std::optional<Settings> inner(std::string_view name) const;

  /// Null when the member is absent.
  const nlohmann::json* find(std::string_view name) const;

  /// A whole number from `least` to 2^31 - 1: a count of something that fits into memory.
  std::optional<std::int64_t> count(std::string_view name, std::int64_t least = 1) const;
  /// A whole number of tokens, at least 1. Other programs say "no limit" by some huge number;
  /// whatever is beyond 2^31 - 1 comes out as that.
  std::optional<std::int64_t> limit(std::string_view name) const;
  std::optional<double> number(std::string_view name) const;
  std::optional<bool> flag(std::string_view name) const;
  std::optional<std::string> text(std::string_view name) const;

  /// Fails with "file: fault".
  [[noreturn]] void refuse(const std::string& fault) const;

 private:
  [[noreturn]] void _refuse_value(std::string_view name, std::string_view expected) const;

  nlohmann::json _members;
  std::string _file;
};

}  // namespace tovana::sentence_transformers
