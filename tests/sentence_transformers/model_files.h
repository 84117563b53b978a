#pragma once

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/support/temp_folder.h"

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

/// A file in the safetensors format: the header's length, the header and the data.
inline std::string safetensors_file(std::string_view header, std::string_view data) {
  const std::uint64_t size = header.size();
  std::string file(sizeof size, '\0');
  std::memcpy(file.data(), &size, sizeof size);
  return file.append(header).append(data);
}

/// The header of such a file, and the data behind it.
inline std::pair<nlohmann::json, std::string> read_safetensors(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::string content(std::istreambuf_iterator<char>(in), {});
  std::uint64_t size = 0;
  std::memcpy(&size, content.data(), sizeof size);
  return {nlohmann::json::parse(content.substr(sizeof size, size)),
          content.substr(sizeof size + size)};
}

/// A copy of one of the tiny models, to be changed file by file.
class ModelCopy {
 public:
  explicit ModelCopy(std::string_view name = "tiny_bert_cls") {
    std::filesystem::copy(tiny_model(name), path(), std::filesystem::copy_options::recursive);
  }

  std::filesystem::path path() const { return _folder.path() / "model"; }

  /// A merge patch of a JSON file, which need not be there, or of the header of a safetensors file;
  /// null for the whole removes the file.
  void patch(const std::string& file, const nlohmann::json& change) const {
    if (change.is_null()) {
      std::filesystem::remove(path() / file);
      return;
    }
    if (file.ends_with(".safetensors")) {
      auto [header, data] = read_safetensors(path() / file);
      header.merge_patch(change);
      write_file(path() / file, safetensors_file(header.dump(), data));
      return;
    }
    std::ifstream in(path() / file);
    nlohmann::json patched = in ? nlohmann::json::parse(in) : nlohmann::json::object();
    patched.merge_patch(change);
    write_file(path() / file, patched.dump());
  }

 private:
  TempFolder _folder;
};

}  // namespace tovana::sentence_transformers
