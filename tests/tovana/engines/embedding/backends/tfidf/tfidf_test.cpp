#include "tovana/engines/embedding/backends/tfidf/tfidf.h"

#include <future>
#include <limits>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>

/// Runs where the user's language is Turkish, whose small I has no dot, and where OpenSSL refuses
/// MD5, as FIPS set-ups do (no_md5.cnf).
namespace tovana::embedding {
namespace {

using Texts = std::vector<std::string>;

Texts split(const std::string& text) {
  Texts pieces;
  std::istringstream stream(text);
  for (std::string piece; std::getline(stream, piece, ' ');) pieces.push_back(piece);
  return pieces;
}

TEST(TFIDF, SplitsCodeAsItsReadersDoInAnyScript) {
  const std::pair<std::string, std::string> cases[] = {
      {"parseHTTPResponse_v2", "parse httpresponse v2"},
      {"iPhone v2Name getUserName", "phone v2name get user name"},
      {"std::swap(a,b) x+y=z", "std swap x+y=z"},
      {"Parsing connections, quickly!", "pars connection quickly!"},
      {"ab:::cd a:b :: : a.b::c(d)", "ab :cd a:b"},
      {"[one]{two};three\\four/five-six", "one two three four five six"},
      {"on\ttw\nth\vfo\ffi\rsi se", "on tw th fo fi si se"},
      {"\u00E9t\u00E9\u00C9tat", "\u00E9t\u00E9 \u00E9tat"},
      {"\u00C9CRIT I", "\u00E9crit"},           // in any locale
      {"\u00E9 \u00E9\u00E9", "\u00E9\u00E9"},  // two bytes are one character
      {"one\u00A0two\u3000three\x1Fzz", "one two three\x1Fzz"},
      {"\u0391\u03A3_b1 \u0391\u03A3.b1", "\u03B1\u03C2 b1 \u03B1\u03C3 b1"},
      {"bad\xFF\xE2\x82tail", "bad\uFFFD\uFFFDtail"},
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(TFIDFEmbeddingBackend()._tokenize(text), split(expected));
  }
}

TEST(TFIDF, CutsTheFirstSuffixThatLeavesThreeCharacters) {
  for (const std::string& each :
       split("creation/cre nation/nat ation/ation cookies/cook tables/tabl runs/runs getting/get "
             "apply/app settings/setting ties/ties caf\u00E9/caf\u00E9 "
             "\u00E9\u00E9ing/\u00E9\u00E9ing "
             "\u00E9\u00E9\u00E9s/\u00E9\u00E9\u00E9s "
             "\u00E9\u00E9\u00E9\u00E9s/\u00E9\u00E9\u00E9\u00E9 /")) {
    const std::size_t slash = each.find('/');
    EXPECT_EQ(TFIDFEmbeddingBackend::_stem(each.substr(0, slash)), each.substr(slash + 1));
  }
}

TEST(TFIDF, GivesTheKnownVectorsToTheLastDigit) {
  using Elements = std::map<std::size_t, double>;  // those that are not zero
  const std::pair<Texts, std::vector<Elements>> cases[] = {
      {{"getUserName"},
       {{{181, -0.5773502691896258}, {238, 0.5773502691896258}, {176, 0.5773502691896258}}}},
      {{"getUserName", "get user"},
       {{{181, -0.5015489070943787}, {238, 0.5015489070943787}, {176, 0.7049094889309326}},
        {{181, -0.7071067811865475}, {238, 0.7071067811865475}}}},
      {{"GET user Get"}, {{{181, -0.8610369959439764}, {238, 0.5085423203783267}}}},
      {{"a.b::c(d)", "", " \n", "_"}, {{}, {}, {}, {}}},
      {{}, {}},
  };
  for (const auto& [texts, vectors] : cases) {
    std::vector<Vector> expected;
    for (const Elements& elements : vectors) {
      expected.emplace_back(256);
      for (const auto& [index, element] : elements) expected.back()[index] = element;
    }
    EXPECT_EQ(TFIDFEmbeddingBackend().embed(texts), expected);
  }
  EXPECT_EQ(EVP_MD_fetch(nullptr, "MD5", nullptr), nullptr) << "the configuration does not bite";
}

TEST(TFIDF, SurvivesAnyDimension) {
  const Texts texts = {"getUserName", "", "get user"};
  for (const std::int64_t dimension : {0L, -1L, std::numeric_limits<std::int64_t>::min()}) {
    EXPECT_EQ(TFIDFEmbeddingBackend(dimension).embed(texts), std::vector<Vector>(3));
  }
  // In one dimension every term shares the element: "get" and "user" cancel.
  EXPECT_EQ(TFIDFEmbeddingBackend(1).embed({"get user"}), std::vector<Vector>{{0.0}});
  TFIDFEmbeddingBackend largest(std::numeric_limits<std::int64_t>::max());
  EXPECT_THROW(largest.embed(texts), std::length_error);
  EXPECT_TRUE(largest.embed({}).empty());
}

TEST(TFIDF, ServesManyThreadsAtOnce) {
  TFIDFEmbeddingBackend backend;
  std::vector<Texts> batches(8);
  std::vector<std::future<std::vector<Vector>>> results;
  for (Texts& batch : batches) {
    for (int word = 0; word < 100; ++word) {
      batch.push_back("word" + std::to_string(60 * results.size() + batch.size()));
    }
    results.push_back(std::async(std::launch::async, [&backend, &batch] {
      for (int round = 0; round < 20; ++round) backend.embed(batch);
      return backend.embed(batch);
    }));
  }
  for (std::size_t i = 0; i < batches.size(); ++i) {
    EXPECT_EQ(results[i].get(), backend.embed(batches[i]));
  }
}

}  // namespace
}  // namespace tovana::embedding
