#include "tovana/engines/hub/cached_model.h"

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/failure_text.h"
#include "tests/support/temp_folder.h"

namespace tovana::hub {
namespace {

namespace fs = std::filesystem;
using namespace ::testing;

constexpr const char* kModel = "tiny-bert-cls";
const std::string kCommit = "c9745ed1d9f207416be6d2e6f8de32d1f16199bf";

/// A copy of a cache that the hub's own library wrote, with one thing made wrong.
struct Cache {
  Cache() {
    fs::copy(std::getenv("TOVANA_TEST_HUB_CACHE"), root,
             fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  }

  /// "none", or what looking for the model fails with.
  std::string find(const ModelName& name = parse_model_name(kModel),
                   const std::string& offline = {}) const {
    return failure_of([&] {
      const CachedModel found =
          find_cached_model(name, {.root = root, .offline_variable = offline});
      EXPECT_EQ(found.directory, snapshot);
      EXPECT_EQ(found.allowed_root, root);
      EXPECT_EQ(found.commit, kCommit);
    });
  }

  std::set<fs::path> all_paths() const {
    return {fs::recursive_directory_iterator(root.parent_path()), {}};
  }

  /// Relative to the model's folder in the cache; "@/" is the snapshot.
  fs::path place(const std::string& path) const {
    return path.starts_with("@/") ? snapshot / path.substr(2) : model / path;
  }

  TempFolder folder;
  fs::path root = folder.path() / "hub";
  fs::path model = root / "models--sentence-transformers--tiny-bert-cls";
  fs::path snapshot = model / "snapshots" / kCommit;
};

/// A step that makes something wrong.
using Step = std::function<void(const Cache&)>;

Step rm(const std::string& path) {
  return [=](const Cache& cache) { fs::remove_all(cache.place(path)); };
}
Step put(const std::string& path, const std::string& content) {
  return [=](const Cache& cache) { write_file(cache.place(path), content); };
}
/// What a fetch leaves when the hub says that there is no such file.
Step mark(const std::string& name) { return put(".no_exist/" + kCommit + "/" + name, ""); }
Step cut(const std::string& path, std::uintmax_t size) {
  return [=](const Cache& cache) { fs::resize_file(cache.place(path), size); };
}
/// Moves something out of the cache, and puts a link in its place.
Step lead_out(const std::string& path) {
  return [=](const Cache& cache) {
    const fs::path outside = cache.root.parent_path() / "outside";
    fs::copy(cache.place(path), outside, fs::copy_options::recursive);
    fs::remove_all(cache.place(path));
    fs::create_symlink(outside, cache.place(path));
  };
}

struct Fault {
  std::vector<Step> steps;
  std::string outcome;  ///< Part of it.
};

TEST(CachedModelTest, IsFoundExactlyWhenItIsComplete) {
  const std::string unsettled = " is missing, and nothing says that the repository has none";
  const std::string other_commit(40, 'a');
  const Fault faults[] = {
      {{}, "none"},
      {{rm("trees")}, "none"},
      // From the revision to the snapshot.
      {{put("refs/main", kCommit + "\r\n")}, "none"},
      {{[](const Cache& cache) { fs::remove_all(cache.root); }}, "there is no such folder"},
      {{rm("")}, "it has no folder models--sentence-transformers--tiny-bert-cls"},
      {{rm("refs/main")}, "refs/main is missing"},
      {{put("refs/main", "../../../../../../../etc")}, "refs/main holds no commit"},
      {{put("refs/main", "C9745ED1D9F207416BE6D2E6F8DE32D1F16199BF")}, "refs/main holds no commit"},
      {{put("refs/main", other_commit)}, "has no snapshots/" + other_commit},
      // Files that every model has.
      {{rm("blobs")}, "/modules.json is a link to nowhere"},
      {{cut("@/model.safetensors", 1000)}, "/model.safetensors has 1000 bytes instead of 138656"},
      {{rm("trees"), cut("@/config.json", 0)}, "/config.json is empty"},
      {{rm("@/config.json"), put("@/config.json/x", "")}, "/config.json is not a file"},
      {{rm("@/tokenizer.json")}, "/tokenizer.json is missing"},
      {{rm("trees"), rm("@/1_Pooling/config.json")}, "/1_Pooling/config.json is missing"},
      // Files whose absence has to be certain, and those that matter only when listed.
      {{rm("trees"), rm("@/modules.json")}, "/modules.json" + unsettled},
      {{rm("trees"), rm("@/modules.json"), mark("modules.json")}, "none"},
      {{rm("trees"), rm("@/sentence_bert_config.json")}, "sentence_bert_config.json" + unsettled},
      {{rm("trees"), rm("@/tokenizer_config.json")}, "/tokenizer_config.json" + unsettled},
      {{rm("@/config_sentence_transformers.json")}, "_sentence_transformers.json is missing"},
      {{put("trees/" + kCommit + ".json", R"({"format_version":2,"files":{}})"),
        rm("@/modules.json")},
       "/modules.json" + unsettled},
      {{rm("trees"), put("@/modules.json", "[")}, "modules.json: no valid JSON at byte"},
      {{rm("trees"), lead_out("@/modules.json")}, "outside of "},
      {{lead_out("blobs")}, "move its whole folder there"},
      // Weights in a format that is not read.
      {{rm("trees"), rm("@/model.safetensors"), put("@/pytorch_model.bin", "x")},
       "/model.safetensors is missing"},
      {{rm("trees"), rm("@/model.safetensors"), put("@/pytorch_model.bin", "x"),
        mark("model.safetensors")},
       "/pytorch_model.bin: weights in pickle format are not read"},
  };
  for (const auto& [steps, said] : faults) {
    SCOPED_TRACE(said);
    const Cache cache;
    for (const Step& step : steps) step(cache);
    const std::set<fs::path> before = cache.all_paths();
    const std::string outcome = cache.find();
    EXPECT_THAT(outcome, AllOf(HasSubstr(said), Not(HasSubstr("\n"))));
    EXPECT_EQ(outcome == "none", said == "none");
    EXPECT_EQ(cache.all_paths(), before) << "wrote into the cache";
  }
}

TEST(CachedModelTest, OneThatIsAbsentIsNamedWithItsPlaceAndWhatToDo) {
  const Cache cache;
  EXPECT_EQ(cache.find(parse_model_name(kModel, kCommit)), "none");
  EXPECT_THAT(cache.find(parse_model_name(kModel, "v2")),
              HasSubstr("refs/v2 is missing; fetch it"));
  EXPECT_EQ(cache.find(parse_model_name("gone"), "TRANSFORMERS_OFFLINE"),
            "ModelNotCachedError: model 'gone' (sentence-transformers/gone) is not in the cache " +
                cache.root.string() +
                ": it has no folder models--sentence-transformers--gone; "
                "TRANSFORMERS_OFFLINE forbids fetching it: copy it there, or set HF_HUB_CACHE to "
                "the cache that holds it");
}

TEST(CachedModelTest, AFolderIsTakenAsItIs) {
  const Cache cache;
  const auto find = [](const fs::path& path) {
    return find_cached_model(parse_model_name(path.string()), {.root = "/nowhere"});
  };
  EXPECT_EQ(find(cache.model).allowed_root, cache.model);
  // A snapshot named by its path consists of links into its cache all the same.
  EXPECT_EQ(find(cache.snapshot).allowed_root, cache.root);
  for (const char* const name : {"nothing", "CACHEDIR.TAG"}) {
    EXPECT_THAT(failure_of([&] { find(cache.root / name); }), HasSubstr("ModelFilesError")) << name;
  }

  // Looked at closely, a folder is a model or it is not.
  const Fault faults[] = {
      {{}, "none"},
      {{rm("@/model.safetensors")}, "model.safetensors: is missing"},
      {{cut("@/model.safetensors", 7)}, "model.safetensors: no safetensors file"},
      {{cut("@/model.safetensors", 1000)}, "has 1000 bytes instead of"},
      {{cut("@/model.safetensors", 100'000)}, "has 100000 bytes instead of"},
      {{rm("@/1_Pooling/config.json")}, "config.json: is missing"},
  };
  for (const auto& [steps, said] : faults) {
    Cache changed;
    fs::copy(cache.snapshot, changed.snapshot = changed.root / "own", fs::copy_options::recursive);
    for (const Step& step : steps) step(changed);
    EXPECT_THAT(failure_of([&] { check_model(find(changed.snapshot)); }), HasSubstr(said));
  }
}

}  // namespace
}  // namespace tovana::hub
