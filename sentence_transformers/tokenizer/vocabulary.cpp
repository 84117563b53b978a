#include "sentence_transformers/tokenizer/vocabulary.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

#include "sentence_transformers/tokenizer/tokenizer_json.h"
#include "sentence_transformers/tokenizer/unicode_tables.h"
#include "tovana/base/utf8.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {
namespace {

using Vocabulary = std::vector<ByteTrie::Entry>;

Vocabulary read_json(const JsonObject& file) {
  Vocabulary entries;
  const auto vocabulary = word_piece_of(file).object("vocab");
  if (!vocabulary) file.refuse("vocab", "is missing");
  std::vector<bool> seen;
  for (const auto& member : vocabulary->members()) {
    const std::int32_t id = vocabulary->id_of(member.value, member.key);
    const auto index = static_cast<std::size_t>(id);
    if (index >= seen.size()) seen.resize(std::max(index + 1, seen.size() * 2));
    if (seen[index]) {
      file.refuse("vocab", "has the id " + std::to_string(id) + " twice");
    }
    seen[index] = true;
    entries.push_back({member.key, id});
  }
  return entries;
}

/// One token a line, its id the line's number from 0; white space at a line's end does not count.
Vocabulary read_text(const std::string& path, std::string_view text) {
  Vocabulary entries;
  while (!text.empty()) {
    const auto id = static_cast<std::int32_t>(entries.size());
    if (id > kLargestTokenId) throw files::ModelFilesError(path + ": too many lines");
    const std::size_t newline = text.find('\n');
    std::string_view line = text.substr(0, newline);
    text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);
    while (!line.empty()) {
      const utf8::Decoded last = utf8::decode_last(line);
      if (!unicode::record_of(last.code_point).is(unicode::kWhiteSpace)) break;
      line.remove_suffix(last.size);
    }
    entries.push_back({line, id});
  }
  return entries;
}

}  // namespace

std::vector<ByteTrie::Entry> read_vocabulary(const TokenizerSources& sources) {
  if (sources.tokenizer) return read_json(*sources.tokenizer);
  if (sources.vocab_txt) return read_text(sources.vocab_txt_path, *sources.vocab_txt);
  throw files::ModelFilesError(sources.tokenizer_path +
                               ": not there, and no vocab.txt either: the tokenizer " +
                               "has no vocabulary");
}

}  // namespace tovana::sentence_transformers
