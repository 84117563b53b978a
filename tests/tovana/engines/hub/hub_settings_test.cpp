#include "tovana/engines/hub/hub_settings.h"

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/temp_folder.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::hub {
namespace {

TEST(CacheSettingsTest, TheRootIsWhatTheFirstVariableSays) {
  // From the weakest variable to the strongest: each one set in addition to those before it.
  Environment environment = {{"HOME", "/h"}, {"D", "data"}, {"E", ""}};
  const auto root_with = [&environment](const std::string& name, const std::string& value) {
    environment[name] = value;
    return cache_settings(&environment).root.string();
  };
  EXPECT_EQ(cache_settings(&environment).root, "/h/.cache/huggingface/hub");
  EXPECT_EQ(root_with("XDG_CACHE_HOME", "/x"), "/x/huggingface/hub");
  EXPECT_EQ(root_with("HF_HOME", "~/${D}/hf"), "/h/data/hf/hub");
  EXPECT_EQ(root_with("HUGGINGFACE_HUB_CACHE", "~"), "/h");
  EXPECT_EQ(root_with("HF_HUB_CACHE", "/a$E/$D$D/$NONE/${NONE}/${D/$/~"),
            "/a/datadata/$NONE/${NONE}/${D/$/~");
  EXPECT_EQ(root_with("SENTENCE_TRANSFORMERS_HOME", "~/$D"), "/h/$D");
  EXPECT_EQ(root_with("SENTENCE_TRANSFORMERS_HOME", "here"),
            (std::filesystem::current_path() / "here").string());
  // What is empty is not set.
  EXPECT_EQ(root_with("SENTENCE_TRANSFORMERS_HOME", ""), "/a/datadata/$NONE/${NONE}/${D/$/~");
  EXPECT_EQ(root_with("HF_HUB_CACHE", ""), "/h");
  // Nobody's home is "", and an account has one without HOME.
  environment = {{"HOME", ""}};
  EXPECT_TRUE(cache_settings(&environment).root.is_absolute());
}

TEST(CacheSettingsTest, OfflineIsSaidByTheFirstVariableThatIsSet) {
  const auto forbids = [](const std::string& hubs, const std::string& transformers) {
    const Environment environment = {
        {"HOME", "/h"}, {"HF_HUB_OFFLINE", hubs}, {"TRANSFORMERS_OFFLINE", transformers}};
    return cache_settings(&environment).offline_variable;
  };
  for (const char* const value : {"1", "on", "Yes", "TRUE"}) {
    EXPECT_EQ(forbids(value, ""), "HF_HUB_OFFLINE") << value;
    EXPECT_EQ(forbids("", value), "TRANSFORMERS_OFFLINE") << value;
    EXPECT_EQ(forbids("0", value), "") << value;
  }
  for (const char* const value : {"", "0", "2", "offline", " 1"}) EXPECT_EQ(forbids(value, ""), "");
}

TEST(HubSettingsTest, TheTokenIsTheFirstThatIsThere) {
  const TempFolder folder;
  write_file(folder.path() / "token", " hf_file\r\n");
  write_file(folder.path() / "other", "hf_other");
  Environment environment = {{"HF_HOME", folder.path().string()}, {"D", folder.path().string()}};
  const auto token_with = [&environment](const std::string& name, const std::string& value) {
    environment[name] = value;
    return hub_settings(&environment).token;
  };
  EXPECT_EQ(token_with("HF_TOKEN_PATH", ""), "hf_file");
  EXPECT_EQ(token_with("HF_TOKEN_PATH", "$D/other"), "hf_other");
  EXPECT_EQ(token_with("HF_TOKEN_PATH", "$D/nothing"), "");
  EXPECT_EQ(token_with("HUGGING_FACE_HUB_TOKEN", "hf_old"), "hf_old");
  EXPECT_EQ(token_with("HF_TOKEN", "\n"), "hf_old");
  EXPECT_EQ(token_with("HF_TOKEN", "hf_\nnew "), "hf_new");
  EXPECT_EQ(token_with("HF_HUB_DISABLE_IMPLICIT_TOKEN", "yes"), "");
}

TEST(HubSettingsTest, AVariableThatCannotBeUsedIsNamed) {
  const auto endpoint = [](const std::string& value) {
    const Environment environment = {{"HF_HOME", "/h"}, {"HF_ENDPOINT", value}};
    return hub_settings(&environment).endpoint;
  };
  EXPECT_EQ(endpoint(""), "https://huggingface.co");
  EXPECT_EQ(endpoint("http://mirror.example/hub//"), "http://mirror.example/hub");
  for (const char* const value : {"huggingface.co", "ftp://h/", "/srv/hub", "http://"}) {
    EXPECT_THROW(endpoint(value), EnvironmentVariableError) << value;
  }
  const auto timeout = [](const std::string& value) {
    const Environment environment = {{"HF_HOME", "/h"}, {"HF_HUB_DOWNLOAD_TIMEOUT", value}};
    return hub_settings(&environment).download_timeout_s;
  };
  EXPECT_EQ(timeout("2.5"), 2.5);
  for (const char* const value : {"0", "-1", "nan", "10s", "soon"}) {
    EXPECT_THROW(timeout(value), EnvironmentVariableError) << value;
  }
}

}  // namespace
}  // namespace tovana::hub
