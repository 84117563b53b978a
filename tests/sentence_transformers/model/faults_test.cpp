// Every fault is a ValueError that names the file and what is wrong in it.

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sentence_transformers/model/sentence_transformer.h"
#include "tests/sentence_transformers/model/model_files.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

using nlohmann::json;

struct Fault {
  std::string model;
  std::function<void(const ModelCopy&)> make;
  std::string message;  ///< A part of it.
};

Fault patched(const std::string& file, const json& members, const std::string& message,
              const std::string& model = "tiny_bert_cls") {
  return {model, [=](const ModelCopy& copy) { copy.patch(file, members); },
          file.substr(file.rfind('/') + 1) + ": " + message};
}

/// A configuration that the tensors do not agree with.
Fault contradicted(const json& members, const std::string& message) {
  return {"tiny_bert_cls", [=](const ModelCopy& copy) { copy.patch("config.json", members); },
          "model.safetensors: " + message};
}

Fault modules(const std::string& second_type, const std::string& path, const std::string& message) {
  const json list = {{{"path", ""}, {"type", "sentence_transformers.models.Transformer"}},
                     {{"path", path}, {"type", second_type}}};
  return {"tiny_bert_cls", [=](const ModelCopy& copy) { copy.write("modules.json", list.dump()); },
          message};
}

Fault tensors(const std::function<void(json&)>& edit, const std::string& message) {
  return {"tiny_bert_cls", [=](const ModelCopy& copy) { copy.edit_tensors(edit); }, message};
}

std::vector<Fault> faults() {
  const std::string query = "encoder.layer.1.attention.self.query.weight";
  const std::string dense = "2_Dense/config.json";
  return {
      patched("config.json", {{"model_type", "t5"}},
              R"("model_type" is "t5"; supported: bert, mpnet)"),
      patched("config.json", {{"hidden_act", "mish"}},
              R"("hidden_act" is "mish"; supported: gelu)"),
      patched("config.json", {{"hidden_size", "32"}},
              R"("hidden_size" is "\"32\"" and should be a whole)"),
      patched("config.json", {{"num_hidden_layers", 0}},
              "\"num_hidden_layers\" is \"0\" and should be"),
      patched("config.json", {{"vocab_size", 18446744073709551615U}}, "\"vocab_size\" is"),
      patched("config.json", {{"num_attention_heads", 5}},
              "\"hidden_size\", 32, is no multiple of"),
      patched("config.json", {{"position_embedding_type", "relative_key"}},
              "\"position_embedding_type\" is"),
      patched("config.json", {{"is_decoder", true}}, "\"is_decoder\" is true"),
      patched("config.json", {{"max_position_embeddings", 2}}, "\"max_position_embeddings\" is 2",
              "tiny_mpnet_mean"),
      patched("sentence_bert_config.json", {{"max_seq_length", 129}},
              "\"max_seq_length\" is 129, and the model has 128"),
      patched("sentence_bert_config.json", {{"max_seq_length", 65}},
              "\"max_seq_length\" is 65, and the model has 64", "tiny_mpnet_mean"),
      patched("config_sentence_transformers.json", {{"model_type", "SparseEncoder"}},
              R"("model_type" is "SparseEncoder")"),
      patched("config_sentence_transformers.json", {{"default_prompt_name", "x"}},
              R"("default_prompt_name" is "x")"),
      patched("1_Pooling/config.json", {{"pooling_mode", "median"}},
              R"("pooling_mode" is "median"; supported: cls, max)"),
      patched("1_Pooling/config.json", {{"embedding_dimension", 33}},
              "\"embedding_dimension\" is 33, and the encoder's"),
      patched(dense, {{"activation_function", "os.system"}},
              R"("activation_function" is "os.system"; supp)", "tiny_bert_max_dense"),
      patched(dense, {{"in_features", 31}}, "\"in_features\" is 31, and 32 floats come in",
              "tiny_bert_max_dense"),
      patched(dense, {{"module_input_name", "token_embeddings"}},
              R"("module_input_name" is "token_embeddings")", "tiny_bert_max_dense"),
      modules("sentence_transformers.models.LSTM", "1_Pooling",
              R"(the type "sentence_transformers.models.LSTM" is not)"),
      modules("evil.Pooling", "1_Pooling", R"(the type "evil.Pooling" is not supported)"),
      modules("sentence_transformers.models.Normalize", "1_Pooling",
              "a Transformer, then a Pooling"),
      modules("sentence_transformers.models.Pooling", "../x",
              "\"../x\" is no folder inside the model"),
      modules("sentence_transformers.models.Pooling", "9_Pooling", "9_Pooling/config.json: absent"),
      {"tiny_bert_cls", [](const ModelCopy& copy) { copy.write("adapter_config.json", "{}"); },
       "PEFT"},
      {"tiny_bert_cls", [](const ModelCopy& copy) { copy.remove("config.json"); },
       "config.json: absent"},
      {"tiny_bert_cls", [](const ModelCopy& copy) { copy.write("config.json", "[]"); },
       "holds no JSON object"},
      // The configuration against the tensors.
      contradicted({{"vocab_size", 352}},
                   "the tensor \"embeddings.word_embeddings.weight\" has the shape [353, 32], and"),
      contradicted({{"num_hidden_layers", 3}}, "no tensor \"encoder.layer.2."),
      contradicted({{"num_hidden_layers", 1}}, "more layers in the weights than the 1"),
      tensors(
          [=](json& header) {
            header["other"] = header[query];
            header.erase(query);
          },
          "no tensor \"" + query + "\" of shape [32, 32]"),
      tensors(
          [=](json& header) {
            header[query]["shape"] = {16, 64};
          },
          "\"" + query + "\" has the shape [16, 64], and the configuration asks for [32, 32]"),
      tensors([=](json& header) { header[query]["dtype"] = "I32"; }, "\"" + query + "\": "),
  };
}

TEST(ModelFaults, AreRefusedByName) {
  for (const Fault& fault : faults()) {
    const ModelCopy model(fault.model);
    fault.make(model);
    try {
      SentenceTransformer::load(ModelDirectory(model.path()));
      ADD_FAILURE() << "loaded in spite of: " << fault.message;
    } catch (const ValueError& error) {
      EXPECT_THAT(error.what(), testing::StartsWith(model.path().string()));
      EXPECT_THAT(error.what(), testing::HasSubstr(fault.message));
    }
  }
}

}  // namespace
}  // namespace tovana::sentence_transformers
