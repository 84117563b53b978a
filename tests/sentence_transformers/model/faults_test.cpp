// Every fault is a ValueError that names the file and what is wrong in it.

#include <functional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sentence_transformers/model/sentence_transformer.h"
#include "tests/sentence_transformers/model/model_copy.h"
#include "tests/support/failure_text.h"

namespace tovana::sentence_transformers {
namespace {

using nlohmann::json;

void expect_fault(const ModelCopy& model, const std::string& fault) {
  EXPECT_THAT(failure_of([&] { SentenceTransformer::load(ModelDirectory(model.path())); }),
              testing::AllOf(testing::StartsWith("ValueError: " + model.path().string()),
                             testing::HasSubstr(fault)));
}

void expect_patch_fault(const std::string& file, const json& members, const std::string& fault,
                        const char* model = "tiny_bert_cls") {
  const ModelCopy copy(model);
  copy.patch(file, members);
  expect_fault(copy, "/" + file + ": " + fault);
}

TEST(ModelFaults, OfTheConfiguration) {
  const auto config = [](const json& members, const std::string& fault) {
    expect_patch_fault("config.json", members, fault);
  };
  config({{"model_type", "t5"}}, R"("model_type" is "t5"; supported: bert, mpnet)");
  config({{"hidden_act", "mish"}}, R"("hidden_act" is "mish"; supported: gelu)");
  config({{"hidden_size", "32"}}, R"("hidden_size" is "\"32\"" and should be a whole)");
  config({{"num_hidden_layers", 0}}, "\"num_hidden_layers\" is \"0\" and should be");
  config({{"vocab_size", 18446744073709551615U}}, "\"vocab_size\" is");
  config({{"num_attention_heads", 5}}, "\"hidden_size\", 32, is no multiple of");
  config({{"position_embedding_type", "relative_key"}}, "\"position_embedding_type\" is");
  config({{"is_decoder", true}}, "\"is_decoder\" is true");
  expect_patch_fault("config.json", {{"max_position_embeddings", 2}},
                     "\"max_position_embeddings\" is 2", "tiny_mpnet_mean");

  const std::string sentence_bert = "sentence_bert_config.json";
  expect_patch_fault(sentence_bert, {{"max_seq_length", 129}},
                     "\"max_seq_length\" is 129, and the model has 128");
  expect_patch_fault(sentence_bert, {{"max_seq_length", 65}},
                     "\"max_seq_length\" is 65, and the model has 64", "tiny_mpnet_mean");
  const std::string sentence_transformers = "config_sentence_transformers.json";
  expect_patch_fault(sentence_transformers, {{"model_type", "SparseEncoder"}},
                     R"("model_type" is "SparseEncoder")");
  expect_patch_fault(sentence_transformers, {{"default_prompt_name", "x"}},
                     R"("default_prompt_name" is "x")");
  expect_patch_fault("1_Pooling/config.json", {{"pooling_mode", "median"}},
                     R"("pooling_mode" is "median"; supported: cls, max)");
  expect_patch_fault("1_Pooling/config.json", {{"embedding_dimension", 33}},
                     "\"embedding_dimension\" is 33, and the encoder's");
  const auto dense = [](const json& members, const std::string& fault) {
    expect_patch_fault("2_Dense/config.json", members, fault, "tiny_bert_max_dense");
  };
  dense({{"activation_function", "os.system"}}, R"("activation_function" is "os.system"; supp)");
  dense({{"in_features", 31}}, "\"in_features\" is 31, and 32 floats come in");
  dense({{"module_input_name", "token_embeddings"}}, R"("module_input_name" is "token_embedd)");

  const ModelCopy model;
  model.write("config.json", "[]");
  expect_fault(model, "config.json: holds no JSON object");
  model.remove("config.json");
  expect_fault(model, "config.json: absent");
  model.write("adapter_config.json", "{}");
  expect_fault(model, "adapter_config.json: ");
}

TEST(ModelFaults, OfTheListOfModules) {
  const ModelCopy model;
  const auto second = [&](const std::string& type, const char* path, const std::string& fault) {
    const json list = {{{"path", ""}, {"type", "sentence_transformers.models.Transformer"}},
                       {{"path", path}, {"type", type}}};
    model.write("modules.json", list.dump());
    expect_fault(model, fault);
  };
  const std::string ours = "sentence_transformers.models.";
  second(ours + "LSTM", "1_Pooling",
         "modules.json: module 1: the type \"" + ours + "LSTM\" is not");
  second("evil.Pooling", "1_Pooling",
         "modules.json: module 1: the type \"evil.Pooling\" is not supported");
  second(ours + "Normalize", "1_Pooling",
         "modules.json: supported are a Transformer, then a Pooling");
  second(ours + "Pooling", "../x", "\"../x\" is no folder inside the model");
  second(ours + "Pooling", "9_Pooling", "9_Pooling/config.json: absent");
}

TEST(ModelFaults, OfTheConfigurationAgainstTheTensors) {
  const auto config = [](const json& members, const std::string& fault) {
    const ModelCopy model;
    model.patch("config.json", members);
    expect_fault(model, "model.safetensors: " + fault);
  };
  config({{"vocab_size", 352}},
         "the tensor \"embeddings.word_embeddings.weight\" has the shape [353");
  config({{"num_hidden_layers", 3}}, "no tensor \"encoder.layer.2.");
  config({{"num_hidden_layers", 1}}, "more layers in the weights than the 1");

  const std::string query = "encoder.layer.1.attention.self.query.weight";
  const auto tensors = [](const std::function<void(json&)>& edit, const std::string& fault) {
    const ModelCopy model;
    model.edit_tensors(edit);
    expect_fault(model, "model.safetensors: " + fault);
  };
  tensors(
      [&](json& header) {
        header["other"] = header[query];
        header.erase(query);
      },
      "no tensor \"" + query + "\" of shape [32, 32]");
  tensors(
      [&](json& header) {
        header[query]["shape"] = json({16, 64});
      },
      "the tensor \"" + query + "\" has the shape [16, 64], and the configuration asks for");
  tensors([&](json& header) { header[query]["dtype"] = "I32"; }, "the tensor \"" + query + "\": ");
}

}  // namespace
}  // namespace tovana::sentence_transformers
