#include "sentence_transformers/tokenizer/word_piece.h"

#include <utility>

#include "sentence_transformers/files/model_directory.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

std::int32_t unknown_id_in(const ByteTrie& trie, const std::string& token) {
  if (const std::optional<std::int32_t> id = trie.value_of(token)) return *id;
  throw ValueError("the tokenizer's vocabulary lacks its unknown token " + in_quotes(token));
}

}  // namespace

WordPiece::WordPiece(std::vector<ByteTrie::Entry> vocabulary, const WordPieceOptions& options)
    : _trie(std::move(vocabulary)),
      _continuation(_trie.find(options.continuing_prefix)),
      _most_characters(options.most_characters),
      _unknown_id(unknown_id_in(_trie, options.unknown_token)) {}

}  // namespace tovana::sentence_transformers
