#include "tovana/files/model_directory.h"

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "tests/support/failure_text.h"
#include "tests/support/temp_folder.h"
#include "tovana/files/file_mapping.h"
#include "tovana/files/json_numbers.h"

namespace tovana::files {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

/// A cache with one snapshot, a store shared by several models, and a file outside of it all.
class ModelDirectoryTest : public testing::Test {
 protected:
  ModelDirectoryTest() {
    write_file(_folder.path() / "outside.json", "{}");
    write_file(_cache / "blobs/aa/shared", "{\"from\": \"store\"}");
    write_file(_snapshot / "fits", std::string(100, 'x'));
    fs::create_directories(_snapshot / "1_Pooling");
    fs::create_directories(_model / "blobs");
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
  EXPECT_EQ(directory.read("fits", 100)->size(), 100U);
  EXPECT_EQ(directory.read("fits/config.json", 10), std::nullopt);
  EXPECT_EQ(directory.subdirectory("2_Dense").read("config.json", 10), std::nullopt);

  const ModelDirectory plain(_snapshot);
  EXPECT_FALSE(plain.is_snapshot());
  EXPECT_THAT(
      failure_of([&] { plain.read("1_Pooling/config.json", 100); }),
      HasSubstr("ModelFilesError: " + _snapshot.string() + "/1_Pooling/config.json: leads to " +
                (_cache / "blobs/aa/shared").string() + ", outside of"));
  EXPECT_THAT(failure_of([&] { ModelDirectory(_snapshot, _snapshot / "1_Pooling"); }),
              HasSubstr("leads out of the cache"));
}

TEST_F(ModelDirectoryTest, RefusesWhatIsThereButCannotServe) {
  // The name of a folder beside the root begins with the root's, and is still not below it.
  const std::string beside = _cache.string() + "-beside/file";
  write_file(beside, "x");
  fs::create_symlink("../../../../outside.json", _snapshot / "escape");
  fs::create_symlink(_folder.path(), _snapshot / "folder_outside");
  fs::create_symlink(beside, _snapshot / "beside");
  fs::create_symlink("nowhere", _snapshot / "dangling");
  fs::create_symlink("circle", _snapshot / "circle");
  ASSERT_EQ(mkfifo((_snapshot / "pipe").c_str(), 0600), 0);
  const ModelDirectory directory(_snapshot, _cache);
  const std::pair<std::string, const char*> cases[] = {
      {"escape", "outside of"},
      {"folder_outside/outside.json", "outside of"},
      {"beside", "outside of"},
      {"dangling", "a link to a file that is not there"},
      {"circle", "leads in circles"},
      {"pipe", "not a regular file"},
      {"1_Pooling", "not a regular file"},
      {"fits", "100 bytes, more than the 99 that are allowed"},
      {"1_Pooling/../../x", " is no file inside the model"},
      {_snapshot.string() + "/fits", " is no file inside the model"},
      {"C:fits", " is no file inside the model"},
      {"a\\b", " is no file inside the model"},
      {"", " is no file inside the model"},
      {{"fits\0", 5}, "\"fits\\u0000\" is no file inside the model"},
  };
  for (const auto& [name, fault] : cases) {
    EXPECT_THAT(failure_of([&] { directory.read(name, 99); }),
                testing::AllOf(testing::StartsWith("ModelFilesError: " + _snapshot.string()),
                               HasSubstr(fault)));
  }
  EXPECT_THAT(failure_of([&] { static_cast<void>(directory.subdirectory("..")); }),
              HasSubstr("is no folder inside the model"));
}

TEST_F(ModelDirectoryTest, JsonIsReadToTheLetter) {
  const std::string path = "ModelFilesError: " + (_snapshot / "x.json").string() + ": ";
  const std::string too_deep = path + "JSON nested more than 64 deep";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {std::string(64, '[') + std::string(64, ']'), "none"},
      {"[\"[[\\\"" + std::string(100, '[') + "\"]", "none"},
      {std::string(65, '[') + std::string(65, ']'), too_deep},
      {std::string(1'000'000, '{'), too_deep},
      {"\xEF\xBB\xBF{}", path + "begins with a byte-order mark"},
      {{"{}\0{", 4}, path + "no valid JSON: a NUL at byte 2"},
      {"{} 1", path + "no valid JSON at byte 4"},
  };
  for (const auto& [text, fault] : cases) {
    write_file(_snapshot / "x.json", text);
    EXPECT_EQ(failure_of([&] { ModelDirectory(_snapshot, _cache).read_json("x.json"); }), fault);
  }
  EXPECT_EQ(with_numbers_in_range(R"([1e999,-0.1e+999,"\"1e999",0.0)" + std::string(400, '0') +
                                  R"(1,1e-999,-9223372036854775808,9223372036854775808,1.5,2])"),
            R"([1.7976931348623157e308,-1.7976931348623157e308,"\"1e999",0.0)" +
                std::string(400, '0') +
                R"(1,1e-999,-9223372036854775808,9223372036854775808.0,1.5,2])");
  EXPECT_EQ(parse_json("[1e999]").dump(), "[1.7976931348623157e+308]");
}

TEST_F(ModelDirectoryTest, AFileThatChangesMeanwhileIsAnErrorForBothWaysToReadIt) {
  const fs::path path = _snapshot / "fits";
  const auto expect_fault = [&](const std::string& fault, const auto& change) {
    fs::resize_file(path, 100);
    const auto file = ModelDirectory(_snapshot, _cache).open("fits", 100);
    std::vector<std::byte> bytes(100);
    file->read_all(bytes);
    EXPECT_EQ(FileMapping(*file).bytes().size(), 100U);
    change();
    for (const std::string& failure : {failure_of([&] { file->read_all(bytes); }),
                                       failure_of([&] { const FileMapping mapping(*file); })}) {
      EXPECT_THAT(failure, HasSubstr("fits: changed while it was read" + fault));
    }
  };
  expect_fault(", from 100 to 50", [&] { fs::resize_file(path, 50); });
  expect_fault(", from 100 to 150", [&] { fs::resize_file(path, 150); });
  expect_fault(": try again", [&] {
    fs::last_write_time(path, fs::last_write_time(path) - std::chrono::nanoseconds(1));
  });
}

}  // namespace
}  // namespace tovana::files
