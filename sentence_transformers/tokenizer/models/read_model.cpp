#include "sentence_transformers/tokenizer/models/read_model.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "sentence_transformers/tokenizer/models/unigram.h"
#include "sentence_transformers/tokenizer/models/vocabulary.h"
#include "sentence_transformers/tokenizer/models/word_piece.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/words.h"
#include "sentence_transformers/tokenizer/step_json.h"

namespace tovana::sentence_transformers {
namespace {

constexpr std::string_view kModel = "model";
constexpr std::string_view kUnknown = "unk_token";
constexpr std::string_view kPrefix = "continuing_subword_prefix";

/// Older files do not name the model's type, which is then known by its members.
std::string_view model_type(const JsonObject& model) {
  if (model.find("type")) return type_of(model);
  if (model.find("merges")) return "BPE";
  const auto vocabulary = model.find("vocab");
  return vocabulary && vocabulary->is_array() ? "Unigram" : "WordPiece";
}

JsonObject any_model_of(const JsonObject& tokenizer_json) {
  const auto model = tokenizer_json.object(kModel);
  if (!model) tokenizer_json.refuse(kModel, "is missing");
  return *model;
}

ModelStep read_word_piece(const JsonObject& model) {
  constexpr std::string_view kMost = "max_input_chars_per_word";
  refuse_others(model, {kUnknown, kPrefix, kMost, "vocab"});
  WordPieceOptions options;
  options.unknown_token = model.text(kUnknown).value_or("[UNK]");
  options.continuing_prefix = model.text(kPrefix).value_or("##");
  options.most_characters = static_cast<std::size_t>(model.id(kMost).value_or(100));
  if (options.most_characters > Words::kMostCharacters) {
    model.refuse(kMost, "is above the limit of " + std::to_string(Words::kMostCharacters));
  }
  return made_of(model, "vocab",
                 [&] { return std::make_unique<WordPiece>(read_ids(model), options); });
}

/// Two texts, or one with a space between them.
BytePairEncoding::Merge read_merge(const JsonObject& model, const JsonObject::Value& value) {
  constexpr std::string_view kMerges = "merges";
  JsonObject::Array pair;
  if (value.get(pair) == simdjson::SUCCESS && pair.size() == 2) {
    return {model.text_of(pair.at(0), kMerges), model.text_of(pair.at(1), kMerges)};
  }
  const std::string_view both = model.text_of(value, kMerges);
  const std::size_t space = both.find(' ');
  if (space == std::string_view::npos || both.find(' ', space + 1) != std::string_view::npos) {
    model.refuse(kMerges, "holds " + shown(value) + ", which is not two tokens");
  }
  return {both.substr(0, space), both.substr(space + 1)};
}

ModelStep read_byte_pair_encoding(const JsonObject& model) {
  constexpr std::string_view kSuffix = "end_of_word_suffix";
  constexpr std::string_view kDropout = "dropout";
  refuse_others(model, {kDropout, kUnknown, kPrefix, kSuffix, "fuse_unk", "byte_fallback",
                        "ignore_merges", "vocab", "merges"});
  if (model.number(kDropout).value_or(0) != 0) {
    model.refuse(kDropout, "is not 0: the same text would have other tokens each time");
  }
  BytePairOptions options;
  if (const auto unknown = model.text(kUnknown)) options.unknown_token = *unknown;
  options.continuing_prefix = model.text(kPrefix).value_or("");
  options.word_suffix = model.text(kSuffix).value_or("");
  options.fuse_unknown = model.flag("fuse_unk").value_or(false);
  options.byte_fallback = model.flag("byte_fallback").value_or(false);
  options.ignore_merges = model.flag("ignore_merges").value_or(false);
  return make_byte_pair_encoding(model, options);
}

/// A score as the tokenizers library reads it from its file: the digits as a whole number, divided
/// by a power of ten, which rounds twice. Two ways to cut a run of one character apart differ by
/// that last bit. Named classes read their files otherwise, and round once.
double twice_rounded(double score) {
  std::array<char, 32> text;
  const auto end =
      std::to_chars(text.data(), text.data() + text.size(), score, std::chars_format::scientific)
          .ptr;
  const std::string_view shortest(text.data(), static_cast<std::size_t>(end - text.data()));
  const std::size_t mark = shortest.find('e');
  std::uint64_t digits = 0;
  int exponent = 0;
  std::from_chars(text.data() + mark + (shortest[mark + 1] == '+' ? 2 : 1), end, exponent);
  bool is_fraction = false;
  for (const char character : shortest.substr(0, mark)) {
    if (character == '.') is_fraction = true;
    if (character < '0' || character > '9') continue;
    digits = digits * 10 + static_cast<std::uint64_t>(character - '0');
    if (is_fraction) --exponent;
  }
  const std::string power = "1e" + std::to_string(std::abs(exponent));
  double factor = 1;
  std::from_chars(power.data(), power.data() + power.size(), factor);
  const auto whole = static_cast<double>(digits);
  return std::copysign(exponent < 0 ? whole / factor : whole * factor, score);
}

ModelStep read_unigram(const JsonObject& model) {
  constexpr std::string_view kUnknownId = "unk_id";
  refuse_others(model, {kUnknownId, "vocab", "byte_fallback"});
  const auto unknown_id = model.id(kUnknownId);
  if (!unknown_id) model.refuse(kUnknownId, "is missing");
  const bool byte_fallback = model.flag("byte_fallback").value_or(false);
  return made_of(model, "vocab", [&] {
    auto scores = read_scores(model);
    for (auto& [token, score] : scores) score = twice_rounded(score);
    return std::make_unique<Unigram>(scores, *unknown_id, byte_fallback);
  });
}

}  // namespace

ModelStep read_model(const JsonObject& tokenizer_json) {
  const JsonObject model = any_model_of(tokenizer_json);
  const std::string_view type = model_type(model);
  if (type == "WordPiece") return read_word_piece(model);
  if (type == "BPE") return read_byte_pair_encoding(model);
  if (type == "Unigram") return read_unigram(model);
  refuse_type(model);
}

JsonObject model_of(const JsonObject& tokenizer_json, std::string_view type) {
  JsonObject model = any_model_of(tokenizer_json);
  const std::string_view its = model_type(model);
  if (its != type) {
    tokenizer_json.refuse(kModel, "is " + files::in_quotes(its) +
                                      " where the tokenizer's class has " + files::in_quotes(type));
  }
  return model;
}

ModelStep make_byte_pair_encoding(const JsonObject& model, const BytePairOptions& options) {
  constexpr std::string_view kMerges = "merges";
  const auto array = model.array(kMerges);
  if (!array) model.refuse(kMerges, "is missing");
  std::vector<BytePairEncoding::Merge> merges;
  for (const auto& value : *array) merges.push_back(read_merge(model, value));
  return made_of(model, kMerges, [&] {
    return std::make_unique<BytePairEncoding>(read_ids(model), merges, options);
  });
}

ModelStep make_unigram(const JsonObject& model, std::int32_t unknown_id, bool byte_fallback) {
  return made_of(model, "vocab", [&] {
    return std::make_unique<Unigram>(read_scores(model), unknown_id, byte_fallback);
  });
}

}  // namespace tovana::sentence_transformers
