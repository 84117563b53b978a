#include "tovana/engines/hub/model_name.h"

#include <algorithm>
#include <array>

#include "tovana/base/text.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::hub {
namespace {

constexpr std::size_t kLongestPart = 96;
constexpr std::size_t kLongestRevision = 240;

/// Repositories without an organisation, in alphabetical order.
constexpr std::array<std::string_view, 68> kClassicModels = {
    "albert-base-v1",
    "albert-base-v2",
    "albert-large-v1",
    "albert-large-v2",
    "albert-xlarge-v1",
    "albert-xlarge-v2",
    "albert-xxlarge-v1",
    "albert-xxlarge-v2",
    "bert-base-cased",
    "bert-base-cased-finetuned-mrpc",
    "bert-base-chinese",
    "bert-base-german-cased",
    "bert-base-german-dbmdz-cased",
    "bert-base-german-dbmdz-uncased",
    "bert-base-multilingual-cased",
    "bert-base-multilingual-uncased",
    "bert-base-uncased",
    "bert-large-cased",
    "bert-large-cased-whole-word-masking",
    "bert-large-cased-whole-word-masking-finetuned-squad",
    "bert-large-uncased",
    "bert-large-uncased-whole-word-masking",
    "bert-large-uncased-whole-word-masking-finetuned-squad",
    "camembert-base",
    "ctrl",
    "distilbert-base-cased",
    "distilbert-base-cased-distilled-squad",
    "distilbert-base-german-cased",
    "distilbert-base-multilingual-cased",
    "distilbert-base-uncased",
    "distilbert-base-uncased-distilled-squad",
    "distilbert-base-uncased-finetuned-sst-2-english",
    "distilgpt2",
    "distilroberta-base",
    "gpt2",
    "gpt2-large",
    "gpt2-medium",
    "gpt2-xl",
    "openai-gpt",
    "roberta-base",
    "roberta-base-openai-detector",
    "roberta-large",
    "roberta-large-mnli",
    "roberta-large-openai-detector",
    "t5-11b",
    "t5-3b",
    "t5-base",
    "t5-large",
    "t5-small",
    "transfo-xl-wt103",
    "xlm-clm-ende-1024",
    "xlm-clm-enfr-1024",
    "xlm-mlm-100-1280",
    "xlm-mlm-17-1280",
    "xlm-mlm-en-2048",
    "xlm-mlm-ende-1024",
    "xlm-mlm-enfr-1024",
    "xlm-mlm-enro-1024",
    "xlm-mlm-tlm-xnli15-1024",
    "xlm-mlm-xnli15-1024",
    "xlm-roberta-base",
    "xlm-roberta-large",
    "xlm-roberta-large-finetuned-conll02-dutch",
    "xlm-roberta-large-finetuned-conll02-spanish",
    "xlm-roberta-large-finetuned-conll03-english",
    "xlm-roberta-large-finetuned-conll03-german",
    "xlnet-base-cased",
    "xlnet-large-cased",
};
static_assert(std::ranges::is_sorted(kClassicModels));

bool is_classic(std::string_view name) {
  return std::ranges::binary_search(kClassicModels, std::string_view(ascii_lower(name)));
}

bool is_word_character(char c) { return is_ascii_alphanumeric(c) || c == '_'; }

bool is_valid_part(std::string_view part) {
  return !part.empty() && part.size() <= kLongestPart && is_word_character(part.front()) &&
         is_word_character(part.back()) && std::ranges::all_of(part, [](char c) {
           return is_word_character(c) || c == '-' || c == '.';
         });
}

bool is_valid_repo_id(std::string_view id) {
  const std::size_t slash = id.find('/');
  const bool has_valid_parts =
      slash == std::string_view::npos
          ? is_valid_part(id)
          : is_valid_part(id.substr(0, slash)) && is_valid_part(id.substr(slash + 1));
  return has_valid_parts && id.find("--") == std::string_view::npos &&
         id.find("..") == std::string_view::npos && !id.ends_with(".git");
}

/// What git takes for a name of a branch or tag; it also becomes a path in the cache.
bool is_valid_revision(std::string_view text) {
  const auto is_bad = [](char c) {
    return static_cast<unsigned char>(c) <= ' ' || c == '\x7F' ||
           std::string_view("~^:?*[\\").find(c) != std::string_view::npos;
  };
  if (text.empty() || text.size() > kLongestRevision || std::ranges::any_of(text, is_bad)) {
    return false;
  }
  const std::string framed = "/" + std::string(text) + "/";
  return framed.find("//") == std::string::npos && framed.find("/.") == std::string::npos &&
         framed.find("..") == std::string::npos && framed.find("./") == std::string::npos &&
         framed.find(".lock/") == std::string::npos;
}

bool is_folder(std::string_view name) {
  return name.starts_with('/') || name.starts_with("./") || name.starts_with("../") ||
         name == "." || name == "..";
}

std::string shown(std::string_view text) { return escape_control_characters(repair_utf8(text)); }

}  // namespace

ModelName parse_model_name(std::string_view text) {
  ModelName name;
  name.text = text;
  if (is_folder(text) && text.find('\0') == std::string_view::npos) {
    name.directory = std::filesystem::path(text);
    return name;
  }
  const bool has_organisation = text.find('/') != std::string_view::npos;
  name.repo_id = has_organisation || is_classic(text) ? std::string(text)
                                                      : "sentence-transformers/" + name.text;
  if (!is_valid_repo_id(name.repo_id)) {
    throw ValueError("model name '" + shown(text) +
                     "' is neither a repository (\"name\" or \"organisation/name\", of letters, "
                     "digits, '_', '-' and '.') nor a folder (an absolute path, or one that begins "
                     "with \"./\")");
  }
  return name;
}

ModelName parse_model_name(std::string_view text, std::string_view revision) {
  ModelName name = parse_model_name(text);
  if (name.directory) throw ValueError("a folder has no revisions: '" + shown(text) + "'");
  if (!is_valid_revision(revision)) {
    throw ValueError("revision '" + shown(revision) +
                     "' is neither a branch or tag (\"main\", \"v1.0\") nor a commit");
  }
  name.revision = revision;
  return name;
}

}  // namespace tovana::hub
