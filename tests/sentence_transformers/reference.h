#pragma once

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace tovana::sentence_transformers {

inline std::filesystem::path tiny_model(std::string_view name) {
  return std::filesystem::path(TOVANA_TEST_DATA) / "tiny_models" / name;
}

/// What the models' own library made of some texts: one object for each, with "text", "ids" and
/// vectors under several names. All-MiniLM-L6-v2's are in a file of their own.
inline std::vector<nlohmann::json> read_references(const std::filesystem::path& file) {
  std::ifstream in(file);
  std::vector<nlohmann::json> references;
  for (std::string line; std::getline(in, line);) references.push_back(nlohmann::json::parse(line));
  if (references.empty()) throw std::runtime_error(file.string() + " holds no references");
  return references;
}

}  // namespace tovana::sentence_transformers
