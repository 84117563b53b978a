// Every fault is a ModelFilesError that names the file and what is wrong in it.

#include <algorithm>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "sentence_transformers/model/native_runtime.h"
#include "sentence_transformers/model/sentence_transformer.h"
#include "tests/sentence_transformers/model_files.h"
#include "tests/support/failure_text.h"

namespace tovana::sentence_transformers {
namespace {

/// A check finds what a load does, but for damaged numbers.
void expect_fault(const ModelCopy& model, const std::string& fault, bool is_of_numbers = false) {
  const files::ModelDirectory directory(model.path());
  const std::string failure =
      failure_of([&] { SentenceTransformer::load(directory, NativeRuntime(best_kernels())); });
  EXPECT_THAT(failure,
              testing::AllOf(testing::StartsWith("ModelFilesError: " + model.path().string()),
                             testing::HasSubstr(fault)));
  EXPECT_EQ(failure_of([&] { SentenceTransformer::check(directory, library_runtime()); }),
            is_of_numbers ? "none" : failure);
}

/// A merge patch, and what is said then: of the patched file, or of the one that this begins with.
struct Row {
  std::string patch;  ///< With ' for ".
  std::string fault;  ///< The same.
};

std::string quoted(std::string text) {
  std::ranges::replace(text, '\'', '"');
  return text;
}

void expect_faults(const char* model, const std::string& file, const std::vector<Row>& rows) {
  for (const auto& [patch, fault] : rows) {
    SCOPED_TRACE(patch);
    const ModelCopy copy(model);
    copy.patch(file, nlohmann::json::parse(quoted(patch)));
    expect_fault(copy, fault.starts_with('/') ? quoted(fault) : "/" + file + ": " + quoted(fault));
  }
}

TEST(ModelFaults, OfTheConfiguration) {
  expect_faults(
      "tiny_bert_cls", "config.json",
      {{"null", "absent"},
       {"[]", "does not hold a JSON object"},
       {"{'model_type': 't5'}", "'model_type' is 't5'; supported: bert, camembert"},
       {"{'model_type': 'qwen3'}", "'model_type' is 'qwen3', a decoder; supported are encoders"},
       {"{'hidden_act': 'mish'}", "'hidden_act' is 'mish'; supported: gelu"},
       {"{'vocab_size': 18446744073709551615}", "'vocab_size' is 18446744073709551615 and"},
       {"{'num_attention_heads': 5}", "'hidden_size', 32, is not a"},
       {"{'is_decoder': true}", "'is_decoder' is true; supported: false"},
       {"{'quantization_config': {}}", "'quantization_config' is {}; supported: null"},
       {"{'vocab_size': 352}", "'vocab_size' is 352, and 'embeddings.word_embeddings.weight' has"},
       {"{'intermediate_size': 2147483647}", "'intermediate_size' is 2147483647, and"},
       {"{'num_hidden_layers': 1000000}", "'num_hidden_layers' is 1000000, and the weights have 2"},
       {"{'num_hidden_layers': 1}", "'num_hidden_layers' is 1, and the weights have more"}});
  expect_faults("tiny_mpnet_mean", "config.json",
                {{"{'max_position_embeddings': 2}", "'max_position_embeddings' is 2"},
                 {"{'relative_attention_num_buckets': 31}",
                  "'relative_attention_num_buckets' is 31 and should be a whole number from 32"}});
  expect_faults("tiny_roberta_mean", "config.json",
                {{"{'pad_token_id': 129}", "'max_position_embeddings' is 130, which leaves no"},
                 {"{'position_embedding_type': 'relative_key'}", "'position_embedding_type' is"}});
  expect_faults("tiny_distilbert_mean", "config.json",
                {{"{'n_heads': 7}", "'dim', 40, is not a multiple of 'n_heads', 7"},
                 {"{'n_layers': 2}", "'n_layers' is 2, and the weights have more"}});
  expect_faults("tiny_electra_mean_max", "config.json",
                {{"{'embedding_size': 25}", "'embedding_size' is 25, and 'embeddings.word_e"}});
  expect_faults(
      "tiny_nomic_prompts", "config.json",
      {{"{'rope_scaling': {'type': 'ntk', 'factor': 2}}",
        "'rope_scaling': 'type' is 'ntk'; supported: default, linear"},
       {"{'rope_scaling': {'rope_type': 'linear'}}", "'rope_scaling': 'factor' is not positive"},
       {"{'rope_parameters': {'rope_theta': -1}}", "'rope_parameters': 'rope_theta' is not"},
       {"{'rope_parameters': {'partial_rotary_factor': 0.5}}",
        "'rope_parameters': 'partial_rotary_factor' is not 1"},
       {"{'head_dim': 11}", "heads are 11 wide, and rotary positions ask for an even number"},
       {"{'head_dim': 10}",
        "/model.safetensors: the tensor 'encoder.layers.0.attn.Wqkv.weight' has the shape [144, "},
       {"{'rotary_emb_interleaved': true}", "'rotary_emb_interleaved' is true; supported: false"}});
  expect_faults(
      "tiny_gte_cls", "config.json",
      {{"{'intermediate_size': 57}",
        "/model.safetensors: the tensor 'encoder.layer.0.mlp.up_gate_proj.weight' has the shape"},
       {"{'logn_attention_scale': true}", "'logn_attention_scale' is true; supported"}});
  expect_faults(
      "tiny_modernbert_cls", "config.json",
      {{"{'layer_types': ['full_attention']}", "'layer_types' are 1, and 'num_hidden_"},
       {"{'layer_types': ['x']}", "'layer_types' holds 'x'; supported: full_attention"},
       {"{'rope_scaling': {'type': 'linear'}}", "'rope_scaling' is {"},
       {"{'rope_parameters': {'sliding_attention': {'rope_type': 'yarn'}}}",
        "'rope_parameters': 'sliding_attention': 'rope_type' is 'yarn'; supported: default"}});
  expect_faults("tiny_bert_cls", "sentence_bert_config.json",
                {{"{'max_seq_length': 2.5}", "'max_seq_length' is 2.5 and should be a whole"},
                 {"{'processing_kwargs': {'text': {'truncation': false}}}",
                  "'processing_kwargs.text.truncation' is false; supported: true"},
                 {"{'processing_kwargs': {'text': {'max_length': 129}}}",
                  "'processing_kwargs': 'text': 'max_length' is 129, and the model"},
                 {"{'modality_config': {'message': {}}}", "'modality_config.message' is not"},
                 {"{'model_args': {'trust_remote_code': true}}", "'model_args.trust_remote_"}});
  expect_faults("tiny_bert_cls", "config_sentence_transformers.json",
                {{"{'query_length': 32}", "'query_length' is not supported"},
                 {"{'default_prompt_name': 'x'}", "'default_prompt_name' is 'x'"}});
  expect_faults("tiny_bert_cls", "tokenizer.json",
                {{"{'model': {'vocab': {'[UNK]': null}}}", "the vocabulary lacks the unknown"},
                 {"{'model': {'vocab': {'new': 353}}}", "/config.json: 'vocab_size' is 353, and"}});
  expect_faults("tiny_bert_cls", "1_Pooling/config.json",
                {{"{'pooling_mode': 'median'}", "'pooling_mode' is 'median'; supported: cls, max"},
                 {"{'pooling_modes': 'max'}", "'pooling_modes' is not supported, and might"},
                 {"{'embedding_dimension': null}", "'embedding_dimension' is missing"},
                 {"{'embedding_dimension': 33}", "'embedding_dimension' is 33, and the encoder"}});
  expect_faults(
      "tiny_bert_max_dense", "2_Dense/config.json",
      {{"{'activation_function': 'os.system'}", "'activation_function' is 'os.system'; s"},
       {"{'in_features': 31}", "'in_features' is 31, and 32 floats come in"},
       {"{'module_input_name': 'x'}", "'module_input_name' is 'x'; supported"}});
  expect_faults("tiny_bert_cls", "adapter_config.json", {{"{}", "a model with an adapter"}});

  // A patch cannot make a member null.
  const ModelCopy null;
  write_file(null.path() / "1_Pooling/config.json",
             R"({"embedding_dimension": 32, "pooling_mode": null})");
  expect_fault(null, "/1_Pooling/config.json: \"pooling_mode\" is null");

  // Of a plain model.
  const ModelCopy plain;
  plain.patch("tokenizer_config.json", {{"chat_template", "x"}});
  plain.patch("sentence_bert_config.json", nullptr);
  EXPECT_NO_THROW(
      SentenceTransformer::check(files::ModelDirectory(plain.path()), library_runtime()));
  plain.patch("modules.json", nullptr);
  expect_fault(plain, "/tokenizer_config.json: \"chat_template\" is a template of a chat");
  plain.patch("chat_template.jinja", "x");
  expect_fault(plain, "/chat_template.jinja: a template of a chat");
}

TEST(ModelFaults, OfTheListOfModules) {
  const auto with = [](const std::string& type, const std::string& members) {
    return "[{'type': 'sentence_transformers.models.Transformer', 'path': '', 'name': '0'},"
           " {'type': '" +
           type + "', " + members + "}]";
  };
  const std::string ours = "sentence_transformers.models.";
  expect_faults(
      "tiny_bert_cls", "modules.json",
      {{with("evil.Pooling", "'path': 'x'"), "module 1: the type 'evil.Pooling' is not supported"},
       {with(ours + "LSTM", "'path': 'x'"), "module 1: the type '" + ours + "LSTM' is not"},
       {with(ours + "Normalize", "'path': 'x'"), "supported are a Transformer, then a Pooling"},
       {with(ours + "Pooling", "'path': '../x'"), "/model: '../x' is no folder inside the model"},
       {with(ours + "Pooling", "'path': '9_Pooling'"), "/9_Pooling/config.json: absent"},
       {with(ours + "Pooling", "'path': './'"),
        "module 1: 'path' is './', the folder of the first"},
       {with(ours + "Pooling", "'path': null"), "module 1: 'path' is missing"},
       {with(ours + "Dropout", "'name': '0'"), "module 1: another module has the 'name' '0'"}});
}

TEST(ModelFaults, OfTheTensors) {
  expect_faults(
      "tiny_bert_cls", "model.safetensors",
      {{"{'encoder.layer.1.attention.self.query.weight': {'shape': [16, 64]}}",
        "the tensor 'encoder.layer.1.attention.self.query.weight' has the shape [16, 64], and the"},
       {"{'encoder.layer.1.attention.self.query.weight': {'dtype': 'I32'}}",
        "the tensor 'encoder.layer.1.attention.self.query.weight': weights of type I32 cannot be"},
       {"{'encoder.layer.1.attention.self.query.weight': null,"
        " 'other': {'dtype': 'F32', 'shape': [32, 32], 'data_offsets': [105088, 109184]}}",
        "no tensor 'encoder.layer.1.attention.self.query.weight' of shape [32, 32]"},
       {"{'encoder.layer.0.output.dense.weight': null,"
        " 'other': {'dtype': 'F32', 'shape': [32, 64], 'data_offsets': [88064, 96256]}}",
        "no tensor has the name 'encoder.layer.0.output.dense.weight', or 'bert.encoder."},
       {"{'bert.pooler.dense.bias': {'dtype': 'U8', 'shape': [0], 'data_offsets': [0, 0]}}",
        "the tensor 'pooler.dense.bias' is there under another name"}});

  expect_faults(
      "tiny_modernbert_cls", "model.safetensors",
      {{"{'layers.2.mlp.Wo.weight': null,"
        " 'other': {'dtype': 'F32', 'shape': [48, 36], 'data_offsets': [288192, 295104]}}",
        "no tensor 'layers.2.mlp.Wo.weight' of shape [48, 36]"}});

  for (const std::string tensor : {"LayerNorm.bias", "word_embeddings.weight"}) {
    const ModelCopy damaged;
    const auto file = damaged.path() / "model.safetensors";
    auto [header, data] = read_safetensors(file);
    const std::size_t begin = header["embeddings." + tensor]["data_offsets"][0];
    write_file(file, safetensors_file(header.dump(), data.replace(begin, 4, "\0\0\x80\xFF", 4)));
    expect_fault(damaged, "\"embeddings." + tensor + "\" holds an infinity or NaN", true);
    // Mapped, a table's numbers are first looked at when a text has them.
    const files::ModelDirectory mapped(damaged.path(), damaged.path().parent_path());
    const std::vector<std::string_view> texts = {"[PAD]"};
    std::vector<float> vector(32);
    EXPECT_THAT(failure_of([&] {
                  SentenceTransformer::load(mapped, NativeRuntime(best_kernels()))
                      ->encode(texts, {}, vector.data());
                }),
                testing::HasSubstr("an infinity or NaN"));
  }
}

TEST(ModelFaults, OfEachTensorThatIsMissing) {
  for (const auto& [model, file] : {std::pair("tiny_bert_max_dense", "model.safetensors"),
                                    {"tiny_bert_max_dense", "2_Dense/model.safetensors"},
                                    {"tiny_distilbert_mean", "model.safetensors"},
                                    {"tiny_electra_mean_max", "model.safetensors"},
                                    {"tiny_gte_cls", "model.safetensors"},
                                    {"tiny_mpnet_mean", "model.safetensors"},
                                    {"tiny_nomic_newnames", "model.safetensors"}}) {
    const nlohmann::json tensors = read_safetensors(tiny_model(model) / file).first;
    for (const auto& [name, entry] : tensors.items()) {
      if (name == "__metadata__" || name.starts_with("pooler.")) continue;
      SCOPED_TRACE(name);
      const ModelCopy copy(model);
      copy.patch(file, {{name, nullptr}, {"other", entry}});
      expect_fault(copy, "");
    }
  }
}

}  // namespace
}  // namespace tovana::sentence_transformers
