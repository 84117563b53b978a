#include "tovana/config/config_file.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#define TOML_HEADER_ONLY 1
#include <toml++/toml.h>

#include "tovana/exceptions/exceptions.h"

namespace tovana {
namespace {

std::string read_file(const std::filesystem::path& file) {
  try {
    std::ifstream input;
    input.exceptions(std::ios::failbit);
    input.open(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(input), {}};
  } catch (const std::ios_base::failure&) {  // whose own words leave the cause out
    throw RuntimeError("cannot read the settings " + file.string() + ": " + std::strerror(errno));
  }
}

std::string place(const std::filesystem::path& file, const toml::source_region& source) {
  return file.string() + ":" + std::to_string(source.begin.line);
}

/// The text of a key in a section; null when there is none.
std::optional<std::string> text(const toml::table& settings, const std::filesystem::path& file,
                                const char* section, const char* key) {
  const toml::node* const table = settings.get(section);
  if (table == nullptr) return std::nullopt;
  if (!table->is_table()) {
    throw ValueError(place(file, table->source()) + ": " + section + " must be a section, [" +
                     section + "]");
  }
  const toml::node* const value = table->as_table()->get(key);
  if (value == nullptr) return std::nullopt;
  if (!value->is_string()) {
    throw ValueError(place(file, value->source()) + ": " + section + "." + key +
                     " must be a text in quotes");
  }
  return value->as_string()->get();
}

}  // namespace

Config load_config(const std::filesystem::path& file) {
  const std::string content = read_file(file);
  Config config;
  try {
    const toml::table settings = toml::parse(content);
    if (auto backend = text(settings, file, "daemon", "embedding_backend")) {
      config.daemon.embedding_backend = *std::move(backend);
    }
    config.generation.base_url = text(settings, file, "generation", "base_url");
    config.generation.embedding_model = text(settings, file, "generation", "embedding_model");
  } catch (const toml::parse_error& error) {
    throw ValueError(place(file, error.source()) +
                     ": not TOML: " + std::string(error.description()));
  }
  return config;
}

std::optional<std::filesystem::path> user_config_file(const Environment* environment) {
  std::filesystem::path folder = environment_variable("XDG_CONFIG_HOME", environment).value_or("");
  // A relative path in the variable is invalid and passed over, as an empty one is.
  if (!folder.is_absolute()) {
    folder = environment_variable("HOME", environment).value_or("");
    if (!folder.is_absolute()) return std::nullopt;
    folder /= ".config";
  }
  return folder / "tovana" / "settings.toml";
}

}  // namespace tovana
