#include "tovana/engines/embedding/backends/local/model_library.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include "tests/support/failure_text.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_folder.h"
#include "tests/tovana/engines/embedding/backends/local/plugins/plugin.h"
#include "tovana/engines/embedding/backends/local/local.h"
#include "tovana/engines/embedding/backends/local/precision.h"
#include "tovana/engines/embedding/engine/engine.h"
#include "tovana/engines/embedding/sharing/shared_engines.h"

namespace tovana::embedding {
namespace {

using namespace ::testing;
using namespace tovana::testing;
namespace fs = std::filesystem;

fs::path plugin(const std::string& name) { return fs::path(PLUGIN_FOLDER) / (name + ".so"); }

std::unique_ptr<const LocalModel> load(const ModelLibrary& library, const std::string& wish) {
  return library.load_model("/models/" + wish, "/models");
}

EncodedTexts encode(const LocalModel& model, const std::string_view wish,
                    const EncodeOptions& options = {}) {
  return model.encode(std::array{std::string_view("ab"), wish}, options);
}

TEST(ModelLibraryTest, IsFoundWhereItIsNamedOrBesideTheExecutable) {
  const TempFolder folder;
  const auto found = [](const std::string& named) {
    const Environment environment = {{"TOVANA_MODEL_LIBRARY", named}};
    return model_library_path(&environment);
  };
  const auto failure = [&](const std::string& named) { return failure_of([&] { found(named); }); };

  // A file of the right name in the working directory is none of ours.
  const std::string name = "libtovana_sentence_transformers.so";
  fs::current_path(folder.path());
  fs::copy(plugin("good"), name);
  EXPECT_EQ(failure(""), "ModelLibraryNotInstalled: sentence-transformers is not installed");
  EXPECT_THAT(failure(name), AllOf(HasSubstr("ValueError: "), HasSubstr("absolute")));

  const fs::path beside = fs::read_symlink("/proc/self/exe").parent_path() / name;
  fs::create_symlink(plugin("good"), beside);
  EXPECT_EQ(model_library_path(std::make_unique<Environment>().get()), beside);
  fs::remove(beside);

  EXPECT_THAT(failure("/missing.so"), HasSubstr("ModelLibraryError: TOVANA_MODEL_LIBRARY=/"));
  EXPECT_THAT(failure("/dev/null"),
              HasSubstr("ModelLibraryError: the model library /dev/null is no regular file"));
  fs::permissions(folder.path() / name, fs::perms::others_write, fs::perm_options::add);
  EXPECT_THAT(failure(folder.path() / name),
              AllOf(HasSubstr("ModelLibraryError: "), HasSubstr("chmod o-w")));
}

TEST(ModelLibraryTest, SaysWhyAFileCannotBeLoadedAndTriesItAgain) {
  const TempFolder folder;
  const fs::path text = folder.path() / "text.so";
  write_file(text, "no library");
  const std::vector<std::pair<fs::path, std::string>> cases = {
      {plugin("no_symbol"), "no symbol tovana_model_library"},
      {plugin("no_table"), "cannot work on this machine"},
      {plugin("old_version"), "boundary version 1 "},
      {plugin("wrong_size"), "(0 bytes)"},
      {plugin("failing_open"), "does not work"},
      {folder.path(), "cannot read file data"},
      {text, "file too short"},
  };
  for (const auto& each : cases) {
    EXPECT_THAT(
        failure_of([&] { ModelLibrary::open(each.first); }),
        AllOf(HasSubstr("ModelLibraryError: "), HasSubstr(each.first), HasSubstr(each.second)));
  }
  fs::remove(text);
  fs::copy(plugin("good"), text);
  ModelLibrary::open(text);
  ModelLibrary::open(plugin("failing_open"));
}

TEST(ModelLibraryTest, TurnsFailuresIntoErrorsAndGivesEverythingBack) {
  const auto library = ModelLibrary::open(plugin("good"));
  library->set_num_threads(1L << 40);
  EXPECT_EQ(library->get_num_threads(), (1L << 31) - 1);
  library->set_num_threads(4);

  auto model = load(*library, "model");
  EXPECT_THAT(model->prompts().texts, ElementsAre(Pair("document", "d: "), Pair("query", "q: ")));
  EXPECT_EQ(model->prompts().default_name, "document");
  const EncodedTexts plain = encode(*model, "abc");
  EXPECT_THAT(plain.vectors.values, ElementsAre(2, 4, 0, 3, 4, 0));
  EXPECT_THAT(plain.token_counts, IsEmpty());
  const EncodedTexts all = encode(*model, "abc",
                                  {.normalize_embeddings = true,
                                   .prompt_name = "query",
                                   .prompt = "a text of 20 bytes: ",
                                   .count_tokens = true});
  EXPECT_THAT(all.vectors.values, ElementsAre(27, 4, 1, 28, 4, 1));
  EXPECT_THAT(all.token_counts, ElementsAre(2, 3));
  library->check_model("/models/model", "/models");
  const std::vector<std::pair<std::string, std::string>> wishes = {
      {"fail ModelFilesError", "ModelFilesError: does not work"},
      {"fail ValueError", "ValueError: does not work"},
      {"fail c10::Error", "RuntimeError: c10::Error: does not work"},
      {"fail std::bad_alloc", "std::bad_alloc: std::bad_alloc"},
      {"throw", "with an exception, which it never should: std::logic_error: oops"},
      {"throw int", "with an exception, which it never should: of an unknown type"}};
  for (const auto& each : wishes) {
    const std::string& wish = each.first;
    EXPECT_THAT(failure_of([&] { load(*library, wish); }), HasSubstr(each.second));
    EXPECT_THAT(failure_of([&] { library->check_model(fs::path("/m") / wish, "/m"); }),
                HasSubstr(each.second));
    EXPECT_THAT(failure_of([&] { encode(*model, wish); }), HasSubstr(each.second));
  }
  EXPECT_THAT(failure_of([&] { load(*library, "nothing"); }), HasSubstr("neither a usable model"));

  void* const object = dlopen(plugin("good").c_str(), RTLD_NOW | RTLD_NOLOAD);
  const auto alive = reinterpret_cast<int (*)()>(dlsym(object, "tovana_test_alive"));
  EXPECT_EQ(alive(), 1);
  model.reset();
  EXPECT_EQ(alive(), 0);
  library->set_num_threads(16);  // as it was, for other cases of this process
}

TEST(PrecisionTest, IsWhatIsAskedForAndSupportedOnceForAll) {
  struct Case {
    std::string named;  ///< In the environment, where nothing was requested.
    std::optional<Precision> requested;
    std::string library;
    Precision used;
    std::vector<std::string> said;
  };
  constexpr auto kFloat32 = Precision::float32;
  constexpr auto kBfloat16 = Precision::bfloat16;
  const std::string in_float32 = "info Local models compute in float32 (fake, none)";
  const std::string in_bfloat16 = "info Local models compute in bfloat16 (fake, none)";
  const std::string in_vain = in_float32 + ", not in bfloat16 as asked: this model library ";
  const std::string wrong = "warning TOVANA_EMBED_PRECISION is 'bf16\\n', which is no precision: ";
  LogRecorder log;
  for (const Case& each : std::vector<Case>{
           {" ", {}, "good", kFloat32, {in_float32}},
           {"\tBFloat16\n", {}, "good", kBfloat16, {in_bfloat16}},
           {"bfloat16", {}, "float32_only", kFloat32, {in_vain}},
           {"bf16\n", {}, "good", kFloat32, {wrong, in_float32}},
           {"bf16\n", kBfloat16, "good", kBfloat16, {in_bfloat16}},
           {"bfloat16", kFloat32, "good", kFloat32, {in_float32}},
       }) {
    const auto library = ModelLibrary::open(plugin(each.library));
    Environment environment = {{"TOVANA_EMBED_PRECISION", each.named}};
    PrecisionSetting setting;
    if (each.requested) setting.request(*each.requested);
    EXPECT_EQ(setting.used(), std::nullopt);
    EXPECT_EQ(setting._settle(*library, &environment), each.used) << each.named;
    environment.clear();
    EXPECT_EQ(setting._settle(*library, &environment), each.used) << each.named;
    EXPECT_EQ(setting.used(), each.used);
    const std::vector<std::string> lines = log.take_lines();
    ASSERT_EQ(lines.size(), each.said.size()) << PrintToString(lines);
    for (std::size_t i = 0; i < lines.size(); ++i) EXPECT_THAT(lines[i], StartsWith(each.said[i]));
    setting.request(each.used);
    const bool in_vain_asked = each.library == "float32_only";
    EXPECT_EQ(failure_of([&] {
                setting.request(each.used == kFloat32 ? kBfloat16 : kFloat32);
              }).find("RuntimeError: the local models of this process compute in "),
              in_vain_asked ? std::string::npos : 0);
  }
}

/// The process's own runtime, which takes the way to plugin and cache from the environment.
TEST(ModelRuntimeTest, LoadsFromTheCacheAndSaysWhatItMayNotFetch) {
  setenv("TOVANA_MODEL_LIBRARY", plugin("good").c_str(), 1);
  setenv("SENTENCE_TRANSFORMERS_HOME", CACHE_SAMPLE, 1);
  setenv("HF_HUB_OFFLINE", "1", 1);
  setenv("TOVANA_EMBED_THREADS", "2", 1);
  setenv("TOVANA_EMBED_PRECISION", "bfloat16", 1);
  LocalEmbeddingBackend backend("tiny-bert-cls");
  EXPECT_EQ(model_runtime().loaded_torch(), nullptr);
  EXPECT_FALSE(model_runtime().loaded_library());
  EXPECT_THAT(backend.embed({"abc"}), ElementsAre(Vector{3, 2, 3}));  // 2: the bound's threads
  setenv("TOVANA_EMBED_PRECISION", "float32", 1);                     // comes too late
  EXPECT_THAT(LocalEmbeddingBackend("tiny-bert-cls").embed({"abc"}), ElementsAre(Vector{3, 2, 3}));
  ASSERT_NE(model_runtime().loaded_torch(), nullptr);
  EXPECT_EQ(model_runtime().loaded_torch()->get_num_threads(), 16);
  EXPECT_EQ(model_runtime().loaded_library().value().runtime, "fake");
  EXPECT_EQ(model_runtime().loaded_library().value().kernels, "none");

  EXPECT_THAT(failure_of([] { LocalEmbeddingBackend("absent").warm_up(); }),
              AllOf(HasSubstr("(sentence-transformers/absent) is not in the cache"),
                    HasSubstr("HF_HUB_OFFLINE")));
}

/// Blocks until a plugin hangs; `start` begins that on another thread.
void await_hang(const std::function<void()>& start) {
  std::array<int, 2> ends{};
  char byte = 0;
  if (pipe(ends.data()) != 0 || dup2(ends[1], kHangingDescriptor) < 0) _exit(1);
  std::thread(start).detach();
  if (read(ends[0], &byte, 1) != 1) _exit(1);
}

/// While somebody's library is being opened, the dynamic loader's lock is held. Runs operations
/// that promise not to wait, each on a thread that has never called the component; ends with status
/// 0 if none of them waited.
[[noreturn]] void call_while_a_library_opens() {
  static const auto ready = SHARED_ENGINES.acquire({{"backend", "tfidf"}});
  ready->backend();
  await_hang([] { dlopen(plugin("hanging_constructor").c_str(), RTLD_NOW); });

  static auto& local = *new EmbeddingEngine({{"backend", "local"}});
  for (void (*const operation)() : std::initializer_list<void (*)()>{
           [] { ready->embed({"a"}, {.wait = false}); },
           [] { ready->wait_ready(0); },
           [] { local.embed_single("a", {.wait = false}); },
           [] { local.wait_ready(0); },
           [] { local.status(); },
           [] { EmbeddingEngine().warm_up_async(); },
           [] {
             SHARED_ENGINES.acquire({{"dimension", 7}})->warm_up_async();
           },
           [] { SHARED_ENGINES.release(SHARED_ENGINES.acquire()); },
           [] { local.close(); },
           [] { LocalEmbeddingBackend("m"); },
       }) {
    std::packaged_task<void()> task(operation);
    const auto done = task.get_future();
    std::thread(std::move(task)).detach();
    if (done.wait_for(std::chrono::seconds(10)) != std::future_status::ready) _exit(1);
  }
  _exit(0);
}

TEST(NoWaitTest, NothingThatPromisesNotToWaitWaitsForALibraryThatOpens) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(call_while_a_library_opens(), ExitedWithCode(0), "");
}

/// Exits with status 7 while other threads are stuck in a load and in a call of the model library.
[[noreturn]] void exit_during_load_and_call(bool on_main_thread) {
  for (const char* const model : {"hang", "model"}) {
    await_hang([model] { encode(*load(*ModelLibrary::open(plugin("good")), model), "hang"); });
  }
  struct Host {
    ~Host() { static_cast<void>(std::fputs("its statics, ", stderr)); }
  };
  static const Host host;
  static_cast<void>(std::atexit([] { static_cast<void>(std::fputs("its handlers, ", stderr)); }));
  static_cast<void>(std::setvbuf(stderr, nullptr, _IOFBF, BUFSIZ));
  if (!on_main_thread) std::thread([] { std::exit(7); }).join();
  std::exit(7);
}

TEST(ExitTest, LeavesTheHostItsStatusHandlersAndStaticsDuringALoadAndACall) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const bool on_main_thread : {true, false}) {
    EXPECT_EXIT(exit_during_load_and_call(on_main_thread), ExitedWithCode(7),
                "its handlers, its statics, ");
  }
}

}  // namespace
}  // namespace tovana::embedding
