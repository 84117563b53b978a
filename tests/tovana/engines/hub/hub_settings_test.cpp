#include "tovana/engines/hub/hub_settings.h"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include "tests/support/temp_folder.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::hub {
namespace {

/// An environment to which one variable after the other is added.
struct Variables {
  const Environment* with(const std::string& name, const std::string& value) {
    environment[name] = value;
    return &environment;
  }
  Environment environment;
};

TEST(HubSettingsTest, TheRootIsWhatTheFirstVariableSays) {
  // From the weakest variable to the strongest. What is empty is not set.
  Variables variables = {{{"HOME", "/h"}, {"D", "data"}, {"E", ""}}};
  EXPECT_EQ(cache_settings(variables.with("HF_HOME", "")).root, "/h/.cache/huggingface/hub");
  EXPECT_EQ(cache_settings(variables.with("XDG_CACHE_HOME", "/x")).root, "/x/huggingface/hub");
  EXPECT_EQ(cache_settings(variables.with("HF_HOME", "~/${D}/hf")).root, "/h/data/hf/hub");
  EXPECT_EQ(cache_settings(variables.with("HUGGINGFACE_HUB_CACHE", "~")).root, "/h");
  EXPECT_EQ(cache_settings(variables.with("HF_HUB_CACHE", "/a$E/$D$D/$NONE/${NONE}/${D/$/~")).root,
            "/a/datadata/$NONE/${NONE}/${D/$/~");
  EXPECT_EQ(cache_settings(variables.with("SENTENCE_TRANSFORMERS_HOME", "~/$D")).root, "/h/$D");
  EXPECT_EQ(cache_settings(variables.with("SENTENCE_TRANSFORMERS_HOME", "here")).root,
            (std::filesystem::current_path() / "here").string());
  // Nobody's home is "", and an account has one without HOME.
  variables = {{{"HOME", ""}}};
  EXPECT_EQ(cache_settings(variables.with("HF_HOME", "")).root,
            std::string(::getpwuid(::getuid())->pw_dir) + "/.cache/huggingface/hub");
}

TEST(HubSettingsTest, OfflineIsSaidByTheFirstVariableThatIsSet) {
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
  for (const char* const value : {"2", "offline", " 1"}) EXPECT_EQ(forbids(value, ""), "") << value;
}

TEST(HubSettingsTest, TheTokenIsTheFirstThatIsThere) {
  const TempFolder folder;
  const std::string path = folder.path().string();
  write_file(folder.path() / "token", " hf_file\r\n");
  write_file(folder.path() / "other", "hf_other");
  Variables variables = {{{"HF_HOME", path}, {"D", path}}};
  EXPECT_EQ(hub_settings(variables.with("HF_TOKEN_PATH", "")).token, "hf_file");
  EXPECT_EQ(hub_settings(variables.with("HF_TOKEN_PATH", "$D/other")).token, "hf_other");
  EXPECT_EQ(hub_settings(variables.with("HF_TOKEN_PATH", "$D/nothing")).token, "");
  EXPECT_EQ(hub_settings(variables.with("HUGGING_FACE_HUB_TOKEN", "hf_old")).token, "hf_old");
  EXPECT_EQ(hub_settings(variables.with("HF_TOKEN", "\n")).token, "hf_old");
  EXPECT_EQ(hub_settings(variables.with("HF_TOKEN", "hf_\nnew ")).token, "hf_new");
  EXPECT_EQ(hub_settings(variables.with("HF_HUB_DISABLE_IMPLICIT_TOKEN", "yes")).token, "");
}

TEST(HubSettingsTest, AVariableThatCannotBeUsedIsNamed) {
  Variables variables = {{{"HF_HOME", "/h"}}};
  EXPECT_EQ(hub_settings(variables.with("HF_ENDPOINT", "http://mirror.example/hub//")).endpoint,
            "http://mirror.example/hub");
  EXPECT_EQ(hub_settings(variables.with("HF_HUB_DOWNLOAD_TIMEOUT", "2.5")).download_timeout_s, 2.5);
  EXPECT_EQ(hub_settings(variables.with("HF_HUB_ETAG_TIMEOUT", "3")).metadata_timeout_s, 3);
  const std::pair<const char*, const char*> wrong[] = {
      {"HF_ENDPOINT", "huggingface.co"},  {"HF_ENDPOINT", "ftp://h/"},
      {"HF_ENDPOINT", "http://"},         {"HF_HUB_DOWNLOAD_TIMEOUT", "0"},
      {"HF_HUB_DOWNLOAD_TIMEOUT", "nan"}, {"HF_HUB_ETAG_TIMEOUT", "10s"},
  };
  for (const auto& [name, value] : wrong) {
    Variables changed = variables;
    EXPECT_THROW(hub_settings(changed.with(name, value)), EnvironmentVariableError)
        << name << value;
  }
}

}  // namespace
}  // namespace tovana::hub
