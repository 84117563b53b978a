#include "tovana/engines/embedding/backends/tfidf/tfidf.h"

#include <limits>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
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
      {"Parsing connections, quickly! readiness", "pars connection quickly! readi"},
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
  EXPECT_EQ(TFIDFEmbeddingBackend::_stem("\u00E9\u00E9ing"), "\u00E9\u00E9ing");
}

TEST(TFIDF, GivesTheKnownVectorsToTheLastDigit) {
  const auto vector = [](const std::map<std::size_t, double>& not_zero) {
    Vector elements(256);
    for (const auto& [index, element] : not_zero) elements[index] = element;
    return elements;
  };
  TFIDFEmbeddingBackend backend;
  const std::vector<Vector> batch = {
      vector({{181, -0.5015489070943787}, {238, 0.5015489070943787}, {176, 0.7049094889309326}}),
      vector({{181, -0.7071067811865475}, {238, 0.7071067811865475}})};
  EXPECT_EQ(backend.embed({"getUserName", "get user"}), batch);
  // The squares are added up in the order of the elements.
  EXPECT_EQ(backend.embed({"alpha ALPHA beta beta gamma gamma gamma delta delta"}).at(0),
            vector({{5, 0.58195149786718},
                    {44, -0.4695148042146437},
                    {99, 0.4695148042146437},
                    {152, -0.4695148042146437}}));
  EXPECT_EQ(backend.embed({"a.b::c(d)", "", " \n"}), std::vector<Vector>(3, Vector(256)));
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
  Texts batch;
  for (int word = 0; word < 500; ++word) batch.push_back("word" + std::to_string(word));
  const std::vector<Vector> vectors = backend.embed(batch);
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&] {
      for (int round = 0; round < 20; ++round) ASSERT_EQ(backend.embed(batch), vectors);
    });
  }
}

}  // namespace
}  // namespace tovana::embedding
