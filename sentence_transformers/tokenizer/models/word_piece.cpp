#include "sentence_transformers/tokenizer/models/word_piece.h"

#include <utility>

#include "tovana/base/text.h"
#include "tovana/exceptions/exceptions.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {
namespace {

std::int32_t unknown_id_in(const ByteTrie& trie, const WordPieceOptions& options) {
  if (const std::optional<std::int32_t> id = trie.value_of(options.unknown_token)) return *id;
  throw ValueError("the vocabulary lacks the unknown token " +
                   files::in_quotes(options.unknown_token));
}

}  // namespace

WordPiece::WordPiece(std::vector<ByteTrie::Entry> vocabulary, const WordPieceOptions& options)
    : _trie(std::move(vocabulary)),
      _continuation(_trie.find(options.continuing_prefix)),
      _most_characters(options.most_characters),
      _unknown_id(unknown_id_in(_trie, options)) {}

void WordPiece::append_ids(std::string_view word, std::vector<std::int32_t>& ids) const {
  append_ids(word, count_characters(word), ids);
}

}  // namespace tovana::sentence_transformers
