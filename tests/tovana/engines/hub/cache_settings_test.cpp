#include "tovana/engines/hub/cache_settings.h"

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

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
  const auto is_offline = [](const Environment& variables) {
    Environment environment = variables;
    environment["HOME"] = "/h";
    return cache_settings(&environment).is_offline;
  };
  for (const char* const value : {"1", "on", "Yes", "TRUE"}) {
    EXPECT_TRUE(is_offline({{"HF_HUB_OFFLINE", value}})) << value;
    EXPECT_TRUE(is_offline({{"HF_HUB_OFFLINE", ""}, {"TRANSFORMERS_OFFLINE", value}})) << value;
    EXPECT_FALSE(is_offline({{"HF_HUB_OFFLINE", "0"}, {"TRANSFORMERS_OFFLINE", value}})) << value;
  }
  for (const char* const value : {"", "0", "2", "offline", " 1"}) {
    EXPECT_FALSE(is_offline({{"HF_HUB_OFFLINE", value}})) << value;
  }
}

}  // namespace
}  // namespace tovana::hub
