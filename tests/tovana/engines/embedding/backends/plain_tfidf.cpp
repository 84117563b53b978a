#include "plain_tfidf.h"

#include <array>
#include <cmath>
#include <map>
#include <set>
#include <stdexcept>

#include <openssl/evp.h>
#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

namespace tovana::embedding::plain {
namespace {

std::string stem(const std::string& word) {
  const int length = icu::UnicodeString::fromUTF8(word).countChar32();
  if (length < 5) return word;
  for (const std::string suffix :
       {"ation", "ment", "ness", "ting", "ing", "ies", "ion", "ers", "ed", "ly", "er", "es", "s"}) {
    if (word.ends_with(suffix) && length - static_cast<int>(suffix.size()) > 2) {
      return word.substr(0, word.size() - suffix.size());
    }
  }
  return word;
}

std::uint64_t md5_head(const std::string& text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
  if (EVP_Digest(text.data(), text.size(), digest.data(), nullptr, EVP_md5(), nullptr) != 1) {
    throw std::runtime_error("MD5");
  }
  std::uint64_t value = 0;
  for (int byte = 7; byte >= 0; --byte) value = value * 256 + digest[static_cast<unsigned>(byte)];
  return value;
}

}  // namespace

std::vector<std::string> tokenize(const std::string& text) {
  const icu::UnicodeString given = icu::UnicodeString::fromUTF8(text);
  icu::UnicodeString lowered;
  for (int i = 0; i < given.length(); i = given.moveIndex32(i, 1)) {
    if (i > 0 && u_isUUppercase(given.char32At(i)) && u_isULowercase(given.char32At(i - 1))) {
      lowered.append(u' ');
    }
    lowered.append(given.char32At(i));
  }
  lowered.toLower(icu::Locale::getRoot());
  for (const char16_t* separator :
       {u"_", u"-", u".", u"/", u"::", u"\\", u"(", u")", u"[", u"]", u"{", u"}", u",", u";"}) {
    lowered.findAndReplace(separator, u" ");
  }
  std::vector<std::string> tokens;
  icu::UnicodeString piece;
  const auto end_piece = [&] {
    std::string word;
    if (piece.countChar32() > 1) tokens.push_back(stem(piece.toUTF8String(word)));
    piece.remove();
  };
  for (int i = 0; i < lowered.length(); i = lowered.moveIndex32(i, 1)) {
    if (u_isUWhiteSpace(lowered.char32At(i))) {
      end_piece();
    } else {
      piece.append(lowered.char32At(i));
    }
  }
  end_piece();
  return tokens;
}

std::vector<std::vector<double>> embed(const std::vector<std::string>& texts,
                                       std::int64_t dimension) {
  std::vector<std::vector<std::string>> token_lists;
  std::map<std::string, int> doc_freq;
  for (const std::string& text : texts) {
    token_lists.push_back(tokenize(text));
    for (const std::string& term :
         std::set<std::string>(token_lists.back().begin(), token_lists.back().end())) {
      ++doc_freq[term];
    }
  }
  std::vector<std::vector<double>> vectors;
  for (const std::vector<std::string>& tokens : token_lists) {
    std::vector<double>& vector = vectors.emplace_back(dimension);
    std::vector<std::string> order;
    std::map<std::string, int> counts;
    for (const std::string& term : tokens) {
      if (++counts[term] == 1) order.push_back(term);
    }
    for (const std::string& term : order) {
      const double tf = 1 + std::log(counts[term]);
      const double idf =
          std::log((static_cast<double>(texts.size()) + 1) / (doc_freq[term] + 1)) + 1;
      const double sign = md5_head(term + "_sign") % 2 == 0 ? 1.0 : -1.0;
      vector[md5_head(term) % static_cast<std::uint64_t>(dimension)] += (sign * tf) * idf;
    }
    double squares = 0;
    for (const double element : vector) squares += element * element;
    const double norm = std::sqrt(squares);
    if (norm > 0) {
      for (double& element : vector) element /= norm;
    }
  }
  return vectors;
}

}  // namespace tovana::embedding::plain
