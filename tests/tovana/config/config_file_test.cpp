#include "tovana/config/config_file.h"

#include <gmock/gmock.h>

#include "tests/support/failure_text.h"
#include "tests/support/temp_folder.h"

namespace tovana {
namespace {

TEST(ConfigTest, ReadsItsPartOfTheDaemonsFile) {
  const TempFolder folder;
  const auto file = folder.path() / "settings.toml";
  const auto load = [&](const char* content) {
    write_file(file, content);
    return load_config(file);
  };
  const Config config = load(
      "wiki.x = 1\n[daemon]\nport = 7\nembedding_backend = 'openai'\n"
      "[generation]\nbase_url = \"http://x/v1\"\nembedding_model = ''\n");
  EXPECT_EQ(config.daemon.embedding_backend, "openai");
  EXPECT_EQ(config.generation.base_url, "http://x/v1");
  EXPECT_EQ(config.generation.embedding_model, "");
  EXPECT_EQ(load("").daemon.embedding_backend, "auto");
  EXPECT_EQ(load("").generation.base_url, std::nullopt);
  for (const auto& [content, problem] :
       {std::pair{"[daemon]\nembedding_backend = 3",
                  ":2: daemon.embedding_backend must be a text in quotes"},
        {"\ngeneration = 'x'", ":2: generation must be a section, [generation]"},
        {"[daemon]\nembedding_backend = local", ":2: not TOML: "}}) {
    EXPECT_THAT(failure_of([&, text = content] { load(text); }),
                ::testing::StartsWith("ValueError: " + file.string() + problem));
  }
  EXPECT_THROW(load_config(folder.path() / "missing"), RuntimeError);
}

TEST(ConfigTest, FindsTheUsersFile) {
  const Environment absolute = {{"XDG_CONFIG_HOME", "/c"}, {"HOME", "/h"}};
  const Environment relative = {{"XDG_CONFIG_HOME", "c"}, {"HOME", "/h"}};
  const Environment neither = {{"XDG_CONFIG_HOME", ""}};
  EXPECT_EQ(user_config_file(&absolute), "/c/tovana/settings.toml");
  EXPECT_EQ(user_config_file(&relative), "/h/.config/tovana/settings.toml");
  EXPECT_EQ(user_config_file(&neither), std::nullopt);
}

}  // namespace
}  // namespace tovana
