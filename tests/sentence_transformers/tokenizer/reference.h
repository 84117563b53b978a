#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

/// Texts with the ids that the models' own library gave them.
namespace tovana::sentence_transformers::test {

struct Reference {
  std::string text;
  std::vector<std::int32_t> ids;
};

/// The value of a variable that the test is run with.
inline std::string from_environment(const char* name) {
  const char* const value = std::getenv(name);
  if (value == nullptr) throw std::runtime_error(std::string(name) + " is not set");
  return value;
}

inline std::vector<Reference> read_references(const std::filesystem::path& path) {
  std::ifstream file(path);
  std::vector<Reference> references;
  for (std::string line; std::getline(file, line);) {
    const nlohmann::json json = nlohmann::json::parse(line);
    references.push_back({json.at("text"), json.at("ids")});
  }
  if (references.empty()) throw std::runtime_error(path.string() + " holds no references");
  return references;
}

}  // namespace tovana::sentence_transformers::test
