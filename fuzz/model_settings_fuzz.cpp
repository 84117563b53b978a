#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

#include "sentence_transformers/model/native_runtime.h"
#include "sentence_transformers/model/sentence_transformer.h"
#include "tovana/exceptions/exceptions.h"
#include "tovana/files/model_directory.h"

/// Any bytes are one of the JSON files of a small model that is sound otherwise: the first two say
/// which file of which model, the rest is what it holds. The model either loads and embeds, or is
/// refused in one line.
namespace {

namespace fs = std::filesystem;
namespace st = tovana::sentence_transformers;

constexpr std::array kModels = {"tiny_bert_max_dense",  "tiny_mpnet_odd_dense",
                                "tiny_distilbert_mean", "tiny_electra_mean_max",
                                "tiny_roberta_mean",    "tiny_camembert_shards",
                                "tiny_modernbert_cls",  "tiny_modernbert_mean_old",
                                "tiny_nomic_prompts",   "tiny_nomic_newnames",
                                "tiny_gte_cls",         "tiny_gte_xlmr_prefixed"};
constexpr std::array kFiles = {"config.json",
                               "modules.json",
                               "1_Pooling/config.json",
                               "2_Dense/config.json",
                               "config_sentence_transformers.json",
                               "sentence_bert_config.json",
                               "tokenizer_config.json",
                               "model.safetensors.index.json"};

void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "model_settings_fuzz: %s\n", what);
  std::abort();
}

/// Copies of the models, of this process alone, until it ends.
class Models {
 public:
  Models()
      : _root(fs::temp_directory_path() / ("model_settings_fuzz." + std::to_string(getpid()))) {
    fs::remove_all(_root);
    fs::create_directories(_root);
    for (const char* name : kModels) {
      fs::copy(fs::path(TOVANA_TEST_DATA) / "tiny_models" / name, _root / name,
               fs::copy_options::recursive);
    }
  }
  ~Models() { fs::remove_all(_root); }
  Models(const Models&) = delete;
  Models& operator=(const Models&) = delete;

  fs::path folder(std::size_t number) const { return _root / kModels[number % kModels.size()]; }

 private:
  fs::path _root;
};

/// Puts something in a file's place for as long as it lives; the file need not be there.
class Replaced {
 public:
  Replaced(fs::path file, std::string_view content) : _file(std::move(file)) {
    if (fs::exists(_file)) {
      _aside = _file;
      _aside += ".aside";
      fs::rename(_file, _aside);
    }
    fs::create_directories(_file.parent_path());
    std::ofstream(_file, std::ios::binary) << content;
  }
  ~Replaced() {
    fs::remove(_file);
    if (!_aside.empty()) fs::rename(_aside, _file);
  }
  Replaced(const Replaced&) = delete;
  Replaced& operator=(const Replaced&) = delete;

 private:
  fs::path _file;
  fs::path _aside;
};

void embed(const st::SentenceTransformer& model) {
  const std::array<std::string_view, 2> texts = {"", "Two words, \xC3\xA9t\xC3\xA9 123"};
  std::vector<float> vectors(texts.size() * model.dimension());
  model.encode(texts, {.normalize = true}, vectors.data());
  for (const float number : vectors) require(std::isfinite(number), "a number is not finite");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Models models;
  if (size < 2) return 0;
  const fs::path folder = models.folder(data[0]);
  const Replaced file(folder / kFiles[data[1] % kFiles.size()],
                      {reinterpret_cast<const char*>(data) + 2, size - 2});
  try {
    static const st::NativeRuntime runtime(st::best_kernels());
    embed(*st::SentenceTransformer::load(tovana::files::ModelDirectory(folder), runtime));
  } catch (const tovana::Error& error) {
    const std::string_view message = error.what();
    require(!message.empty() && message.find('\n') == std::string_view::npos,
            "an error is not one line");
  }
  return 0;
}
