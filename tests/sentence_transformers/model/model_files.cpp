#include "tests/sentence_transformers/model/model_files.h"

#include <cstring>
#include <fstream>
#include <iterator>

namespace tovana::sentence_transformers {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

std::string content_of(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + file.string());
  return {std::istreambuf_iterator<char>(in), {}};
}

std::string with_length(const std::string& header) {
  const std::uint64_t size = header.size();
  std::string result(sizeof size, '\0');
  std::memcpy(result.data(), &size, sizeof size);
  return result + header;
}

}  // namespace

Reference Reference::read(const fs::path& file, const std::string& key) {
  std::ifstream in(file);
  if (!in) throw std::runtime_error("cannot read " + file.string());
  Reference reference;
  for (std::string line; std::getline(in, line);) {
    const json record = json::parse(line);
    reference.texts.push_back(record.at("text"));
    reference.vectors.push_back(record.at(key));
  }
  return reference;
}

fs::path tiny_model(std::string_view name) {
  return fs::path(TOVANA_TEST_DATA) / "tiny_models" / name;
}

ModelCopy::ModelCopy(std::string_view name) : _model(_folder.path() / "model") {
  fs::copy(tiny_model(name), _model, fs::copy_options::recursive);
}

void ModelCopy::patch(const std::string& file, const json& members) const {
  const fs::path path = _model / file;
  json content = fs::exists(path) ? json::parse(content_of(path)) : json::object();
  content.merge_patch(members);
  write(file, content.dump());
}

void ModelCopy::edit_tensors(const std::function<void(json&)>& edit) const {
  const std::string file = content_of(_model / "model.safetensors");
  std::uint64_t size = 0;
  std::memcpy(&size, file.data(), sizeof size);
  json header = json::parse(file.substr(sizeof size, size));
  edit(header);
  write("model.safetensors", with_length(header.dump()) + file.substr(sizeof size + size));
}

std::string safetensors(const std::map<std::string, Floats>& tensors) {
  json header = json::object();
  std::string data;
  for (const auto& [name, tensor] : tensors) {
    const std::size_t begin = data.size();
    data.append(reinterpret_cast<const char*>(tensor.values.data()),
                tensor.values.size() * sizeof(float));
    header[name] = {
        {"dtype", "F32"}, {"shape", tensor.shape}, {"data_offsets", {begin, data.size()}}};
  }
  return with_length(header.dump()) + data;
}

}  // namespace tovana::sentence_transformers
