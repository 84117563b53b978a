#include "tovana/engines/embedding/backends/tfidf.h"

#include <cstdlib>
#include <fstream>
#include <future>
#include <limits>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "plain_tfidf.h"

namespace tovana::embedding {
namespace {

using namespace std::string_literals;
using Texts = std::vector<std::string>;

Texts tokens(const std::string& text) { return TFIDFEmbeddingBackend()._tokenize(text); }

/// The elements of a vector that are not zero, by index.
std::map<std::size_t, double> elements(const Vector& vector) {
  std::map<std::size_t, double> result;
  for (std::size_t i = 0; i < vector.size(); ++i) {
    if (vector[i] != 0) result[i] = vector[i];
  }
  return result;
}

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
  static const Texts kPieces = {"get",
                                "User",
                                "HTTP",
                                "v2",
                                "x",
                                "connections",
                                "ation",
                                "Settings",
                                "caf\u00E9s",
                                "\u0130",
                                "\u0391\u03A3",
                                "\u03B1\u03A3",
                                "\u01C5",
                                "\u00DF",
                                "\u4F60\u597D",
                                "\U0001F600",
                                "\u2160\u2170",
                                "\u043F\u0440\u0438\u0432\u0435\u0442ing",
                                "e\u0301",
                                "\u00AA",
                                "\xFF",
                                "\xE2\x82",
                                "\xED\xA0\x80",
                                "\0"s,
                                "1",
                                "="};
  static const Texts kGlue = {"",   "",       " ",      "_",      "-",    ".",      "/",
                              ":",  "::",     ":::",    "\\",     "(",    "]",      ";",
                              "\n", "\u00A0", "\u2028", "\u0085", "\x1F", "\u3000", "\u200B"};
  std::string text;
  for (; pieces > 0; --pieces) {
    text += kPieces[random() % kPieces.size()];
    text += kGlue[random() % kGlue.size()];
  }
  return text;
}

TEST(Tokenizer, SplitsCodeAsItsReadersDo) {
  EXPECT_EQ(tokens("parseHTTPResponse_v2"), (Texts{"parse", "httpresponse", "v2"}));
  EXPECT_EQ(tokens("getUserName"), (Texts{"get", "user", "name"}));
  EXPECT_EQ(tokens("iPhone v2Name parseHTTP"), (Texts{"phone", "v2name", "parse", "http"}));
  EXPECT_EQ(tokens("std::swap(a,b)"), (Texts{"std", "swap"}));
  EXPECT_EQ(tokens("x+y=z"), (Texts{"x+y=z"}));
  EXPECT_EQ(tokens("Parsing connections, quickly!"), (Texts{"pars", "connection", "quickly!"}));
  EXPECT_EQ(tokens("a.b::c(d)"), Texts{});
  EXPECT_EQ(tokens("ab:::cd a:b :: :"), (Texts{"ab", ":cd", "a:b"}));
  EXPECT_EQ(tokens("[one]{two};three\\four/five-six"),
            (Texts{"one", "two", "three", "four", "five", "six"}));
}

TEST(Tokenizer, ReadsCaseSpaceAndLengthInUnicode) {
  EXPECT_EQ(tokens("\u00E9t\u00E9\u00C9tat"), (Texts{"\u00E9t\u00E9", "\u00E9tat"}));
  EXPECT_EQ(tokens("\u00E9 \u00E9\u00E9"), (Texts{"\u00E9\u00E9"}));  // two bytes are one character
  EXPECT_EQ(tokens("one\u00A0two\u3000three\x1F"s + "four"),
            (Texts{"one", "two", "three\x1F"s + "four"}));
  EXPECT_EQ(tokens("\u0391\u03A3_b1 \u0391\u03A3.b1"),
            (Texts{"\u03B1\u03C2", "b1", "\u03B1\u03C3", "b1"}));
  EXPECT_EQ(tokens("bad\xFF\xE2\x82tail"), (Texts{"bad\uFFFD\uFFFDtail"}));
}

TEST(Stemmer, CutsTheFirstSuffixThatLeavesThreeCharacters) {
  const std::map<std::string, std::string> stems = {
      {"creation", "cre"},
      {"nation", "nat"},
      {"ation", "ation"},
      {"cookies", "cook"},
      {"tables", "tabl"},
      {"runs", "runs"},
      {"getting", "get"},
      {"apply", "app"},
      {"settings", "setting"},
      {"ties", "ties"},
      {"caf\u00E9", "caf\u00E9"},
      {"\u00E9\u00E9ing", "\u00E9\u00E9ing"},
      {"\u00E9\u00E9\u00E9s", "\u00E9\u00E9\u00E9s"},
      {"\u00E9\u00E9\u00E9\u00E9s", "\u00E9\u00E9\u00E9\u00E9"},
      {"", ""}};
  for (const auto& [word, stem] : stems) {
    EXPECT_EQ(TFIDFEmbeddingBackend::_stem(word), stem) << word;
  }
}

TEST(TFIDF, GivesTheKnownVectorsToTheLastDigit) {
  struct Case {
    Texts texts;
    std::vector<std::map<std::size_t, double>> vectors;
  };
  constexpr double kThird = 0.5773502691896258;
  constexpr double kHalf = 0.7071067811865475;
  const Case cases[] = {
      {{"getUserName"}, {{{181, -kThird}, {238, kThird}, {176, kThird}}}},
      {{"getUserName", "get user"},
       {{{181, -0.5015489070943787}, {238, 0.5015489070943787}, {176, 0.7049094889309326}},
        {{181, -kHalf}, {238, kHalf}}}},
      {{"get get user"}, {{{181, -0.8610369959439764}, {238, 0.5085423203783267}}}},
      {{"GET user Get"}, {{{181, -0.8610369959439764}, {238, 0.5085423203783267}}}},
      {{"a.b::c(d)", "", " \n", "_"}, {{}, {}, {}, {}}},
  };
  TFIDFEmbeddingBackend backend;
  for (const auto& [texts, expected] : cases) {
    const std::vector<Vector> vectors = backend.embed(texts);
    ASSERT_EQ(vectors.size(), texts.size());
    for (std::size_t text = 0; text < texts.size(); ++text) {
      SCOPED_TRACE(texts[text]);
      ASSERT_EQ(vectors[text].size(), 256U);
      const auto found = elements(vectors[text]);
      ASSERT_EQ(found.size(), expected[text].size());
      for (const auto& [index, element] : expected[text]) {
        EXPECT_NEAR(found.at(index), element, 1e-15);
      }
    }
  }
  EXPECT_TRUE(backend.embed({}).empty());
}

TEST(TFIDF, LeavesAVectorAloneWhoseTermsCancel) {
  // In one dimension every term shares the element: "get" is negative, "user" positive.
  EXPECT_EQ(TFIDFEmbeddingBackend(1).embed({"get user"}), (std::vector<Vector>{{0.0}}));
  EXPECT_EQ(TFIDFEmbeddingBackend(1).embed({"get user name"}), (std::vector<Vector>{{1.0}}));
}

TEST(TFIDF, SurvivesAnyDimension) {
  const Texts texts = {"getUserName", "", "get user"};
  for (const std::int64_t dimension : {0L, -1L, std::numeric_limits<std::int64_t>::min()}) {
    EXPECT_EQ(TFIDFEmbeddingBackend(dimension).embed(texts), std::vector<Vector>(3));
  }
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
  Texts texts;
  for (std::string line; std::getline(file, line);) texts.push_back(line);
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
