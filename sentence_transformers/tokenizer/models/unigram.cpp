#include "sentence_transformers/tokenizer/models/unigram.h"

#include <algorithm>
#include <limits>
#include <string>

#include "sentence_transformers/tokenizer/models/small_buffer.h"
#include "tovana/base/utf8.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

using Tokens = std::vector<std::pair<std::string_view, double>>;

/// How much worse an unknown character is than the worst token.
constexpr double kUnknownPenalty = 10;

std::vector<ByteTrie::Entry> entries_of(const Tokens& tokens) {
  std::vector<ByteTrie::Entry> entries;
  entries.reserve(tokens.size());
  for (const auto& [token, score] : tokens) {
    entries.push_back({token, static_cast<std::int32_t>(entries.size())});
  }
  return entries;
}

/// The best way to cut a word up to some byte.
struct Best {
  double score;
  std::int32_t id;      ///< Of the last token.
  std::uint32_t begin;  ///< Of the last token.
};
constexpr std::uint32_t kNowhere = std::numeric_limits<std::uint32_t>::max();

}  // namespace

Unigram::Unigram(const Tokens& tokens, std::int32_t unknown_id, bool byte_fallback)
    : _trie(entries_of(tokens)), _unknown_id(unknown_id) {
  if (unknown_id < 0 || static_cast<std::size_t>(unknown_id) >= tokens.size()) {
    throw ValueError("the unknown token is not one of the vocabulary");
  }
  double lowest = std::numeric_limits<double>::infinity();
  for (const auto& [token, score] : tokens) {
    _scores.push_back(score);
    lowest = std::min(lowest, score);
  }
  _unknown_score = lowest - kUnknownPenalty;
  if (byte_fallback) _byte_ids = byte_token_ids(_trie);
}

void Unigram::_append_unknown(std::string_view text, std::vector<std::int32_t>& ids) const {
  if (const auto id = _trie.value_of(text)) return ids.push_back(*id);  // It is written out.
  if (_byte_ids && append_byte_tokens(text, *_byte_ids, ids)) return;
  ids.push_back(_unknown_id);
}

void Unigram::append_ids(std::string_view word, std::vector<std::int32_t>& ids) const {
  if (word.size() >= kNowhere) throw ValueError("a word of 4 GB has no tokens");
  constexpr std::size_t kUsualWord = 128;
  SmallBuffer<Best, kUsualWord> buffer(word.size() + 1);
  Best* const best = buffer.data();
  std::fill(best, best + word.size() + 1, Best{0, 0, kNowhere});

  const char* const end = word.data() + word.size();
  for (std::size_t begin = 0; begin < word.size();) {
    const double score = best[begin].score;
    const char* const at = word.data() + begin;
    const std::size_t character = utf8::decode(at, end).size;
    const auto offer = [&](std::size_t size, std::int32_t id, double candidate) {
      Best& target = best[begin + size];
      // Of equal ones the first stays, whose last token is the longest.
      if (target.begin != kNowhere && !(candidate > target.score)) return;
      target = {candidate, id, static_cast<std::uint32_t>(begin)};
    };
    bool is_known = false;
    _trie.for_each_match(at, end, [&](std::int32_t id, std::size_t size) {
      offer(size, id, score + _scores[static_cast<std::size_t>(id)]);
      is_known = is_known || size == character;
    });
    if (!is_known) offer(character, _unknown_id, score + _unknown_score);
    begin += character;
  }

  // From the end to the beginning, each token's end into the place of its begin.
  std::size_t place = word.size();
  for (std::size_t token_end = word.size(); token_end > 0;) {
    const std::size_t begin = best[token_end].begin;
    const std::int32_t id = best[token_end].id;
    best[place--] = {0, id, static_cast<std::uint32_t>(token_end)};
    token_end = begin;
  }
  std::size_t unknown = 0;  // Where unknown characters begin that go on up to here.
  std::size_t token_begin = 0;
  for (std::size_t i = place + 1; i <= word.size(); ++i) {
    const std::size_t token_end = best[i].begin;
    if (best[i].id != _unknown_id) {
      if (unknown < token_begin) _append_unknown(word.substr(unknown, token_begin - unknown), ids);
      ids.push_back(best[i].id);
      unknown = token_end;
    }
    token_begin = token_end;
  }
  if (unknown < word.size()) _append_unknown(word.substr(unknown), ids);
}

}  // namespace tovana::sentence_transformers
