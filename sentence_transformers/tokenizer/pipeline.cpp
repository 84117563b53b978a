#include "sentence_transformers/tokenizer/pipeline.h"

#include <optional>
#include <utility>

#include "sentence_transformers/tokenizer/models/word_piece.h"
#include "sentence_transformers/tokenizer/normalizers/bert_normalizer.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/bert_pre_tokenizer.h"
#include "sentence_transformers/tokenizer/pre_tokenizers/words.h"
#include "tovana/base/text.h"

namespace tovana::sentence_transformers {
namespace {

/// BERT's normalizer, its words and WordPiece: one pass through a text, and no copy of it.
class BertPipeline final : public Pipeline {
 public:
  /// `model` is a WordPiece.
  BertPipeline(const NormalizerOptions& options, ModelStep model)
      : _normalizer(options),
        _model(std::move(model)),
        _word_piece(static_cast<const WordPiece&>(*_model)) {}

  std::string normalize(std::string_view text) const override {
    return _normalizer.normalize(text);
  }
  bool append_ids(const Piece& piece, std::size_t most,
                  std::vector<std::int32_t>& ids) const override {
    return _append_ids(_normalizer, piece, most, ids);
  }
  bool append_normalized_ids(const Piece& piece, std::size_t most,
                             std::vector<std::int32_t>& ids) const override {
    return _append_ids(_as_is, piece, most, ids);
  }
  bool may_be_cut() const noexcept override { return true; }
  const Model& model() const noexcept override { return _word_piece; }

 private:
  bool _append_ids(const BertNormalizer& normalizer, const Piece& piece, std::size_t most,
                   std::vector<std::int32_t>& ids) const {
    Words words(normalizer);
    const WordPiece& word_piece = _word_piece;  // One load less for each word.
    return words.for_each(piece.text, [&](std::string_view word, std::size_t characters) {
      word_piece.append_ids(word, characters, ids);
      return ids.size() < most;
    });
  }

  BertNormalizer _normalizer;
  BertNormalizer _as_is;  ///< For text that is normalized already.
  ModelStep _model;
  const WordPiece& _word_piece;
};

/// Any steps, one after the other.
class StepPipeline final : public Pipeline {
 public:
  StepPipeline(std::vector<NormalizerStep> normalizers,
               std::vector<PreTokenizerStep> pre_tokenizers, ModelStep model)
      : _normalizers(std::move(normalizers)),
        _pre_tokenizers(std::move(pre_tokenizers)),
        _model(std::move(model)) {}

  std::string normalize(std::string_view text) const override {
    std::string normalized = repair_utf8(text);
    for (const NormalizerStep& step : _normalizers) step->normalize(normalized);
    return normalized;
  }
  bool append_ids(const Piece& piece, std::size_t most,
                  std::vector<std::int32_t>& ids) const override {
    const std::string normalized = normalize(piece.text);
    return append_normalized_ids({normalized, piece.begins_text}, most, ids);
  }
  bool append_normalized_ids(const Piece& piece, std::size_t most,
                             std::vector<std::int32_t>& ids) const override {
    return piece.text.empty() || _split(0, piece, [&](const Piece& word) {
             _model->append_ids(word.text, ids);
             return ids.size() < most;
           });
  }
  bool may_be_cut() const noexcept override { return false; }
  const Model& model() const noexcept override { return *_model; }

 private:
  /// Takes a piece through the steps from this one on.
  bool _split(std::size_t step, const Piece& piece, const PieceSink& on_word) const {
    if (step == _pre_tokenizers.size()) return on_word(piece);
    if (step + 1 == _pre_tokenizers.size()) return _pre_tokenizers[step]->split(piece, on_word);
    return _pre_tokenizers[step]->split(
        piece, [&](const Piece& part) { return _split(step + 1, part, on_word); });
  }

  std::vector<NormalizerStep> _normalizers;
  std::vector<PreTokenizerStep> _pre_tokenizers;
  ModelStep _model;
};

template <class Step, class Base>
const Step* only(const std::vector<std::unique_ptr<const Base>>& steps) {
  return steps.size() == 1 ? dynamic_cast<const Step*>(steps.front().get()) : nullptr;
}

}  // namespace

std::unique_ptr<const Pipeline> make_pipeline(std::vector<NormalizerStep> normalizers,
                                              std::vector<PreTokenizerStep> pre_tokenizers,
                                              ModelStep model) {
  const auto* const bert = only<BertNormalizerStep>(normalizers);
  if (bert != nullptr && only<BertPreTokenizer>(pre_tokenizers) != nullptr &&
      dynamic_cast<const WordPiece*>(model.get()) != nullptr) {
    return std::make_unique<BertPipeline>(bert->options(), std::move(model));
  }
  return std::make_unique<StepPipeline>(std::move(normalizers), std::move(pre_tokenizers),
                                        std::move(model));
}

}  // namespace tovana::sentence_transformers
