#include "sentence_transformers/tokenizer/tokenizer_classes.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "sentence_transformers/tokenizer/models/read_model.h"
#include "sentence_transformers/tokenizer/models/vocabulary.h"
#include "sentence_transformers/tokenizer/models/word_piece.h"
#include "sentence_transformers/tokenizer/normalizers/bert_normalizer.h"
#include "sentence_transformers/tokenizer/normalizers/plain_normalizers.h"
#include "sentence_transformers/tokenizer/normalizers/read_normalizers.h"
#include "sentence_transformers/tokenizer/normalizers/unicode_normalizer.h"
#include "sentence_transformers/tokenizer/post_processors/read_post_processor.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/bert_pre_tokenizer.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/byte_level.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/metaspace.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/split.h"
#include "sentence_transformers/tokenizer/unicode_tables.h"
#include "tovana/exceptions/exceptions.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {
namespace {

constexpr std::string_view kQwen2Words =
    "(?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\\r\\n\\p{L}\\p{N}]?\\p{L}+|\\p{N}| "
    "?[^\\s\\p{L}\\p{N}]+[\\r\\n]*"
    "|\\s*[\\r\\n]+|\\s+(?!\\S)|\\s+";

class ClassBuilder {
 public:
  ClassBuilder(const TokenizerSources& sources, const SpecialTokens& tokens,
               const TokenizerOptions& options, TokenizerSettings& settings)
      : _sources(sources), _tokens(tokens), _options(options), _settings(settings) {}

  void build(TokenizerKind kind) {
    _settings.pad_token = _token("pad_token");
    switch (kind) {
      case TokenizerKind::bert:
      case TokenizerKind::mpnet:
        return _build_bert();
      case TokenizerKind::roberta:
        return _build_roberta();
      case TokenizerKind::xlm_roberta:
        return _build_xlm_roberta(3);
      case TokenizerKind::camembert:
        return _build_xlm_roberta(std::nullopt);
      case TokenizerKind::qwen2:
        return _build_qwen2();
      case TokenizerKind::gemma:
        return _build_gemma();
      case TokenizerKind::as_it_is:
        break;
    }
  }

 private:
  const std::string& _token(std::string_view name) const { return *_tokens.find(name); }

  bool _flag(std::string_view key, std::optional<bool> asked, bool otherwise) const {
    const auto said = _sources.config ? _sources.config->flag(key) : std::nullopt;
    return asked.value_or(said.value_or(otherwise));
  }
  bool _add_prefix_space(bool otherwise) const {
    return _flag("add_prefix_space", std::nullopt, otherwise);
  }

  void _set_ends(std::string_view before, std::string_view behind) {
    _settings.ends.before.push_back({_token(before), std::nullopt});
    _settings.ends.behind.push_back({_token(behind), std::nullopt});
  }

  template <class Step, class... Arguments>
  void _add_normalizer(Arguments&&... arguments) {
    _settings.normalizers.push_back(std::make_unique<Step>(std::forward<Arguments>(arguments)...));
  }
  template <class Step, class... Arguments>
  void _add_pre_tokenizer(Arguments&&... arguments) {
    _settings.pre_tokenizers.push_back(
        std::make_unique<Step>(std::forward<Arguments>(arguments)...));
  }

  void _build_bert() {
    NormalizerOptions normalizer;
    normalizer.clean_text = true;
    normalizer.handle_chinese_chars =
        _flag("tokenize_chinese_chars", _options.tokenize_chinese_chars, true);
    normalizer.lowercase = _flag("do_lower_case", _options.do_lower_case, true);
    normalizer.strip_accents = _flag("strip_accents", _options.strip_accents, normalizer.lowercase);
    _add_normalizer<BertNormalizerStep>(normalizer);
    _add_pre_tokenizer<BertPreTokenizer>();
    _set_ends("cls_token", "sep_token");
    try {
      WordPieceOptions word_piece;
      word_piece.unknown_token = _token("unk_token");
      _settings.model = std::make_unique<WordPiece>(_read_word_piece(), word_piece);
    } catch (const files::ModelFilesError&) {
      throw;
    } catch (const ValueError& fault) {
      throw files::ModelFilesError(_settings.vocabulary_path + ": " + fault.what());
    }
  }

  std::vector<ByteTrie::Entry> _read_word_piece() const {
    if (_sources.tokenizer) return read_ids(model_of(*_sources.tokenizer, "WordPiece"));
    if (_sources.vocab_txt) return read_lines(_sources.vocab_txt_path, *_sources.vocab_txt);
    throw files::ModelFilesError(_sources.tokenizer_path +
                                 ": not there, and no vocab.txt either: the tokenizer " +
                                 "has no vocabulary");
  }

  void _build_roberta() {
    _add_pre_tokenizer<ByteLevel>(_add_prefix_space(false), true);
    _settings.model = make_byte_pair_encoding(_model("BPE"), {});
    _set_ends("cls_token", "sep_token");
  }

  /// Without an id, the unknown token is found by its name.
  void _build_xlm_roberta(std::optional<std::int32_t> unknown_id) {
    const JsonObject model = _model("Unigram");
    if (NormalizerStep step = read_precompiled(*_sources.tokenizer)) {
      _settings.normalizers.push_back(std::move(step));
    }
    _add_pre_tokenizer<SplitAtCharacters>(unicode::is_white_space, SplitBehavior::removed);
    _add_pre_tokenizer<Metaspace>(
        kMetaspaceMark,
        _add_prefix_space(true) ? Metaspace::Prepend::always : Metaspace::Prepend::never, true);
    if (!unknown_id) unknown_id = _place_of(_token("unk_token"), model);
    _settings.model = make_unigram(model, *unknown_id, false);
    _set_ends("bos_token", "eos_token");
  }

  /// 0 when it is not there.
  static std::int32_t _place_of(std::string_view token, const JsonObject& model) {
    std::int32_t place = 0;
    for (const auto& [known, score] : read_scores(model)) {
      if (known == token) return place;
      ++place;
    }
    return 0;
  }

  void _build_qwen2() {
    _add_normalizer<UnicodeNormalizer>(UnicodeForm::nfc);
    _add_pre_tokenizer<Split>(Expression(kQwen2Words), SplitBehavior::isolated, false);
    _add_pre_tokenizer<ByteLevel>(_add_prefix_space(false), false);
    _settings.model = make_byte_pair_encoding(_model("BPE"), {});
    _settings.ends = read_post_processor(*_sources.tokenizer);
  }

  void _build_gemma() {
    _add_normalizer<Replace>(Expression::literal(" "), kMetaspaceMark);
    _add_pre_tokenizer<Split>(Expression::literal(" "), SplitBehavior::merged_with_previous, false);
    BytePairOptions model;
    model.unknown_token = _token("unk_token");
    model.fuse_unknown = true;
    model.byte_fallback = true;
    _settings.model = make_byte_pair_encoding(_model("BPE"), model);
    _settings.ends = read_post_processor(*_sources.tokenizer);
  }

  JsonObject _model(std::string_view type) const {
    if (!_sources.tokenizer) {
      throw files::ModelFilesError(_sources.tokenizer_path +
                                   ": missing, and the tokenizer's class needs it");
    }
    return model_of(*_sources.tokenizer, type);
  }

  const TokenizerSources& _sources;
  const SpecialTokens& _tokens;
  const TokenizerOptions& _options;
  TokenizerSettings& _settings;
};

}  // namespace

void build_class(const TokenizerSources& sources, TokenizerKind kind, const SpecialTokens& tokens,
                 const TokenizerOptions& options, TokenizerSettings& settings) {
  ClassBuilder(sources, tokens, options, settings).build(kind);
}

}  // namespace tovana::sentence_transformers
