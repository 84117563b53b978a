#include "sentence_transformers/model/settings.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace tovana::sentence_transformers {
namespace {

constexpr std::int64_t kMost = std::numeric_limits<std::int32_t>::max();

}  // namespace

std::string shown(const nlohmann::json& value) {
  constexpr std::size_t kLongest = 120;
  const std::string text = value.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
  return text.size() > kLongest ? text.substr(0, kLongest) + "..." : text;
}

Settings::Settings(nlohmann::json members, std::string file)
    : _members(std::move(members)), _file(std::move(file)) {
  if (!_members.is_object()) refuse("does not hold a JSON object");
}

std::optional<Settings> Settings::read(const files::ModelDirectory& directory,
                                       std::string_view name) {
  std::optional<nlohmann::json> members = directory.read_json(name);
  if (!members) return std::nullopt;
  return Settings(std::move(*members), directory.path_of(name));
}

Settings Settings::read_required(const files::ModelDirectory& directory, std::string_view name) {
  std::optional<Settings> settings = read(directory, name);
  if (!settings)
    throw files::ModelFilesError(directory.path_of(name) + ": absent, and no model without it");
  return *std::move(settings);
}

std::optional<Settings> Settings::inner(std::string_view name) const {
  const nlohmann::json* const value = find(name);
  if (value == nullptr) return std::nullopt;
  return Settings(*value, _file + ": " + files::in_quotes(name));
}

const nlohmann::json* Settings::find(std::string_view name) const {
  const auto member = _members.find(name);
  return member == _members.end() || member->is_null() ? nullptr : &*member;
}

std::optional<std::int64_t> Settings::count(std::string_view name, std::int64_t least) const {
  const nlohmann::json* const value = find(name);
  if (value == nullptr) return std::nullopt;
  // A number above the largest std::int64_t would come out negative.
  if (!value->is_number_integer() || value->get<std::int64_t>() < least ||
      value->get<std::int64_t>() > kMost) {
    _refuse_value(name,
                  "a whole number from " + std::to_string(least) + " to " + std::to_string(kMost));
  }
  return value->get<std::int64_t>();
}

std::optional<std::int64_t> Settings::limit(std::string_view name) const {
  const std::optional<double> value = number(name);
  if (!value) return std::nullopt;
  if (!(*value >= 1) || *value != std::floor(*value)) {
    _refuse_value(name, "a whole number, at least 1");
  }
  return static_cast<std::int64_t>(std::min(*value, static_cast<double>(kMost)));
}

std::optional<double> Settings::number(std::string_view name) const {
  const nlohmann::json* const value = find(name);
  if (value == nullptr) return std::nullopt;
  if (!value->is_number()) _refuse_value(name, "a number");
  return value->get<double>();
}

std::optional<bool> Settings::flag(std::string_view name) const {
  const nlohmann::json* const value = find(name);
  if (value == nullptr) return std::nullopt;
  if (!value->is_boolean()) _refuse_value(name, "true or false");
  return value->get<bool>();
}

std::optional<std::string> Settings::text(std::string_view name) const {
  const nlohmann::json* const value = find(name);
  if (value == nullptr) return std::nullopt;
  if (!value->is_string()) _refuse_value(name, "a string");
  return value->get<std::string>();
}

void Settings::refuse(const std::string& fault) const {
  throw files::ModelFilesError(_file + ": " + fault);
}

void Settings::_refuse_value(std::string_view name, std::string_view expected) const {
  refuse(files::in_quotes(name) + " is " + shown(*find(name)) + " and should be " +
         std::string(expected));
}

}  // namespace tovana::sentence_transformers
