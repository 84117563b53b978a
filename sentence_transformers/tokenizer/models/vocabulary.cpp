#include "sentence_transformers/tokenizer/models/vocabulary.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

#include "sentence_transformers/tokenizer/unicode_tables.h"
#include "tovana/base/utf8.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {

using Vocabulary = std::vector<ByteTrie::Entry>;

namespace {

constexpr std::string_view kVocabulary = "vocab";

}  // namespace

Vocabulary read_ids(const JsonObject& model) {
  Vocabulary entries;
  const auto vocabulary = model.object(kVocabulary);
  if (!vocabulary) model.refuse(kVocabulary, "is missing");
  std::vector<bool> seen;
  for (const auto& member : vocabulary->members()) {
    const std::int32_t id = vocabulary->id_of(member.value, member.key);
    const auto index = static_cast<std::size_t>(id);
    if (index >= seen.size()) seen.resize(std::max(index + 1, seen.size() * 2));
    if (seen[index]) {
      model.refuse(kVocabulary, "has the id " + std::to_string(id) + " twice");
    }
    seen[index] = true;
    entries.push_back({member.key, id});
  }
  return entries;
}

std::vector<std::pair<std::string_view, double>> read_scores(const JsonObject& model) {
  const auto vocabulary = model.array(kVocabulary);
  if (!vocabulary) model.refuse(kVocabulary, "is missing");
  std::vector<std::pair<std::string_view, double>> tokens;
  for (const auto& value : *vocabulary) {
    JsonObject::Array pair;
    std::string_view token;
    double score = 0;
    if (value.get(pair) != simdjson::SUCCESS || pair.size() != 2 ||
        pair.at(0).get(token) != simdjson::SUCCESS || pair.at(1).get(score) != simdjson::SUCCESS) {
      model.refuse(kVocabulary, "holds " + shown(value) + ", which is no token with its score");
    }
    if (tokens.size() > static_cast<std::size_t>(kLargestTokenId)) {
      model.refuse(kVocabulary, "has too many tokens");
    }
    tokens.emplace_back(token, score);
  }
  return tokens;
}

/// White space at a line's end does not count.
Vocabulary read_lines(const std::string& path, std::string_view text) {
  Vocabulary entries;
  while (!text.empty()) {
    const auto id = static_cast<std::int32_t>(entries.size());
    if (id > kLargestTokenId) throw files::ModelFilesError(path + ": too many lines");
    const std::size_t newline = text.find('\n');
    std::string_view line = text.substr(0, newline);
    text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);
    while (!line.empty()) {
      const utf8::Decoded last = utf8::decode_last(line);
      if (!unicode::is_white_space(last.code_point)) break;
      line.remove_suffix(last.size);
    }
    entries.push_back({line, id});
  }
  return entries;
}

}  // namespace tovana::sentence_transformers
