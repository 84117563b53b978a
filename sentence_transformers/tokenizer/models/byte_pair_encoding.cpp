#include "sentence_transformers/tokenizer/models/byte_pair_encoding.h"

#include <algorithm>
#include <queue>
#include <utility>

#include "sentence_transformers/tokenizer/characters.h"
#include "tovana/exceptions/exceptions.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {
namespace {

/// Up to here all pairs of a word are looked at again after each that was joined.
constexpr std::size_t kShortWord = 64;
constexpr std::int32_t kUnknown = -1;

}  // namespace

BytePairEncoding::BytePairEncoding(std::vector<ByteTrie::Entry> vocabulary,
                                   const std::vector<Merge>& merges, const BytePairOptions& options)
    : _trie(std::move(vocabulary)),
      _options(options),
      _is_plain(options.continuing_prefix.empty() && options.word_suffix.empty()) {
  if (options.unknown_token) {
    _unknown_id = _trie.value_of(*options.unknown_token);
    if (!_unknown_id) {
      throw ValueError("the vocabulary lacks the unknown token " +
                       files::in_quotes(*options.unknown_token));
    }
  }
  if (options.byte_fallback) _byte_ids = byte_token_ids(_trie);
  for (char32_t character = 0; character < _first_ids.size(); ++character) {
    std::string text;
    append_character(text, character);
    _first_ids[character] = _trie.value_of(text).value_or(kUnknown);
  }
  _read_merges(merges);
}

void BytePairEncoding::_read_merges(const std::vector<Merge>& merges) {
  struct Found {
    std::int32_t left;
    Rule rule;
  };
  std::vector<Found> found;
  found.reserve(merges.size());
  const auto id_of_part = [&](std::string_view token) {
    if (const auto id = _trie.value_of(token)) return *id;
    throw ValueError("the vocabulary lacks " + files::in_quotes(token) + ", which a merge needs");
  };
  std::int32_t largest = 0;
  std::string whole;
  for (const Merge& merge : merges) {
    const std::int32_t left = id_of_part(merge.left);
    const std::int32_t right = id_of_part(merge.right);
    // Within a word, the right one has the prefix that the two together do not.
    const std::size_t prefix = _options.continuing_prefix.size();
    whole.assign(merge.left).append(merge.right.substr(std::min(prefix, merge.right.size())));
    const auto rank = static_cast<std::uint32_t>(found.size());
    found.push_back({left, {right, {rank, id_of_part(whole)}}});
    largest = std::max(largest, left);
  }
  // Of equal pairs the last counts.
  std::sort(found.begin(), found.end(), [](const Found& a, const Found& b) {
    if (a.left != b.left) return a.left < b.left;
    if (a.rule.right != b.rule.right) return a.rule.right < b.rule.right;
    return a.rule.joined.rank > b.rule.joined.rank;
  });
  found.erase(std::unique(found.begin(), found.end(),
                          [](const Found& a, const Found& b) {
                            return a.left == b.left && a.rule.right == b.rule.right;
                          }),
              found.end());
  _rules_of.assign(static_cast<std::size_t>(largest) + 2, 0);
  for (const Found& entry : found) ++_rules_of[static_cast<std::size_t>(entry.left) + 1];
  for (std::size_t i = 1; i < _rules_of.size(); ++i) _rules_of[i] += _rules_of[i - 1];
  for (const Found& entry : found) _rules.push_back(entry.rule);
}

BytePairEncoding::Joined BytePairEncoding::_joined(std::int32_t left,
                                                   std::int32_t right) const noexcept {
  const auto index = static_cast<std::size_t>(left);
  if (index + 1 >= _rules_of.size()) return {};
  const Rule* first = _rules.data() + _rules_of[index];
  std::size_t count = _rules_of[index + 1] - _rules_of[index];
  if (count == 0) return {};
  // The last one whose right part is not above: without a branch that is hard to foresee.
  while (count > 1) {
    const std::size_t half = count / 2;
    first += first[half].right <= right ? half : 0;
    count -= half;
  }
  return first->right == right ? first->joined : Joined{};
}

/// Appends a word's characters, each a symbol, or several when it is unknown.
void BytePairEncoding::_append_characters(std::string_view word,
                                          std::vector<std::int32_t>& symbols) const {
  bool is_pending = false;  // An unknown token comes only when a known one follows, or the end.
  const auto add = [&](std::int32_t id) {
    if (is_pending) symbols.push_back(*_unknown_id);
    is_pending = false;
    symbols.push_back(id);
  };
  std::string token;
  for_each_character(word, [&](char32_t code_point, std::string_view bytes) {
    if (_is_plain && code_point < _first_ids.size()) {
      if (_first_ids[code_point] != kUnknown) return add(_first_ids[code_point]);
    }
    token.clear();
    if (bytes.data() != word.data()) token += _options.continuing_prefix;
    token += bytes;
    if (bytes.end() == word.end()) token += _options.word_suffix;
    if (const auto id = _trie.value_of(token)) return add(*id);
    if (_byte_ids && append_byte_tokens(token, *_byte_ids, symbols)) return;
    if (!_unknown_id) return;
    if (is_pending && !_options.fuse_unknown) symbols.push_back(*_unknown_id);
    is_pending = true;
  });
  if (is_pending) symbols.push_back(*_unknown_id);
}

/// Joins in place; returns how many symbols are left.
std::size_t BytePairEncoding::_join_short(std::int32_t* symbols, std::size_t count) const {
  if (count < 2) return count;
  std::array<Joined, kShortWord> joined;  // Of a symbol and the next one.
  for (std::size_t i = 0; i + 1 < count; ++i) joined[i] = _joined(symbols[i], symbols[i + 1]);
  while (count > 1) {
    std::size_t best = 0;
    for (std::size_t i = 1; i + 1 < count; ++i) {
      if (joined[i].rank < joined[best].rank) best = i;
    }
    if (joined[best].rank == kNoRank) break;
    symbols[best] = joined[best].id;
    std::move(symbols + best + 2, symbols + count, symbols + best + 1);
    if (best + 2 < count) {
      std::move(joined.begin() + best + 2, joined.begin() + count - 1, joined.begin() + best + 1);
    }
    --count;
    if (best + 1 < count) joined[best] = _joined(symbols[best], symbols[best + 1]);
    if (best > 0) joined[best - 1] = _joined(symbols[best - 1], symbols[best]);
  }
  return count;
}

/// The same for a word with many symbols: a list of them, and a heap of the pairs in it.
class BytePairEncoding::LongWord {
 public:
  LongWord(const BytePairEncoding& model, std::int32_t* symbols, std::size_t count)
      : _model(model), _symbols(symbols), _next(count), _previous(count), _removed(count) {
    for (std::size_t i = 0; i < count; ++i) {
      _next[i] = i + 1;
      _previous[i] = i - 1;  // Of the first nothing that is looked at.
    }
    for (std::size_t i = 0; i + 1 < count; ++i) _push(i);
  }

  std::size_t join() {
    while (!_pairs.empty()) {
      const Pair pair = _pairs.top();
      _pairs.pop();
      const std::size_t right = _next[pair.left];
      // Symbols that were joined meanwhile are no such pair any more.
      if (_removed[pair.left] || right == _next.size()) continue;
      const Joined joined = _model._joined(_symbols[pair.left], _symbols[right]);
      if (joined.rank != pair.rank) continue;
      _symbols[pair.left] = joined.id;
      _removed[right] = true;
      _next[pair.left] = _next[right];
      if (_next[right] != _next.size()) {
        _previous[_next[right]] = pair.left;
        _push(pair.left);
      }
      if (pair.left > 0) _push(_previous[pair.left]);
    }
    std::size_t kept = 0;
    for (std::size_t i = 0; i < _next.size(); i = _next[i]) _symbols[kept++] = _symbols[i];
    return kept;
  }

 private:
  struct Pair {
    std::uint32_t rank;
    std::size_t left;

    bool operator<(const Pair& other) const noexcept {  // The first comes out last.
      return rank != other.rank ? rank > other.rank : left > other.left;
    }
  };

  void _push(std::size_t left) {
    const Joined joined = _model._joined(_symbols[left], _symbols[_next[left]]);
    if (joined.rank != kNoRank) _pairs.push({joined.rank, left});
  }

  const BytePairEncoding& _model;
  std::int32_t* _symbols;
  std::vector<std::size_t> _next;  ///< The count: there is none.
  std::vector<std::size_t> _previous;
  std::vector<bool> _removed;
  std::priority_queue<Pair> _pairs;
};

void BytePairEncoding::append_ids(std::string_view word, std::vector<std::int32_t>& ids) const {
  if (_options.ignore_merges) {
    if (const auto id = _trie.value_of(word)) return ids.push_back(*id);
  }
  const std::size_t before = ids.size();
  _append_characters(word, ids);
  std::int32_t* const symbols = ids.data() + before;
  const std::size_t count = ids.size() - before;
  const std::size_t kept =
      count <= kShortWord ? _join_short(symbols, count) : LongWord(*this, symbols, count).join();
  ids.resize(before + kept);
}

}  // namespace tovana::sentence_transformers
