#pragma once

#include <map>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "sentence_transformers/tokenizer/added_tokens.h"
#include "sentence_transformers/tokenizer/tokenizer_sources.h"

namespace tovana::sentence_transformers {

/// The tokens that a model's files call special, and all that they add to the vocabulary. Every
/// operation throws ModelFilesError, naming file and fault, for files that are malformed or
/// contradict themselves.
class SpecialTokens {
 public:
  /// Reads the special ones; of the sources, which have to outlive this, the others are read later.
  SpecialTokens(const TokenizerSources& sources, TokenizerKind kind);

  /// The content of the token with a name like "cls_token"; null when there is none.
  const std::string* find(std::string_view name) const;

  /// Every token that is added to the vocabulary, in the order of addition and without an id.
  std::vector<AddedToken> read_added() const;

 private:
  void _read_extra(const JsonObject& file, std::string_view key);
  void _refuse_null(std::string_view name, bool use_map) const;
  bool _is_special(const std::string& content) const { return _contents.contains(content); }
  std::map<std::int32_t, AddedToken> _listed_tokens() const;

  const TokenizerSources& _sources;
  const TokenizerKind _kind;
  std::map<std::string_view, std::string> _named;
  std::vector<AddedToken> _in_order;          ///< Named tokens, then the others that are special.
  std::unordered_set<std::string> _contents;  ///< Theirs.
};

}  // namespace tovana::sentence_transformers
