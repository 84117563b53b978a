#include "tovana/engines/hub/cached_model.h"

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/temp_folder.h"
#include "tovana/files/model_files_error.h"

namespace tovana::hub {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr const char* kModel = "tiny-bert-cls";
constexpr const char* kCommit = "c9745ed1d9f207416be6d2e6f8de32d1f16199bf";

/// A copy of a cache that the hub's own library wrote, with one thing made wrong.
class Cache {
 public:
  Cache() {
    fs::copy(std::getenv("TOVANA_TEST_HUB_CACHE"), root,
             fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  }

  /// What looking for `name` fails with, in one line; "found" when it does not fail.
  std::string find(const std::string& name = kModel) const {
    try {
      const CachedModel found = find_cached_model(parse_model_name(name), {.root = root});
      EXPECT_EQ(found.directory, snapshot);
      EXPECT_EQ(found.allowed_root, root);
      EXPECT_EQ(found.commit, kCommit);
      return "found";
    } catch (const std::exception& error) {
      return failure_text(error);
    }
  }

  std::set<fs::path> all_paths() const {
    std::set<fs::path> paths;
    for (const auto& entry : fs::recursive_directory_iterator(root.parent_path())) {
      paths.insert(entry.path());
    }
    return paths;
  }

 private:
  TempFolder _folder;

 public:
  fs::path root = _folder.path() / "hub";
  fs::path model = root / "models--sentence-transformers--tiny-bert-cls";
  fs::path snapshot = model / "snapshots" / kCommit;
};

/// A step that makes something wrong. Paths are relative to the model's folder in the cache; "@/"
/// is the snapshot.
using Step = std::function<void(const Cache&)>;

fs::path place(const Cache& cache, const std::string& path) {
  return path.starts_with("@/") ? cache.snapshot / path.substr(2) : cache.model / path;
}
Step rm(const std::string& path) {
  return [=](const Cache& cache) { fs::remove_all(place(cache, path)); };
}
Step put(const std::string& path, const std::string& content) {
  return [=](const Cache& cache) { write_file(place(cache, path), content); };
}
/// What a fetch leaves when the hub says that there is no such file.
Step mark(const std::string& name) {
  return put(std::string(".no_exist/") + kCommit + "/" + name, "");
}
Step cut(const std::string& path, std::uintmax_t size) {
  return [=](const Cache& cache) { fs::resize_file(place(cache, path), size); };
}

void link_modules_out_of_the_cache(const Cache& cache) {
  write_file(cache.root.parent_path() / "outside.json", "[]");
  fs::remove(cache.snapshot / "modules.json");
  fs::create_symlink(cache.root.parent_path() / "outside.json", cache.snapshot / "modules.json");
}

void move_blobs_out_of_the_cache(const Cache& cache) {
  fs::rename(cache.model / "blobs", cache.root.parent_path() / "blobs");
  fs::create_directory_symlink(cache.root.parent_path() / "blobs", cache.model / "blobs");
}

struct Fault {
  std::vector<Step> steps;
  std::string outcome;  ///< Part of it.
};

TEST(CachedModelTest, IsFoundExactlyWhenItIsComplete) {
  const std::string at = std::string("snapshots/") + kCommit + "/";
  const std::string unsettled = " is missing, and nothing says that the repository has none";
  const std::string other_commit(40, 'a');
  const std::string tree = std::string("trees/") + kCommit + ".json";
  const std::vector<Fault> faults = {
      {{}, "found"},
      {{rm("trees")}, "found"},
      // From the revision to the snapshot.
      {{put("refs/main", std::string(kCommit) + "\r\n")}, "found"},
      {{[](const Cache& cache) { fs::remove_all(cache.root); }}, "there is no such folder"},
      {{rm("")}, "it has no folder models--sentence-transformers--tiny-bert-cls"},
      {{rm("refs/main")}, "refs/main is missing"},
      {{put("refs/main", "../../../../../../../etc")}, "refs/main holds no commit"},
      {{put("refs/main", "C9745ED1D9F207416BE6D2E6F8DE32D1F16199BF")}, "refs/main holds no commit"},
      {{put("refs/main", other_commit)}, "has no snapshots/" + other_commit},
      // Files that every model has.
      {{rm("@/model.safetensors")}, at + "model.safetensors is missing"},
      {{rm("blobs")}, at + "modules.json is a link to nowhere"},
      {{cut("@/model.safetensors", 1000)},
       at + "model.safetensors has 1000 bytes instead of 138656"},
      {{rm("trees"), cut("@/config.json", 0)}, at + "config.json is empty"},
      {{rm("@/config.json"), put("@/config.json/x", "")}, at + "config.json is not a file"},
      {{rm("@/tokenizer.json")}, at + "tokenizer.json is missing"},
      // Files whose absence has to be certain, and those that matter only when listed.
      {{rm("trees"), rm("@/modules.json")}, at + "modules.json" + unsettled},
      {{rm("trees"), rm("@/modules.json"), mark("modules.json")}, "found"},
      {{rm("trees"), rm("@/1_Pooling/config.json")}, at + "1_Pooling/config.json is missing"},
      {{rm("trees"), rm("@/sentence_bert_config.json")},
       at + "sentence_bert_config.json" + unsettled},
      {{rm("trees"), rm("@/tokenizer_config.json")}, at + "tokenizer_config.json" + unsettled},
      {{rm("@/config_sentence_transformers.json")},
       at + "config_sentence_transformers.json is missing"},
      {{put(tree, R"({"format_version":2,"files":{}})"), rm("@/modules.json")},
       at + "modules.json" + unsettled},
      {{rm("trees"), put("@/modules.json", "[")}, "modules.json: no valid JSON at byte"},
      {{rm("trees"), link_modules_out_of_the_cache}, "outside of "},
      {{move_blobs_out_of_the_cache}, "move its whole folder there"},
      // Weights in a format that is not read.
      {{rm("trees"), rm("@/model.safetensors"), put("@/pytorch_model.bin", "x")},
       at + "model.safetensors is missing"},
      {{rm("trees"), rm("@/model.safetensors"), put("@/pytorch_model.bin", "x"),
        mark("model.safetensors")},
       at + "pytorch_model.bin: weights in pickle format are not read"},
  };
  for (std::size_t i = 0; i < faults.size(); ++i) {
    const Cache cache;
    for (const Step& step : faults[i].steps) step(cache);
    const std::set<fs::path> before = cache.all_paths();
    const std::string outcome = cache.find();
    EXPECT_THAT(outcome, HasSubstr(faults[i].outcome)) << "case " << i;
    EXPECT_EQ(outcome == "found", faults[i].outcome == "found") << "case " << i;
    EXPECT_THAT(outcome, testing::Not(HasSubstr("\n"))) << "case " << i;
    EXPECT_EQ(cache.all_paths(), before) << "case " << i << " wrote into the cache";
  }
}

TEST(CachedModelTest, TheErrorSaysWhatIsMissingWhereAndWhatToDo) {
  const Cache cache;
  const CacheSettings settings = {.root = cache.root, .offline_variable = "TRANSFORMERS_OFFLINE"};
  try {
    find_cached_model(parse_model_name("gone"), settings);
    FAIL() << "found";
  } catch (const ModelNotCachedError& error) {
    EXPECT_EQ(error.what(),
              "model 'gone' (sentence-transformers/gone) is not in the cache " +
                  cache.root.string() +
                  ": it has no folder models--sentence-transformers--gone; TRANSFORMERS_OFFLINE "
                  "forbids fetching it: copy it there, or set HF_HUB_CACHE to the cache that holds "
                  "it");
  }
}

TEST(CachedModelTest, ARevisionIsAReferenceOrACommit) {
  const Cache cache;
  const auto find = [&cache](const std::string& revision) {
    return find_cached_model(parse_model_name(kModel, revision), {.root = cache.root}).commit;
  };
  EXPECT_EQ(find(kCommit), kCommit);
  EXPECT_THROW(find("v2"), ModelNotCachedError);
}

TEST(CachedModelTest, AFolderIsTakenAsItIs) {
  const Cache cache;
  const auto find = [](const fs::path& path) {
    return find_cached_model(parse_model_name(path.string()), {.root = "/nowhere"});
  };
  EXPECT_EQ(find(cache.model).allowed_root, cache.model);
  // A snapshot named by its path consists of links into its cache all the same.
  EXPECT_EQ(find(cache.snapshot).allowed_root, cache.root);
  EXPECT_THROW(find(cache.root / "nothing"), files::ModelFilesError);
  EXPECT_THROW(find(cache.root / "CACHEDIR.TAG"), files::ModelFilesError);

  // Looked at closely, a folder is a model or it is not.
  constexpr std::uintmax_t kGone = 0;
  struct FileFault {
    std::string file;
    std::uintmax_t size;  ///< What is left of it.
    std::string outcome;
  };
  const FileFault faults[] = {
      {"", kGone, "found"},
      {"config.json", kGone, "config.json: is missing"},
      {"model.safetensors", kGone, "model.safetensors: is missing"},
      {"model.safetensors", 7, "model.safetensors: no safetensors file"},
      {"model.safetensors", 1000, "has 1000 bytes instead of"},
      {"model.safetensors", 100'000, "has 100000 bytes instead of"},
      {"1_Pooling/config.json", kGone, "config.json: is missing"},
  };
  for (const auto& [file, size, outcome] : faults) {
    const TempFolder folder;
    fs::copy(cache.snapshot, folder.path(), fs::copy_options::recursive);
    if (!file.empty() && size == kGone) fs::remove(folder.path() / file);
    if (size != kGone) fs::resize_file(folder.path() / file, size);
    std::string said = "found";
    try {
      check_model(find(folder.path()));
    } catch (const files::ModelFilesError& error) {
      said = error.what();
    }
    EXPECT_THAT(said, HasSubstr(outcome)) << file;
  }
}

}  // namespace
}  // namespace tovana::hub
