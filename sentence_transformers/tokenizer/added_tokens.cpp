#include "sentence_transformers/tokenizer/added_tokens.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "sentence_transformers/tokenizer/unicode_tables.h"
#include "tovana/base/utf8.h"

namespace tovana::sentence_transformers {
namespace {

ByteTrie trie_of(const std::vector<AddedToken>& tokens) {
  std::vector<ByteTrie::Entry> entries;
  entries.reserve(tokens.size());
  for (const AddedToken& token : tokens) {
    entries.push_back({token.content, static_cast<std::int32_t>(entries.size())});
  }
  return ByteTrie(std::move(entries));
}

bool is(char32_t code_point, unicode::Property property) noexcept {
  return unicode::record_of(code_point).is(property);
}

}  // namespace

AddedTokens::AddedTokens(std::vector<AddedToken> tokens)
    : _tokens(std::move(tokens)), _trie(trie_of(_tokens)) {
  for (const AddedToken& token : _tokens) {
    if (!token.content.empty()) _begins[static_cast<unsigned char>(token.content.front())] = true;
    for (std::size_t at = 0; at < token.content.size() && !_holds_space; ++at) {
      _holds_space = _space_behind(token.content, at) > at;
    }
  }
  if (std::count(_begins.begin(), _begins.end(), true) == 1) {
    _only_begin =
        static_cast<char>(std::find(_begins.begin(), _begins.end(), true) - _begins.begin());
  }
}

std::optional<AddedTokens::Match> AddedTokens::_find(std::string_view text, std::size_t from,
                                                     std::size_t until) const noexcept {
  const char* const end = text.data() + until;
  const char* at = text.data() + from;
  const auto next_begin = [&] {
    if (_only_begin) {
      const auto left = static_cast<std::size_t>(end - at);
      const void* const found = left == 0 ? nullptr : std::memchr(at, *_only_begin, left);
      return found == nullptr ? end : static_cast<const char*>(found);
    }
    return std::find_if(at, end,
                        [this](char byte) { return _begins[static_cast<unsigned char>(byte)]; });
  };
  if (_tokens.empty()) return std::nullopt;
  for (at = next_begin(); at != end; at = next_begin()) {
    const ByteTrie::Match match = _trie.longest_match(at, text.data() + text.size());
    if (match.size > 0) {
      const auto begin = static_cast<std::size_t>(at - text.data());
      return Match{begin, begin + match.size, &_tokens[static_cast<std::size_t>(match.value)]};
    }
    ++at;
  }
  return std::nullopt;
}

std::size_t AddedTokens::_last_space(std::string_view text, std::size_t from,
                                     std::size_t until) noexcept {
  const std::size_t last = text.substr(from, until - from).find_last_of(" \n");
  return last == std::string_view::npos ? 0 : from + last;
}

bool AddedTokens::_stands_alone(std::string_view text, const Match& match) noexcept {
  const bool word_before =
      match.begin > 0 &&
      is(utf8::decode_last(text.substr(0, match.begin)).code_point, unicode::kWord);
  const bool word_behind =
      match.end < text.size() &&
      is(utf8::decode(text.data() + match.end, text.data() + text.size()).code_point,
         unicode::kWord);
  return !word_before && !word_behind;
}

std::size_t AddedTokens::_space_before(std::string_view text, std::size_t end,
                                       std::size_t floor) noexcept {
  while (end > floor) {
    const utf8::Decoded last = utf8::decode_last(text.substr(floor, end - floor));
    if (!is(last.code_point, unicode::kWhiteSpace)) break;
    end -= last.size;
  }
  return end;
}

std::size_t AddedTokens::_space_behind(std::string_view text, std::size_t begin) noexcept {
  while (begin < text.size()) {
    const utf8::Decoded next = utf8::decode(text.data() + begin, text.data() + text.size());
    if (!is(next.code_point, unicode::kWhiteSpace)) break;
    begin += next.size;
  }
  return begin;
}

}  // namespace tovana::sentence_transformers
