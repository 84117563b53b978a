#include "sentence_transformers/tokenizer/special_tokens.h"

#include <array>
#include <charconv>
#include <optional>
#include <utility>

#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {
namespace {

/// One token that a class of tokenizers has a name for.
struct NamedToken {
  std::string_view name;
  std::string_view content;  ///< What it is unless the files say otherwise; empty: there is none.
  bool lstrip = false;
};

/// In the order in which they are added.
using NamedTokens = std::array<NamedToken, 7>;

constexpr NamedTokens kUnnamed = {{{"bos_token", ""},
                                   {"eos_token", ""},
                                   {"unk_token", ""},
                                   {"sep_token", ""},
                                   {"pad_token", ""},
                                   {"cls_token", ""},
                                   {"mask_token", ""}}};
constexpr NamedTokens kBertTokens = {{{"bos_token", ""},
                                      {"eos_token", ""},
                                      {"unk_token", "[UNK]"},
                                      {"sep_token", "[SEP]"},
                                      {"pad_token", "[PAD]"},
                                      {"cls_token", "[CLS]"},
                                      {"mask_token", "[MASK]"}}};
constexpr NamedTokens kMPNetTokens = {{{"bos_token", "<s>"},
                                       {"eos_token", "</s>"},
                                       {"unk_token", "[UNK]"},
                                       {"sep_token", "</s>"},
                                       {"pad_token", "<pad>"},
                                       {"cls_token", "<s>"},
                                       {"mask_token", "<mask>", true}}};

constexpr NamedTokens kRobertaTokens = {{{"bos_token", "<s>"},
                                         {"eos_token", "</s>"},
                                         {"unk_token", "<unk>"},
                                         {"sep_token", "</s>"},
                                         {"pad_token", "<pad>"},
                                         {"cls_token", "<s>"},
                                         {"mask_token", "<mask>"}}};
constexpr NamedTokens kCamembertTokens = {{{"bos_token", "<s>"},
                                           {"eos_token", "</s>"},
                                           {"unk_token", "<unk>"},
                                           {"sep_token", "</s>"},
                                           {"pad_token", "<pad>"},
                                           {"cls_token", "<s>"},
                                           {"mask_token", "<mask>", true}}};
constexpr NamedTokens kQwen2Tokens = {{{"bos_token", ""},
                                       {"eos_token", "<|endoftext|>"},
                                       {"unk_token", "<|endoftext|>"},
                                       {"sep_token", ""},
                                       {"pad_token", "<|endoftext|>"},
                                       {"cls_token", ""},
                                       {"mask_token", ""}}};
constexpr NamedTokens kGemmaTokens = {{{"bos_token", "<bos>"},
                                       {"eos_token", "<eos>"},
                                       {"unk_token", "<unk>"},
                                       {"sep_token", ""},
                                       {"pad_token", "<pad>"},
                                       {"cls_token", ""},
                                       {"mask_token", "<mask>"}}};

const NamedTokens& named_tokens(TokenizerKind kind) {
  switch (kind) {
    case TokenizerKind::bert:
      return kBertTokens;
    case TokenizerKind::mpnet:
      return kMPNetTokens;
    case TokenizerKind::roberta:
    case TokenizerKind::xlm_roberta:
      return kRobertaTokens;
    case TokenizerKind::camembert:
      return kCamembertTokens;
    case TokenizerKind::qwen2:
      return kQwen2Tokens;
    case TokenizerKind::gemma:
      return kGemmaTokens;
    case TokenizerKind::as_it_is:
      break;
  }
  return kUnnamed;
}

/// The names of the tokens without which a class does not work: its padding, and those around every
/// text. MPNet's class keeps the latter whatever the files say.
bool is_needed(TokenizerKind kind, std::string_view name) {
  if (kind == TokenizerKind::as_it_is) return false;
  if (name == "pad_token") return true;
  const bool has_ends = kind == TokenizerKind::bert || kind == TokenizerKind::roberta;
  const bool has_bounds = kind == TokenizerKind::xlm_roberta || kind == TokenizerKind::camembert;
  return (has_ends && (name == "cls_token" || name == "sep_token")) ||
         (has_bounds && (name == "bos_token" || name == "eos_token"));
}

std::string_view checked(const JsonObject& file, std::string_view content, std::string_view key) {
  if (content.size() > AddedTokens::kLongestContent) {
    file.refuse(key, "is a token of " + std::to_string(content.size()) + " bytes: the limit is " +
                         std::to_string(AddedTokens::kLongestContent));
  }
  return content;
}

AddedToken plain_token(std::string_view content, bool lstrip = false) {
  AddedToken token;
  token.content = content;
  token.lstrip = lstrip;
  token.special = true;
  return token;
}

AddedToken added_token(const JsonObject& object, bool special = false) {
  AddedToken token;
  const auto content = object.text("content");
  if (!content) object.refuse("content", "is missing from an added token");
  token.content = checked(object, *content, "content");
  const auto flag = [&](std::string_view key, bool otherwise) {
    return object.flag(key).value_or(otherwise);
  };
  token.special = flag("special", special);
  token.single_word = flag("single_word", false);
  token.lstrip = flag("lstrip", false);
  token.rstrip = flag("rstrip", false);
  token.normalized = flag("normalized", !token.special);
  return token;
}

AddedToken special_token(const JsonObject& file, const JsonObject::Value& value,
                         std::string_view key, bool lstrip = false) {
  if (value.is_string()) return plain_token(checked(file, file.text_of(value, key), key), lstrip);
  AddedToken token = added_token(file.object_of(value, key), true);
  token.special = true;
  return token;
}

std::optional<AddedToken> find_token(const JsonObject& file, const NamedToken& named) {
  const auto value = file.find(named.name);
  if (!value) return std::nullopt;
  return special_token(file, *value, named.name, named.lstrip);
}

std::vector<std::pair<std::int32_t, AddedToken>> tokens_of(const JsonObject& tokenizer) {
  std::vector<std::pair<std::int32_t, AddedToken>> tokens;
  const auto array = tokenizer.array("added_tokens");
  if (!array) return tokens;
  std::map<std::int32_t, bool> seen;
  for (const auto& value : *array) {
    const JsonObject object = tokenizer.object_of(value, "added_tokens");
    const auto id = object.id("id");
    if (!id) object.refuse("id", "is missing from an added token");
    if (!seen.emplace(*id, true).second) {
      tokenizer.refuse("added_tokens", "has the id " + std::to_string(*id) + " twice");
    }
    tokens.emplace_back(*id, added_token(object));
  }
  return tokens;
}

std::int32_t id_of_key(const JsonObject& config, std::string_view key) {
  std::int32_t id = -1;
  const auto [end, error] = std::from_chars(key.data(), key.data() + key.size(), id);
  if (error != std::errc() || end != key.data() + key.size() || id < 0 || id > kLargestTokenId) {
    config.refuse(key, "in \"added_tokens_decoder\" is not a token id");
  }
  return id;
}

}  // namespace

SpecialTokens::SpecialTokens(const TokenizerSources& sources, TokenizerKind kind)
    : _sources(sources), _kind(kind) {
  const bool use_map = _sources.special_map && !_sources.lists_added_tokens();
  for (const NamedToken& token : named_tokens(kind)) {
    _refuse_null(token.name, use_map);
    std::optional<AddedToken> found;
    if (use_map) found = find_token(*_sources.special_map, token);
    if (!found && _sources.config) found = find_token(*_sources.config, token);
    if (!found && !token.content.empty()) found = plain_token(token.content, token.lstrip);
    if (found) _named.emplace(token.name, found->content);
    if (found) _in_order.push_back(std::move(*found));
  }
  constexpr std::string_view kExtra = "additional_special_tokens";
  const bool names_extra = (_sources.config && _sources.config->find(kExtra)) ||
                           (use_map && _sources.special_map->find(kExtra));
  for (const std::string_view key : {kExtra, std::string_view("extra_special_tokens")}) {
    if (use_map) _read_extra(*_sources.special_map, key);
    if (_sources.config) _read_extra(*_sources.config, key);
  }
  if (kind == TokenizerKind::camembert && !names_extra) {
    for (const char* const token : {"<s>NOTUSED", "</s>NOTUSED", "<unk>NOTUSED"}) {
      _in_order.push_back(plain_token(token));
    }
  }
  for (const AddedToken& token : _in_order) {
    _contents.insert(token.content);
  }
}

/// A null takes away the token that a class would have otherwise.
void SpecialTokens::_refuse_null(std::string_view name, bool use_map) const {
  if (!is_needed(_kind, name)) return;
  const bool in_map = use_map && _sources.special_map->contains(name);
  const std::optional<JsonObject>& file = in_map ? _sources.special_map : _sources.config;
  if (file && file->contains(name) && !file->find(name)) {
    file->refuse(name, "is null, and texts are not encoded without it");
  }
}

void SpecialTokens::_read_extra(const JsonObject& file, std::string_view key) {
  const auto value = file.find(key);
  if (!value) return;
  if (value->is_object()) {
    for (const auto& member : file.object_of(*value, key).members()) {
      _in_order.push_back(special_token(file, member.value, key));
    }
  } else {
    const auto tokens = file.array(key);
    for (const auto& token : *tokens) _in_order.push_back(special_token(file, token, key));
  }
}

const std::string* SpecialTokens::find(std::string_view name) const {
  const auto found = _named.find(name);
  return found == _named.end() ? nullptr : &found->second;
}

/// The tokens by the ids that the files give them; that decides the order of addition alone.
std::map<std::int32_t, AddedToken> SpecialTokens::_listed_tokens() const {
  std::map<std::int32_t, AddedToken> listed;
  if (_sources.lists_added_tokens()) {
    const auto decoder = _sources.config->object("added_tokens_decoder");
    for (const auto& member : decoder->members()) {
      const std::int32_t id = id_of_key(*_sources.config, member.key);
      const AddedToken token = added_token(decoder->object_of(member.value, member.key));
      if (!listed.emplace(id, token).second) {
        _sources.config->refuse("added_tokens_decoder",
                                "has the id " + std::to_string(id) + " twice");
      }
    }
    return listed;
  }
  if (_sources.added) {
    for (const auto& member : _sources.added->members()) {
      AddedToken token = plain_token(checked(*_sources.added, member.key, "a token"));
      token.special = _is_special(token.content);
      token.normalized = !token.special;
      listed.insert_or_assign(_sources.added->id_of(member.value, member.key), token);
    }
  }
  if (!_sources.tokenizer) return listed;
  for (const auto& [id, token] : tokens_of(*_sources.tokenizer)) listed.insert_or_assign(id, token);
  return listed;
}

std::vector<AddedToken> SpecialTokens::read_added() const {
  std::vector<AddedToken> tokens;
  std::map<std::string, std::size_t> places;  // Of each content.
  const auto add = [&](AddedToken token) {
    if (token.content.empty()) return;
    const auto [place, is_new] = places.emplace(token.content, tokens.size());
    if (is_new) {
      tokens.push_back(std::move(token));
    } else {
      tokens[place->second] = std::move(token);
    }
  };
  if (_kind == TokenizerKind::as_it_is) {
    for (auto& [id, token] : tokens_of(*_sources.tokenizer)) add(std::move(token));
  }
  for (auto& [id, token] : _listed_tokens()) {
    if (_is_special(token.content)) token.special = true;
    add(std::move(token));
  }
  for (const AddedToken& token : _in_order) {
    if (!places.contains(token.content)) add(token);
  }
  return tokens;
}

}  // namespace tovana::sentence_transformers
