#pragma once

#include <string>
#include <vector>

#include "sentence_transformers/tokenizer/added_tokens.h"
#include "sentence_transformers/tokenizer/models/model.h"
#include "sentence_transformers/tokenizer/normalizers/normalizer.h"
#include "sentence_transformers/tokenizer/post_processors/special_ends.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/pre_tokenizer.h"
#include "sentence_transformers/tokenizer/tokenizer_files.h"

namespace tovana::sentence_transformers {

/// What a model's files say of its tokenizer, all of them taken together: the steps of
/// tokenizer.json, as data.
///
/// Two readings exist. A tokenizer of a known class (`TokenizerKind`) is built anew: of
/// tokenizer.json only the vocabulary with its merges or scores, a few things that a class asks for
/// and, where tokenizer_config.json does not list them, the added tokens count; everything else is
/// the class's own or comes from tokenizer_config.json. That is what the models' own library does.
/// Of any other class it says no more than tokenizer.json, which then counts as it is.
///
/// Where tokenizer_config.json says nothing of it, both take the side on which long texts are cut
/// from tokenizer.json. Batches are never padded here, so no other setting of length counts.
struct TokenizerSettings {
  std::vector<NormalizerStep> normalizers;
  std::vector<PreTokenizerStep> pre_tokenizers;
  ModelStep model;
  SpecialEnds ends;
  std::vector<AddedToken> added_tokens;  ///< In the order of addition; ids are not given out yet.
  std::string pad_token;
  bool keeps_end = false;       ///< Texts that are too long lose their beginning.
  std::string vocabulary_path;  ///< The file with the vocabulary, for messages.
};

/// Throws ModelFilesError, naming file and fault, for files that are malformed, contradict
/// themselves or describe a tokenizer of another kind.
TokenizerSettings read_tokenizer_settings(TokenizerFiles files, const TokenizerOptions& options);

}  // namespace tovana::sentence_transformers
