#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sentence_transformers/tokenizer/tokenizer.h"
#include "tovana/exceptions/exceptions.h"

/// Any bytes are a model's files and a text: the first two say which of the files are there, the
/// options and the length, the rest is cut at each 0xFE, a byte that no UTF-8 text holds, into the
/// text and the files. A file that is there but has no part of its own is a small working one, so
/// that texts reach a tokenizer however seldom a part is a whole vocabulary.
namespace {

using tovana::sentence_transformers::Tokenizer;
using tovana::sentence_transformers::TokenizerFiles;
using tovana::sentence_transformers::TokenizerOptions;

constexpr char kPartEnd = '\xFE';

constexpr std::string_view kTokenizer = R"({
  "added_tokens": [
    {"id": 30, "content": "<\u00c9>", "normalized": true},
    {"id": 31, "content": "[X]", "single_word": true},
    {"id": 32, "content": "[XY", "rstrip": true, "special": true},
    {"id": 33, "content": " [", "lstrip": true, "normalized": true}],
  "normalizer": {"type": "BertNormalizer", "clean_text": false, "lowercase": true,
                 "strip_accents": false},
  "pre_tokenizer": {"type": "BertPreTokenizer"},
  "post_processor": {"type": "BertProcessing", "cls": ["[CLS]", 2], "sep": ["[SEP]", 3]},
  "padding": {"pad_token": "[PAD]"},
  "model": {"type": "WordPiece", "max_input_chars_per_word": 7, "vocab": {
    "[PAD]": 0, "[UNK]": 1, "[CLS]": 2, "[SEP]": 3, "[MASK]": 4, "a": 5, "##a": 6, "aa": 7, "b": 8,
    "##b": 9, "ab": 10, "\u00e9": 11, "##\u00e9": 12, "\u89e3": 13, "[": 14, "]": 15, "x": 16,
    "##\u0301": 17, "\u1112": 18, "##\u1161": 19, "e": 20, "!": 21}}})";
/// The steps of other families, of which most words stay unknown.
constexpr std::string_view kByteLevel = R"({
  "added_tokens": [{"id": 40, "content": "  ", "normalized": true},
                   {"id": 41, "content": "<m>", "lstrip": true, "special": true}],
  "normalizer": {"type": "NFC"},
  "pre_tokenizer": {"type": "Sequence", "pretokenizers": [
    {"type": "Split", "behavior": "Isolated", "pattern": {"Regex":
      "(?i:'s|'t|'re)|[^\\r\\n\\p{L}\\p{N}]?\\p{L}+|\\p{N}{1,3}| ?[^\\s\\p{L}\\p{N}]+[\\r\\n]*|\\s+(?!\\S)|\\s+"}},
    {"type": "ByteLevel", "add_prefix_space": true, "use_regex": false}]},
  "post_processor": {"type": "Sequence", "processors": [{"type": "ByteLevel"},
    {"type": "TemplateProcessing", "special_tokens": {"<e>": {"ids": [0]}},
     "single": [{"Sequence": {"id": "A"}}, {"SpecialToken": {"id": "<e>"}}]}]},
  "padding": {"pad_token": "<e>"},
  "model": {"type": "BPE", "merges": ["a a", "aa b", "\u0120 a", "\u00c3 \u00a9"], "vocab": {
    "<e>": 0, "a": 1, "b": 2, "aa": 3, "aab": 4, "\u0120": 5, "\u0120a": 6, "\u00c3": 7,
    "\u00a9": 8, "\u00c3\u00a9": 9, "1": 10, "\u010a": 11}}})";
constexpr std::string_view kUnigram = R"({
  "normalizer": {"type": "Sequence", "normalizers": [{"type": "NFKC"}, {"type": "Nmt"},
    {"type": "Replace", "pattern": {"Regex": " {2,}"}, "content": " "}, {"type": "Strip"},
    {"type": "Prepend", "prepend": "b"}, {"type": "Lowercase"}, {"type": "StripAccents"}]},
  "pre_tokenizer": {"type": "Sequence", "pretokenizers": [{"type": "WhitespaceSplit"},
    {"type": "Metaspace", "replacement": "_", "prepend_scheme": "first"},
    {"type": "Digits", "individual_digits": false}, {"type": "Whitespace"},
    {"type": "Punctuation", "behavior": "MergedWithNext"}]},
  "post_processor": {"type": "BertProcessing", "cls": ["<s>", 0], "sep": ["</s>", 1]},
  "padding": {"pad_token": "<s>"},
  "model": {"type": "Unigram", "unk_id": 2, "byte_fallback": true, "vocab": [
    ["<s>", 0], ["</s>", 0], ["<u>", 0], ["_", -1], ["a", -2.5], ["_a", -3], ["ab", -4], ["b", -2],
    ["aba", -4.5], ["\u00e9", -3], ["<0xE2>", 0], ["<0x96>", 0], ["<0x81>", 0]]}})";
constexpr std::string_view kAsItIs = R"({"tokenizer_class": "PreTrainedTokenizerFast"})";
constexpr std::string_view kVocabulary = "[PAD]\n[UNK]\n[CLS]\n[SEP]\n[MASK]\na\n##a\nb\n\u89e3\n!";

void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "tokenizer_fuzz: %s\n", what);
  std::abort();
}

/// The parts of the input, one after the other.
class Parts {
 public:
  explicit Parts(std::string_view bytes) : _left(bytes) {}

  /// The next one; empty when there are no more.
  std::string_view next() {
    const std::size_t end = _left.find(kPartEnd);
    const std::string_view part = _left.substr(0, end);
    _left.remove_prefix(end == std::string_view::npos ? _left.size() : end + 1);
    return part;
  }

  std::string next_or(std::string_view otherwise) {
    const std::string_view part = next();
    return std::string(part.empty() ? otherwise : part);
  }

 private:
  std::string_view _left;
};

std::optional<Tokenizer> load(TokenizerFiles files, const TokenizerOptions& options) {
  try {
    return Tokenizer(std::move(files), options);
  } catch (const tovana::ValueError& error) {
    const std::string_view message = error.what();
    require(!message.empty() && message.find('\n') == std::string_view::npos,
            "an error is not one line");
    return std::nullopt;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const auto is_there = [data](unsigned bit) { return (data[0] >> bit & 1U) != 0; };
  Parts parts(std::string_view(reinterpret_cast<const char*>(data) + 2, size - 2));
  const std::string text(parts.next());
  TokenizerFiles files;
  if (is_there(0)) {
    const std::string_view other = is_there(5) ? kByteLevel : kUnigram;
    files.tokenizer_json = parts.next_or(is_there(7) ? other : kTokenizer);
  } else {
    files.vocab_txt = parts.next_or(kVocabulary);
  }
  if (is_there(1))
    files.tokenizer_config_json = parts.next_or(is_there(6) || is_there(7) ? kAsItIs : "{}");
  if (is_there(2)) files.special_tokens_map_json = parts.next_or(R"({"mask_token": "x"})");
  if (is_there(3)) files.added_tokens_json = parts.next_or(R"({"<n>": 40})");
  if (is_there(4)) files.config_json = parts.next_or(R"({"model_type": "mpnet"})");

  const std::optional<Tokenizer> tokenizer =
      load(std::move(files), {.lowercase_first = is_there(5)});
  if (!tokenizer) return 0;
  const std::size_t specials = tokenizer->special_count();
  const std::size_t max_length = specials + data[1];
  std::vector<std::int32_t> ids;
  try {
    ids = tokenizer->encode(text, max_length);
  } catch (const tovana::ValueError&) {
    return 0;  // An expression that takes too long.
  }
  const std::vector<std::int32_t> ends = tokenizer->encode("", specials);
  require(ids.size() >= specials && ids.size() <= max_length, "not within the length");
  require(ends.size() == specials, "an empty text is not its special tokens");
  const auto same = std::mismatch(ids.begin(), ids.end(), ends.begin(), ends.end()).second;
  const auto behind = static_cast<std::ptrdiff_t>(ends.end() - same);
  require(std::equal(same, ends.end(), ids.end() - behind), "other tokens at the ends");
  for (const std::int32_t id : ids) {
    require(id >= 0 && id <= tokenizer->largest_id(), "an id is out of range");
  }
  // A longer limit only adds tokens before the end.
  std::vector<std::int32_t> longer = ids;
  try {
    longer = tokenizer->encode(text, max_length + 3);
  } catch (const tovana::ValueError&) {
    return 0;  // It came further.
  }
  require(longer.size() >= ids.size(), "a longer limit gives fewer ids");
  if (ids.size() < max_length) require(longer == ids, "a limit that is not reached changes ids");
  return 0;
}
