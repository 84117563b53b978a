#include "tovana/engines/hub/cached_model.h"

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/temp_folder.h"

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

  /// A file of the snapshot, in place of the link.
  void write(const std::string& name, std::string_view content) const {
    write_file(snapshot / name, content);
  }
  void remove(const std::string& name) const { fs::remove(snapshot / name); }
  /// "The hub said that there is no such file."
  void mark_absent(const std::string& name) const {
    write_file(model / ".no_exist" / kCommit / name, "");
  }
  void forget_listing() const { fs::remove_all(model / "trees"); }
  /// As other programs leave a cache: no listing, no marks.
  void forget_what_is_absent() const {
    forget_listing();
    fs::remove_all(model / ".no_exist");
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
    for (const auto& entry : fs::recursive_directory_iterator(root)) paths.insert(entry.path());
    return paths;
  }

 private:
  TempFolder _folder;

 public:
  fs::path root = _folder.path() / "hub";
  fs::path model = root / "models--sentence-transformers--tiny-bert-cls";
  fs::path snapshot = model / "snapshots" / kCommit;
};

constexpr std::string_view kModulesWithDense =
    R"([{"type":"sentence_transformers.models.Transformer","path":""},)"
    R"({"type":"sentence_transformers.models.Pooling","path":"1_Pooling"},)"
    R"({"type":"sentence_transformers.models.Dense","path":"2_Dense"},)"
    R"({"type":"sentence_transformers.models.Normalize","path":"3_Normalize"}])";

constexpr std::string_view kIndex =
    R"({"weight_map":{"a":"one.safetensors","b":"two.safetensors"}})";

struct Fault {
  const char* name;
  std::function<void(const Cache&)> make;
  std::string outcome;  ///< Part of it.
};

TEST(CachedModelTest, IsFoundExactlyWhenItIsComplete) {
  const std::string at = std::string("snapshots/") + kCommit + "/";
  const std::string unsettled = " is missing, and nothing says that the repository has none";
  const std::vector<Fault> faults = {
      {"nothing", [](const Cache&) {}, "found"},
      {"no listing", [](const Cache& c) { c.forget_listing(); }, "found"},
      {"nothing known of absent files", [](const Cache& c) { c.forget_what_is_absent(); }, "found"},
      {"real files in place of links",
       [](const Cache& c) {
         for (const auto& entry : fs::recursive_directory_iterator(c.snapshot)) {
           if (!entry.is_symlink()) continue;
           const fs::path target = fs::canonical(entry.path());
           fs::remove(entry.path());
           fs::rename(target, entry.path());
         }
       },
       "found"},
      {"weights in a store that models share",
       [](const Cache& c) {
         const fs::path blob = fs::canonical(c.snapshot / "model.safetensors");
         fs::create_directories(c.root / "blobs/ab");
         fs::rename(blob, c.root / "blobs/ab/abcd");
         fs::create_symlink("../../blobs/ab/abcd", blob);
       },
       "found"},
      {"blank space around the commit",
       [](const Cache& c) { write_file(c.model / "refs/main", std::string(kCommit) + "\r\n"); },
       "found"},
      {"no cache", [](const Cache& c) { fs::remove_all(c.root); }, "there is no such folder"},
      {"no repository", [](const Cache& c) { fs::remove_all(c.model); },
       "it has no folder models--sentence-transformers--tiny-bert-cls"},
      {"no reference", [](const Cache& c) { fs::remove(c.model / "refs/main"); },
       "refs/main is missing"},
      {"empty reference", [](const Cache& c) { write_file(c.model / "refs/main", ""); },
       "refs/main holds no commit"},
      {"reference that climbs",
       [](const Cache& c) { write_file(c.model / "refs/main", "../../../../../../../etc"); },
       "refs/main holds no commit"},
      {"reference to another commit",
       [](const Cache& c) { write_file(c.model / "refs/main", std::string(40, 'a')); },
       "has no snapshots/" + std::string(40, 'a')},
      {"no weights", [](const Cache& c) { c.remove("model.safetensors"); },
       at + "model.safetensors is missing"},
      {"blob gone",
       [](const Cache& c) { fs::remove(fs::canonical(c.snapshot / "model.safetensors")); },
       at + "model.safetensors is a link to nowhere"},
      {"cut blob", [](const Cache& c) { fs::resize_file(c.snapshot / "model.safetensors", 1000); },
       at + "model.safetensors has 1000 bytes instead of 138656"},
      {"empty configuration",
       [](const Cache& c) {
         c.forget_listing();
         fs::resize_file(c.snapshot / "config.json", 0);
       },
       at + "config.json is empty"},
      {"folder in place of a file",
       [](const Cache& c) {
         c.remove("config.json");
         fs::create_directory(c.snapshot / "config.json");
       },
       at + "config.json is not a file"},
      {"no tokenizer", [](const Cache& c) { c.remove("tokenizer.json"); },
       at + "tokenizer.json is missing"},
      {"old vocabulary",
       [](const Cache& c) {
         c.forget_listing();
         c.remove("tokenizer.json");
         c.write("vocab.txt", "[UNK]");
       },
       "found"},
      {"no modules, listed", [](const Cache& c) { c.remove("modules.json"); },
       at + "modules.json" + unsettled},
      {"no modules, unknown",
       [](const Cache& c) {
         c.forget_listing();
         c.remove("modules.json");
       },
       at + "modules.json" + unsettled},
      {"no modules, marked",
       [](const Cache& c) {
         c.forget_listing();
         c.remove("modules.json");
         c.mark_absent("modules.json");
       },
       "found"},
      {"no pooling, unknown",
       [](const Cache& c) {
         c.forget_listing();
         c.remove("1_Pooling/config.json");
       },
       at + "1_Pooling/config.json" + unsettled},
      {"no pooling, marked",
       [](const Cache& c) {
         c.forget_listing();
         c.remove("1_Pooling/config.json");
         c.mark_absent("1_Pooling/config.json");
       },
       "found"},
      {"no length, unknown",
       [](const Cache& c) {
         c.forget_listing();
         c.remove("sentence_bert_config.json");
       },
       at + "sentence_bert_config.json" + unsettled},
      {"no case rule, unknown",
       [](const Cache& c) {
         c.forget_listing();
         c.remove("tokenizer_config.json");
       },
       at + "tokenizer_config.json" + unsettled},
      {"no prompts, listed", [](const Cache& c) { c.remove("config_sentence_transformers.json"); },
       at + "config_sentence_transformers.json is missing"},
      {"no prompts, unknown",
       [](const Cache& c) {
         c.forget_listing();
         c.remove("config_sentence_transformers.json");
       },
       "found"},
      {"a listing of another format proves nothing",
       [](const Cache& c) {
         write_file(c.model / "trees" / (std::string(kCommit) + ".json"),
                    R"({"format_version":2,"files":{}})");
         c.remove("modules.json");
       },
       at + "modules.json" + unsettled},
      {"a broken listing is none",
       [](const Cache& c) {
         write_file(c.model / "trees" / (std::string(kCommit) + ".json"), "{\"format_version\":1");
       },
       "found"},
      {"a dense module without a configuration",
       [](const Cache& c) {
         c.forget_listing();
         c.write("modules.json", kModulesWithDense);
       },
       at + "2_Dense/config.json is missing"},
      {"a dense module without weights",
       [](const Cache& c) {
         c.forget_listing();
         c.write("modules.json", kModulesWithDense);
         c.write("2_Dense/config.json", "{}");
       },
       at + "2_Dense/model.safetensors is missing"},
      {"a whole dense module",
       [](const Cache& c) {
         c.forget_listing();
         c.write("modules.json", kModulesWithDense);
         c.write("2_Dense/config.json", "{}");
         c.write("2_Dense/model.safetensors", "x");
       },
       "found"},
      {"a module that climbs",
       [](const Cache& c) {
         c.forget_listing();
         c.write("modules.json", R"([{"type":"a.Dense","path":"../../../.."}])");
       },
       "ValueError: "},
      {"modules that are no JSON",
       [](const Cache& c) {
         c.forget_listing();
         c.write("modules.json", "[");
       },
       "modules.json: no valid JSON at byte"},
      {"modules that lead out of the cache",
       [](const Cache& c) {
         c.forget_listing();
         write_file(c.root.parent_path() / "outside.json", "[]");
         c.remove("modules.json");
         fs::create_symlink(c.root.parent_path() / "outside.json", c.snapshot / "modules.json");
       },
       "outside of "},
      {"a shard missing",
       [](const Cache& c) {
         c.forget_listing();
         c.remove("model.safetensors");
         c.write("model.safetensors.index.json", kIndex);
         c.write("one.safetensors", "x");
       },
       at + "two.safetensors is missing"},
      {"all shards",
       [](const Cache& c) {
         c.forget_listing();
         c.remove("model.safetensors");
         c.write("model.safetensors.index.json", kIndex);
         c.write("one.safetensors", "x");
         c.write("two.safetensors", "x");
       },
       "found"},
      {"pickled weights while there may be others",
       [](const Cache& c) {
         c.forget_listing();
         c.remove("model.safetensors");
         c.write("pytorch_model.bin", "x");
       },
       at + "model.safetensors is missing"},
      {"pickled weights and no others",
       [](const Cache& c) {
         c.forget_listing();
         c.remove("model.safetensors");
         c.write("pytorch_model.bin", "x");
         c.mark_absent("model.safetensors");
       },
       "found"},
  };
  for (const Fault& fault : faults) {
    const Cache cache;
    fault.make(cache);
    const auto before = fs::exists(cache.root) ? cache.all_paths() : std::set<fs::path>{};
    const std::string outcome = cache.find();
    if (fault.outcome == "found") {
      EXPECT_EQ(outcome, "found") << fault.name;
    } else {
      EXPECT_THAT(outcome, HasSubstr(fault.outcome)) << fault.name;
      EXPECT_THAT(outcome, testing::Not(HasSubstr("\n"))) << fault.name;
    }
    if (fs::exists(cache.root)) {
      EXPECT_EQ(cache.all_paths(), before) << fault.name;
    }
  }
}

TEST(CachedModelTest, TheErrorSaysWhatIsMissingWhereAndWhatToDo) {
  const Cache cache;
  EXPECT_EQ(cache.find("nobody/nothing"),
            "ModelNotCachedError: model 'nobody/nothing' is not in the cache " +
                cache.root.string() +
                ": it has no folder models--nobody--nothing; fetch it, or "
                "set HF_HUB_CACHE to the cache that holds it");
  try {
    find_cached_model(parse_model_name("gone"), {.root = cache.root, .is_offline = true});
    FAIL() << "found";
  } catch (const RuntimeError& error) {
    EXPECT_THAT(error.what(),
                testing::AllOf(HasSubstr("model 'gone' (sentence-transformers/gone) is not"),
                               HasSubstr("HF_HUB_OFFLINE or TRANSFORMERS_OFFLINE forbids")));
  }
}

TEST(CachedModelTest, ARevisionIsAReferenceOrACommit) {
  const Cache cache;
  write_file(cache.model / "refs/pr/4", kCommit);
  const auto commit_of = [&cache](const std::string& revision) {
    ModelName name = parse_model_name(kModel);
    name.revision = revision;
    return find_cached_model(name, {.root = cache.root}).commit;
  };
  EXPECT_EQ(commit_of(kCommit), kCommit);
  EXPECT_EQ(commit_of("pr/4"), kCommit);
  EXPECT_THROW(commit_of("v2"), ModelNotCachedError);
  EXPECT_THROW(commit_of("../refs/main"), ValueError);
}

TEST(CachedModelTest, AFolderIsTakenAsItIs) {
  const Cache cache;
  const auto find = [](const fs::path& path) {
    return find_cached_model(parse_model_name(path.string()), {.root = "/nowhere"});
  };
  EXPECT_EQ(find(cache.model).allowed_root, cache.model);
  // A snapshot named by its path consists of links into its cache all the same.
  EXPECT_EQ(find(cache.snapshot).allowed_root, cache.root);
  EXPECT_THROW(find(cache.root / "nothing"), ValueError);
  EXPECT_THROW(find(cache.root / "CACHEDIR.TAG"), ValueError);
}

}  // namespace
}  // namespace tovana::hub
