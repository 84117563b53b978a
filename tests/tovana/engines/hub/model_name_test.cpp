#include "tovana/engines/hub/model_name.h"

#include <map>
#include <string>

#include <gtest/gtest.h>

#include "tovana/exceptions/exceptions.h"

namespace tovana::hub {
namespace {

const std::string kPart(96, 'x');

TEST(ModelNameTest, IsARepositoryUnlessItIsWrittenAsAPath) {
  const std::map<std::string, std::string> repositories = {
      {"all-MiniLM-L6-v2", "sentence-transformers/all-MiniLM-L6-v2"},
      {"BERT-base-Uncased", "BERT-base-Uncased"},
      {"_a.b-c_/d", "_a.b-c_/d"},
      {kPart + "/" + kPart, kPart + "/" + kPart},
  };
  for (const auto& [text, repo_id] : repositories) {
    EXPECT_EQ(parse_model_name(text).repo_id, repo_id);
    EXPECT_FALSE(parse_model_name(text).directory.has_value()) << text;
  }
  for (const char* const text : {"/srv/models/a", "./a", "../a/b/c", ".", ".."}) {
    EXPECT_EQ(parse_model_name(text).directory, text);
  }
  const std::string wrong[] = {
      "",           "a/b/c", "a/",     "~/models", "a\\b",     "a b",  "-a/b",
      "a/b-",       "a--b",  "a..b/c", "a.git",    "\xC3\xA4", "C:/x", std::string("./a\0b", 5),
      "a/x" + kPart};
  for (const std::string& text : wrong) {
    EXPECT_THROW(parse_model_name(text), ValueError) << testing::PrintToString(text);
  }
}

TEST(ModelNameTest, ARevisionIsWhatGitTakesForOne) {
  for (const char* const text : {"main", "v1.0", "refs/pr/4", "1234567"}) {
    EXPECT_EQ(parse_model_name("a/b", text).revision, text);
  }
  const std::string wrong[] = {
      "", "a b", "/a", "a/", "a//b", "../a", "a/.b", "a.", "a.lock", "a:b", std::string(241, 'x')};
  for (const std::string& text : wrong) {
    EXPECT_THROW(parse_model_name("a/b", text), ValueError) << text;
  }
  EXPECT_THROW(parse_model_name("./b", "main"), ValueError);
}

}  // namespace
}  // namespace tovana::hub
