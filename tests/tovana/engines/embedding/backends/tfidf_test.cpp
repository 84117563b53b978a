#include "tovana/engines/embedding/backends/tfidf.h"

#include <cstdlib>
#include <fstream>
#include <future>
#include <limits>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "plain_tfidf.h"

namespace tovana::embedding {
namespace {

using namespace std::string_literals;
using Texts = std::vector<std::string>;

Texts split(const std::string& text, char separator = ' ') {
  Texts pieces;
  std::istringstream stream(text);
  for (std::string piece; std::getline(stream, piece, separator);) pieces.push_back(piece);
  return pieces;
}

Texts tokens(const std::string& text) { return TFIDFEmbeddingBackend()._tokenize(text); }

void expect_same(const std::vector<Vector>& vectors, const std::vector<Vector>& expected,
                 double tolerance) {
  ASSERT_EQ(vectors.size(), expected.size());
  for (std::size_t text = 0; text < vectors.size(); ++text) {
    ASSERT_EQ(vectors[text].size(), expected[text].size()) << "text " << text;
    for (std::size_t i = 0; i < vectors[text].size(); ++i) {
      ASSERT_NEAR(vectors[text][i], expected[text][i], tolerance) << "text " << text << ", " << i;
    }
  }
}

/// Words of several scripts, code and broken UTF-8, glued by whatever may end a word or not.
std::string random_text(std::mt19937& random, std::size_t pieces) {
  static const Texts kPieces = split(
      "get User HTTP v2 x connections ation Settings caf\u00E9s \u0130 \u0391\u03A3 \u03B1\u03A3 "
      "\u01C5 \u00DF \u4F60\u597D \U0001F600 \u2160\u2170 \u043F\u0440\u0438\u0432\u0435\u0442ing "
      "e\u0301 \u00AA \xFF \xE2\x82 \xED\xA0\x80 \0 1 ="s);
  static const Texts kGlue =
      split(",, ,_,-,.,/,:,::,:::,\\,(,],;,\n,\u00A0,\u2028,\u0085,\x1F,\u3000,\u200B", ',');
  std::string text;
  for (; pieces > 0; --pieces) {
    text += kPieces[random() % kPieces.size()];
    text += kGlue[random() % kGlue.size()];
  }
  return text;
}

TEST(TFIDF, SplitsCodeAsItsReadersDoInAnyScript) {
  const std::pair<std::string, std::string> cases[] = {
      {"parseHTTPResponse_v2", "parse httpresponse v2"},
      {"iPhone v2Name getUserName", "phone v2name get user name"},
      {"std::swap(a,b) x+y=z", "std swap x+y=z"},
      {"Parsing connections, quickly!", "pars connection quickly!"},
      {"ab:::cd a:b :: : a.b::c(d)", "ab :cd a:b"},
      {"[one]{two};three\\four/five-six", "one two three four five six"},
      {"\u00E9t\u00E9\u00C9tat", "\u00E9t\u00E9 \u00E9tat"},
      {"\u00E9 \u00E9\u00E9", "\u00E9\u00E9"},  // two bytes are one character
      {"one\u00A0two\u3000three\x1Fzz", "one two three\x1Fzz"},
      {"\u0391\u03A3_b1 \u0391\u03A3.b1", "\u03B1\u03C2 b1 \u03B1\u03C3 b1"},
      {"bad\xFF\xE2\x82tail", "bad\uFFFD\uFFFDtail"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(tokens(text), split(expected));
}

TEST(TFIDF, CutsTheFirstSuffixThatLeavesThreeCharacters) {
  for (const std::string& each :
       split("creation/cre nation/nat ation/ation cookies/cook tables/tabl runs/runs getting/get "
             "apply/app settings/setting ties/ties caf\u00E9/caf\u00E9 "
             "\u00E9\u00E9ing/\u00E9\u00E9ing "
             "\u00E9\u00E9\u00E9s/\u00E9\u00E9\u00E9s "
             "\u00E9\u00E9\u00E9\u00E9s/\u00E9\u00E9\u00E9\u00E9")) {
    const std::size_t slash = each.find('/');
    EXPECT_EQ(TFIDFEmbeddingBackend::_stem(each.substr(0, slash)), each.substr(slash + 1));
  }
  EXPECT_EQ(TFIDFEmbeddingBackend::_stem(""), "");
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
    expect_same(TFIDFEmbeddingBackend().embed(texts), expected, 1e-15);
  }
}

TEST(TFIDF, SurvivesAnyDimension) {
  const Texts texts = {"getUserName", "", "get user"};
  for (const std::int64_t dimension : {0L, -1L, std::numeric_limits<std::int64_t>::min()}) {
    EXPECT_EQ(TFIDFEmbeddingBackend(dimension).embed(texts), std::vector<Vector>(3));
  }
  // In one dimension every term shares the element: "get" and "user" cancel.
  EXPECT_EQ(TFIDFEmbeddingBackend(1).embed({"get user"}), std::vector<Vector>{{0.0}});
  for (const std::int64_t dimension : {1, 2, 63, 64, 65, 1000, 100003}) {
    SCOPED_TRACE(dimension);
    expect_same(TFIDFEmbeddingBackend(dimension).embed(texts), plain::embed(texts, dimension), 0);
  }
  EXPECT_THROW(TFIDFEmbeddingBackend(std::numeric_limits<std::int64_t>::max()).embed(texts),
               std::length_error);
}

TEST(TFIDF, EqualsAPlainReadingOnTheCorpus) {
  const char* const path = std::getenv("TOVANA_TEST_CORPUS");
  ASSERT_NE(path, nullptr) << "run through ctest, which extracts the corpus";
  std::ifstream file(path);
  std::stringstream content;
  content << file.rdbuf();
  const Texts texts = split(content.str(), '\n');
  ASSERT_GT(texts.size(), 5000U) << path;
  TFIDFEmbeddingBackend backend;
  const std::vector<Vector> vectors = backend.embed(texts);
  expect_same(vectors, plain::embed(texts, 256), 1e-12);
  EXPECT_EQ(vectors, TFIDFEmbeddingBackend().embed(texts));  // bit for bit
}

TEST(TFIDF, EqualsAPlainReadingOnMixedScripts) {
  std::mt19937 random(11);
  TFIDFEmbeddingBackend backend;
  for (int round = 0; round < 100; ++round) {
    Texts texts;
    for (std::size_t count = random() % 20; count > 0; --count) {
      texts.push_back(random_text(random, random() % 30));
      ASSERT_EQ(tokens(texts.back()), plain::tokenize(texts.back()))
          << testing::PrintToString(texts.back());
    }
    expect_same(backend.embed(texts), plain::embed(texts, 256), 1e-12);
  }
}

// A long text is worked through in pieces: none may cut a word, nor the context of a letter's case.
TEST(TFIDF, EqualsAPlainReadingOnLongTexts) {
  std::mt19937 random(13);
  for (const bool ascii : {true, false}) {
    std::string text;
    while (text.size() < 60000) {
      text += ascii ? "word" + std::to_string(random() % 5000) + (random() % 4 == 0 ? " " : "Next")
                    : random_text(random, 40);
    }
    text += std::string(30000, 'a') + "\u0391\u03A3";
    ASSERT_EQ(tokens(text), plain::tokenize(text));
    expect_same(TFIDFEmbeddingBackend().embed({text, "word1"}), plain::embed({text, "word1"}, 256),
                1e-12);
  }
}

TEST(TFIDF, ServesManyThreadsAtOnce) {
  std::mt19937 random(17);
  std::vector<Texts> batches(8);
  for (Texts& batch : batches) {
    for (int count = 0; count < 20; ++count) batch.push_back(random_text(random, 10));
  }
  TFIDFEmbeddingBackend backend;
  std::vector<std::future<std::vector<Vector>>> results;
  for (const Texts& batch : batches) {
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
