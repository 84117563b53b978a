#include "sentence_transformers/tokenizer/tokenizer.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <optional>
#include <string>
#include <unordered_map>

#include "sentence_transformers/tokenizer/tokenizer_settings.h"
#include "tovana/exceptions/exceptions.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {

Tokenizer::Tokenizer(TokenizerFiles files, const TokenizerOptions& options)
    : Tokenizer(read_tokenizer_settings(std::move(files), options)) {}

Tokenizer Tokenizer::load(const files::ModelDirectory& directory, const TokenizerOptions& options) {
  return Tokenizer(TokenizerFiles::read(directory), options);
}

Tokenizer::Tokenizer(TokenizerSettings&& settings)
    : _pipeline(make_pipeline(std::move(settings.normalizers), std::move(settings.pre_tokenizers),
                              std::move(settings.model))),
      _largest_id(_pipeline->model().largest_id()),
      _keeps_end(settings.keeps_end) {
  _give_ids(settings.added_tokens);
  _read_special_tokens(settings);

  std::vector<AddedToken> raw;
  std::vector<AddedToken> normalized;
  for (AddedToken& token : settings.added_tokens) {
    if (token.normalized) {
      token.content = _pipeline->normalize(token.content);
      normalized.push_back(std::move(token));
    } else {
      raw.push_back(std::move(token));
    }
  }
  _raw_tokens = AddedTokens(std::move(raw));
  _normalized_tokens = AddedTokens(std::move(normalized));
  _may_cut = !_keeps_end && !_normalized_tokens.holds_space() && _pipeline->may_be_cut();
}

/// An added token that the vocabulary has keeps its id there; the others get the numbers behind the
/// vocabulary's size in the order of addition, whatever ids the files list them under.
void Tokenizer::_give_ids(std::vector<AddedToken>& tokens) {
  auto next = static_cast<std::int32_t>(_pipeline->model().vocabulary_size());
  for (AddedToken& token : tokens) {
    const std::optional<std::int32_t> known = _pipeline->model().id_of(token.content);
    token.id = known ? *known : next++;
    _largest_id = std::max(_largest_id, token.id);
  }
}

void Tokenizer::_read_special_tokens(const TokenizerSettings& settings) {
  std::unordered_map<std::string_view, std::int32_t> added;
  for (const AddedToken& token : settings.added_tokens) {
    added.emplace(token.content, token.id);
    if (token.special) _special_ids.push_back(token.id);
  }
  const auto id_of = [&](std::string_view content) {
    if (const auto found = added.find(content); found != added.end()) return found->second;
    if (const auto known = _pipeline->model().id_of(content)) return *known;
    throw files::ModelFilesError(settings.vocabulary_path +
                                 ": the vocabulary lacks the special token " +
                                 files::in_quotes(content));
  };
  const auto ids_of = [&](const std::vector<SpecialEnds::Token>& tokens) {
    std::vector<std::int32_t> ids;
    for (const auto& token : tokens) {
      ids.push_back(token.id ? *token.id : id_of(token.content));
      _largest_id = std::max(_largest_id, ids.back());
      _special_ids.push_back(ids.back());
    }
    return ids;
  };
  _before = ids_of(settings.ends.before);
  _behind = ids_of(settings.ends.behind);
  id_of(settings.pad_token);  // Texts are not padded here, but a tokenizer has it.
  std::sort(_special_ids.begin(), _special_ids.end());
}

std::vector<std::int32_t> Tokenizer::encode(std::string_view text, std::size_t max_length) const {
  if (max_length < special_count()) {
    throw ValueError("a text of at most " + std::to_string(max_length) +
                     " tokens has no room for the " + std::to_string(special_count()) +
                     " special ones");
  }
  const std::size_t end = max_length - _behind.size();
  const std::size_t most = _keeps_end ? std::numeric_limits<std::size_t>::max() : end;
  std::vector<std::int32_t> ids;
  ids.reserve(std::min(max_length, special_count() + text.size() / 2));
  ids.assign(_before.begin(), _before.end());

  const auto on_token = [&](std::int32_t id) {
    ids.push_back(id);
    return ids.size() < most;
  };
  if (ids.size() < most && _normalized_tokens.empty()) {
    _raw_tokens.split(
        text, _may_cut,
        [&](std::string_view part) {
          return _pipeline->append_ids({part, part.data() == text.data()}, most, ids);
        },
        on_token);
  } else if (ids.size() < most) {
    _raw_tokens.split(
        text, _may_cut,
        [&](std::string_view part) {
          const std::string normalized = _pipeline->normalize(part);
          return _normalized_tokens.split(
              normalized, false,
              [&](std::string_view rest) {
                const bool begins = part.data() == text.data() && rest.data() == normalized.data();
                return _pipeline->append_normalized_ids({rest, begins}, most, ids);
              },
              on_token);
        },
        on_token);
  }
  if (ids.size() > end && _keeps_end) {
    const auto first = ids.begin() + std::ssize(_before);
    ids.erase(first, first + static_cast<std::ptrdiff_t>(ids.size() - end));
  } else if (ids.size() > end) {
    ids.resize(end);  // The last word may have had several pieces.
  }
  ids.insert(ids.end(), _behind.begin(), _behind.end());
  return ids;
}

bool Tokenizer::is_special_id(std::int32_t id) const noexcept {
  return std::binary_search(_special_ids.begin(), _special_ids.end(), id);
}

}  // namespace tovana::sentence_transformers
