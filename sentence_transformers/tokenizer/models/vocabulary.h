#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sentence_transformers/tokenizer/byte_trie.h"
#include "sentence_transformers/tokenizer/json_object.h"

/// The tokens of a vocabulary; they are parts of what was read. Everything throws ModelFilesError,
/// naming file and fault, for one that is missing or malformed.
namespace tovana::sentence_transformers {

/// The "vocab" of a model in tokenizer.json, ids by tokens.
std::vector<ByteTrie::Entry> read_ids(const JsonObject& model);

/// The "vocab" that is a list, of tokens with their scores.
std::vector<std::pair<std::string_view, double>> read_scores(const JsonObject& model);

/// vocab.txt: one token a line, its id the line's number from 0.
std::vector<ByteTrie::Entry> read_lines(const std::string& path, std::string_view text);

}  // namespace tovana::sentence_transformers
