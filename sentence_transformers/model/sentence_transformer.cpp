#include "sentence_transformers/model/sentence_transformer.h"

#include <algorithm>
#include <iterator>
#include <numeric>
#include <string>
#include <utility>

#include "sentence_transformers/compute/finite.h"
#include "sentence_transformers/model/token_batch.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

/// How many tokens are in memory at a time, but for those of one text: many batches, so that no
/// thread has to wait for another often.
constexpr std::size_t kTokensPerRound = std::size_t{1} << 16U;

using Ids = std::vector<std::int32_t>;

/// Texts in batches of about the same number of rows.
struct Batches {
  std::vector<TokenBatch> batches;
  std::vector<std::size_t> order;        ///< The texts as they follow one another in the batches.
  std::vector<std::size_t> first_texts;  ///< Of each batch, in the order.
};

/// Texts of about the same length come together.
Batches make_batches(const std::vector<Ids>& ids, std::int64_t rows_per_batch) {
  Batches result;
  result.order.resize(ids.size());
  std::iota(result.order.begin(), result.order.end(), std::size_t{0});
  std::ranges::stable_sort(result.order, std::ranges::greater{},
                           [&ids](std::size_t text) { return ids[text].size(); });
  std::int64_t rows = 0;
  for (const Ids& text : ids) rows += std::ssize(text);
  const std::int64_t count = (rows + rows_per_batch - 1) / rows_per_batch;
  std::int64_t place = 0;
  std::int64_t last = -1;
  for (std::size_t index = 0; index < ids.size(); ++index) {
    // A text goes where its middle would be if texts could be cut.
    const Ids& text = ids[result.order[index]];
    const std::int64_t length = std::ssize(text);
    const std::int64_t batch = (2 * place + length) * count / (2 * rows);
    if (batch != last) {
      result.batches.emplace_back();
      result.first_texts.push_back(index);
    }
    result.batches.back().add(text);
    place += length;
    last = batch;
  }
  return result;
}

}  // namespace

struct SentenceTransformer::Call {
  std::span<const std::string_view> texts;
  const EncodeParameters& options;
  std::string_view prompt;
  std::size_t skipped;  ///< Tokens at each text's beginning that the pooling leaves out.
  float* vectors;
};

/// Some texts that follow one another, and their ids.
struct SentenceTransformer::Round {
  std::size_t first;
  std::vector<Ids> ids;
};

std::unique_ptr<const SentenceTransformer> SentenceTransformer::load(
    const files::ModelDirectory& directory, const Runtime& runtime, NumberFormat format) {
  return std::unique_ptr<const SentenceTransformer>(
      new SentenceTransformer(FoundModel(directory), runtime, format));
}

void SentenceTransformer::check(const files::ModelDirectory& directory, const Runtime& runtime) {
  const FoundModel found(directory);
  runtime.check_encoder(found.checkpoint, found.config);
}

SentenceTransformer::SentenceTransformer(FoundModel found, const Runtime& runtime,
                                         NumberFormat format)
    : _kernels(runtime.kernels()),
      _max_length(found.config.max_length),
      _tokenizer(std::move(found.tokenizer)),
      _encoder(runtime.load_encoder(found.checkpoint, found.config, format)),
      _pooling(std::move(found.pooling)),
      _dimension(static_cast<std::size_t>(found.dimension)),
      _prompts(std::move(found.prompts)) {
  found.checkpoint.check_unchanged();
  for (const FoundModule& module : found.modules) _modules.push_back(module.load(_kernels));
}

void SentenceTransformer::encode(std::span<const std::string_view> texts,
                                 const EncodeParameters& options, float* vectors) const {
  const std::string_view prompt =
      options.prompt ? *options.prompt : _prompts.text_of(options.prompt_name);
  const Call call = {.texts = texts,
                     .options = options,
                     .prompt = prompt,
                     .skipped = _count_skipped(prompt),
                     .vectors = vectors};
  for (std::size_t first = 0; first < texts.size();) {
    const Round round = _tokenize(call, first);
    _encode(call, round);
    first += round.ids.size();
  }
}

/// The tokens of a prompt, the special one before it included, if the pooling leaves them out.
std::size_t SentenceTransformer::_count_skipped(std::string_view prompt) const {
  if (prompt.empty() || _pooling.includes_prompt()) return 0;
  const Ids ids = _tokenizer.encode(prompt, _max_length);
  // The token that ends every text does not end the prompt.
  const bool has_end = !ids.empty() && _tokenizer.is_special_id(ids.back());
  return has_end ? ids.size() - 1 : ids.size();
}

SentenceTransformer::Round SentenceTransformer::_tokenize(const Call& call,
                                                          std::size_t first) const {
  Round round = {.first = first, .ids = {}};
  std::string prompted;
  std::size_t tokens = 0;
  for (std::size_t text = first; text < call.texts.size() && tokens < kTokensPerRound; ++text) {
    std::string_view whole = call.texts[text];
    if (!call.prompt.empty()) {
      prompted.assign(call.prompt).append(whole);
      whole = prompted;
    }
    const Ids& ids = round.ids.emplace_back(_tokenizer.encode(whole, _max_length));
    tokens += ids.size();
    if (!call.options.token_counts.empty()) {
      call.options.token_counts[text] = static_cast<std::uint32_t>(ids.size());
    }
  }
  return round;
}

void SentenceTransformer::_encode(const Call& call, const Round& round) const {
  Batches parts = make_batches(round.ids, _encoder->rows_per_batch());
  for (std::size_t& text : parts.order) text += round.first;
  (*_encoder)(parts.batches, [&](std::size_t batch, const float* states) {
    _finish(call, parts.batches[batch], states, parts.order.data() + parts.first_texts[batch]);
  });
}

/// From a batch's states to its texts' vectors, each in its place.
void SentenceTransformer::_finish(const Call& call, const TokenBatch& batch, const float* states,
                                  const std::size_t* texts) const {
  const auto width = static_cast<std::size_t>(_pooling.dimension());
  TextVectors vectors = {.texts = static_cast<std::size_t>(batch.texts()),
                         .width = width,
                         .stride = width,
                         .numbers = {}};
  vectors.numbers.resize(vectors.texts * width);
  _pooling(states, batch, call.skipped, vectors.numbers.data());
  for (const SentenceModule& module : _modules) apply_module(module, _kernels, vectors);
  if (!is_finite(vectors.numbers)) {
    throw RuntimeError(
        "the model gives an infinity or NaN in place of a vector: its weights are damaged");
  }
  for (std::size_t i = 0; i < vectors.texts; ++i) {
    float* const out = call.vectors + texts[i] * _dimension;
    if (call.options.normalize) {
      normalize_vector(vectors.row(i), _dimension, out);
    } else {
      std::copy_n(vectors.row(i), _dimension, out);
    }
  }
}

}  // namespace tovana::sentence_transformers
