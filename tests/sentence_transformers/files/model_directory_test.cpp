#include "sentence_transformers/files/model_directory.h"

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "sentence_transformers/files/file_memory.h"
#include "tests/support/temp_folder.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

std::string failure(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::exception& error) {
    return failure_text(error);
  }
  return "no failure";
}

/// A cache with one snapshot, a store shared by several models, and a file outside of it all.
class ModelDirectoryTest : public testing::Test {
 protected:
  ModelDirectoryTest() {
    write_file(_folder.path() / "outside.json", "{}");
    write_file(_cache / "blobs/aa/shared", "{\"from\": \"store\"}");
    fs::create_directories(_model / "blobs");
    fs::create_directories(_snapshot / "1_Pooling");
    fs::create_symlink("../../blobs/aa/shared", _model / "blobs/pointer");
    fs::create_symlink("../../../blobs/pointer", _snapshot / "1_Pooling/config.json");
  }

  TempFolder _folder;
  fs::path _cache = _folder.path() / "cache";
  fs::path _model = _cache / "models--a--b";
  fs::path _snapshot = _model / "snapshots/1";
};

TEST_F(ModelDirectoryTest, LinksMayLeadIntoTheCacheOnlyForASnapshot) {
  const ModelDirectory directory(_snapshot, _cache);
  const ModelDirectory pooling = directory.subdirectory("1_Pooling");
  EXPECT_EQ(pooling.read_json("config.json")->at("from"), "store");
  EXPECT_TRUE(pooling.is_snapshot());
  EXPECT_EQ(directory.read("2_Dense/config.json", 10), std::nullopt);
  EXPECT_EQ(directory.subdirectory("2_Dense").read("config.json", 10), std::nullopt);

  const ModelDirectory plain(_snapshot);
  EXPECT_FALSE(plain.is_snapshot());
  EXPECT_THAT(failure([&] { plain.read("1_Pooling/config.json", 100); }),
              HasSubstr("ValueError: " + _snapshot.string() + "/1_Pooling/config.json: leads to " +
                        (_cache / "blobs/aa/shared").string() + ", outside of"));
  EXPECT_THAT(failure([&] { ModelDirectory(_snapshot, _snapshot / "1_Pooling"); }),
              HasSubstr("leads out of the cache"));
}

TEST_F(ModelDirectoryTest, RefusesWhatIsThereButCannotServe) {
  fs::create_symlink("../../../../outside.json", _snapshot / "escape");
  fs::create_symlink(_folder.path(), _snapshot / "folder_outside");
  fs::create_symlink("nowhere", _snapshot / "dangling");
  fs::create_symlink("circle", _snapshot / "circle");
  ASSERT_EQ(mkfifo((_snapshot / "pipe").c_str(), 0600), 0);
  write_file(_snapshot / "large", std::string(101, 'x'));
  write_file(_snapshot / "fits", std::string(100, 'x'));
  // The name of a folder beside the root begins with the root's, and is still not below it.
  write_file(_cache.string() + "-beside/file", "x");
  fs::create_symlink(_cache.string() + "-beside/file", _snapshot / "beside");

  const ModelDirectory directory(_snapshot, _cache);
  EXPECT_EQ(directory.read("fits", 100)->size(), 100U);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"escape", "outside of"},
      {"folder_outside/outside.json", "outside of"},
      {"beside", "outside of"},
      {"dangling", "a link to a file that is not there"},
      {"circle", "leads in circles"},
      {"pipe", "not a regular file"},
      {"1_Pooling", "not a regular file"},
      {"large", "101 bytes, more than the 100 that are allowed"},
      {"../../../../outside.json", "is no file inside the model"},
      {"1_Pooling/../../x", "is no file inside the model"},
      {_snapshot.string() + "/fits", "is no file inside the model"},
      {"C:fits", "is no file inside the model"},
      {"a\\b", "is no file inside the model"},
      {std::string("fits\0", 5), "\"fits\\u0000\" is no file inside the model"},
      {"", "is no file inside the model"},
  };
  for (const auto& [name, fault] : cases) {
    EXPECT_THAT(
        failure([&] { directory.read(name, 100); }),
        testing::AllOf(testing::StartsWith("ValueError: " + _snapshot.string()), HasSubstr(fault)))
        << name;
  }
  EXPECT_THAT(failure([&] { static_cast<void>(directory.subdirectory("..")); }),
              HasSubstr("is no folder inside the model"));
}

TEST_F(ModelDirectoryTest, JsonIsReadToTheLetter) {
  const ModelDirectory directory(_snapshot, _cache);
  const auto reading = [&](std::string_view text) {
    write_file(_snapshot / "x.json", text);
    return failure([&] { static_cast<void>(directory.read_json("x.json")); });
  };
  EXPECT_EQ(reading(std::string(64, '[') + std::string(64, ']')), "no failure");
  EXPECT_EQ(reading("[\"[[\\\"" + std::string(100, '[') + "\"]"), "no failure");
  const std::string path = "ValueError: " + (_snapshot / "x.json").string() + ": ";
  EXPECT_EQ(reading(std::string(65, '[') + std::string(65, ']')),
            path + "JSON nested more than 64 deep");
  EXPECT_EQ(reading(std::string(1'000'000, '{')), path + "JSON nested more than 64 deep");
  EXPECT_EQ(reading("\xEF\xBB\xBF{}"), path + "begins with a byte-order mark");
  EXPECT_EQ(reading(std::string_view("{}\0{", 4)), path + "no valid JSON: a NUL at byte 2");
  EXPECT_EQ(reading("{} 1"), path + "no valid JSON at byte 4");
  EXPECT_EQ(reading(""), path + "no valid JSON at byte 1");
  EXPECT_EQ(reading("[\"\xff\"]"), path + "no valid JSON at byte 3");
  EXPECT_EQ(reading("[1e999]"), path + "JSON with a number beyond the range of a double");
}

TEST_F(ModelDirectoryTest, AFileThatChangesMeanwhileIsAnErrorForBothWaysToReadIt) {
  for (const FileAccess access : {FileAccess::read, FileAccess::map}) {
    for (const std::uintmax_t length : {std::uintmax_t{5}, std::uintmax_t{15}}) {
      write_file(_snapshot / "file", "0123456789");
      const auto file = ModelDirectory(_snapshot, _cache).open("file", 100);
      EXPECT_EQ(FileMemory(*file, access).bytes().size(), 10U);
      fs::resize_file(_snapshot / "file", length);
      EXPECT_THAT(failure([&] { const FileMemory memory(*file, access); }),
                  HasSubstr("changed while it was read, from 10 to " + std::to_string(length)));
    }
  }
}

}  // namespace
}  // namespace tovana::sentence_transformers
