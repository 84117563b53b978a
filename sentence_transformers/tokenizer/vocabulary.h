#pragma once

#include <vector>

#include "sentence_transformers/tokenizer/byte_trie.h"
#include "sentence_transformers/tokenizer/tokenizer_sources.h"

namespace tovana::sentence_transformers {

/// The tokens of tokenizer.json or, where that is absent, of vocab.txt; their keys are parts of
/// what `sources` owns. Throws ModelFilesError, naming file and fault, for a vocabulary that is
/// missing or malformed.
std::vector<ByteTrie::Entry> read_vocabulary(const TokenizerSources& sources);

}  // namespace tovana::sentence_transformers
