#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/support/temp_folder.h"

namespace tovana::sentence_transformers {

/// Texts with the vectors that the models' own library made of them.
struct Reference {
  std::vector<std::string> texts;
  std::vector<std::vector<double>> vectors;

  /// From a file of JSON objects, one a line; the vectors are the member `key`.
  static Reference read(const std::filesystem::path& file, const std::string& key);
};

std::filesystem::path tiny_model(std::string_view name);

/// A copy of one of the tiny models, to be changed file by file.
class ModelCopy {
 public:
  explicit ModelCopy(std::string_view name);

  const std::filesystem::path& path() const { return _model; }

  void write(const std::string& file, std::string_view content) const {
    write_file(_model / file, content);
  }
  void remove(const std::string& file) const { std::filesystem::remove(_model / file); }
  /// Sets members of a JSON file, which is made if it is absent; null removes one.
  void patch(const std::string& file, const nlohmann::json& members) const;
  /// Changes the header of model.safetensors; the data stays as it is.
  void edit_tensors(const std::function<void(nlohmann::json& header)>& edit) const;

 private:
  TempFolder _folder;
  std::filesystem::path _model;
};

/// A safetensors file of float32 tensors.
struct Floats {
  std::vector<std::int64_t> shape;
  std::vector<float> values;
};
std::string safetensors(const std::map<std::string, Floats>& tensors);

}  // namespace tovana::sentence_transformers
