#include "tovana/engines/hub/fetch_model.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tests/support/failure_text.h"
#include "tests/support/log_recorder.h"
#include "tests/support/manual_clock.h"
#include "tests/support/temp_folder.h"
#include "tests/support/waiting.h"
#include "tests/tovana/engines/hub/fake_hub.h"
#include "tovana/engines/http/curl_transport.h"
#include "tovana/engines/hub/fetch_errors.h"
#include "tovana/engines/hub/fetch_progress.h"

/// Fetching from a hub on loopback that does everything wrong that a hub, a network, a disk or
/// another process can. Whatever the fault: nothing of the model is linked unless all of it is
/// there, no secret is told, and the next fetch, from a hub that works, completes it.
namespace {

namespace fs = std::filesystem;

std::atomic<int> LINK_ERROR = 0;  ///< What links fail with; 0: they do not.
std::atomic<int> LOCK_ERROR = 0;  ///< The same for locks.
std::atomic<std::uint64_t> ROOM = std::uint64_t{1} << 40U;  ///< In an empty folder of a repository.

}  // namespace

// In place of the system's own.
extern "C" int symlink(const char* target, const char* path) noexcept {
  errno = LINK_ERROR;
  return errno == 0 ? ::symlinkat(target, AT_FDCWD, path) : -1;
}

extern "C" int flock(int file, int operation) noexcept {
  errno = LOCK_ERROR;
  return errno == 0 ? static_cast<int>(::syscall(SYS_flock, file, operation)) : -1;
}

extern "C" int statvfs(const char* path, struct statvfs* space) noexcept {
  *space = {};
  space->f_frsize = 1;
  space->f_bavail = ROOM;
  for (const auto& entry : fs::directory_iterator(fs::path(path) / "blobs")) {
    space->f_bavail -= entry.file_size();
  }
  return 0;
}

namespace tovana::hub {
namespace {

using namespace ::testing;
using namespace tovana::testing;
using Connection = FakeHub::Connection;

constexpr const char* kWeights = "model.safetensors";
constexpr std::size_t kWeightBytes = 300'000;
const std::string kToken = "hf_secret";
const std::string kId64(64, 'd');

/// Weights of so many bytes in all.
std::string weights(std::size_t size) {
  std::string bytes("\x78\0\0\0\0\0\0\0", 8);
  bytes += R"({"a":{"data_offsets":[0,)" + std::to_string(size - 128) + "]}}";
  bytes.resize(128, ' ');
  std::mt19937 random(7);
  while (bytes.size() < size) bytes += static_cast<char>(random());
  return bytes;
}

/// A list of modules: names and paths, separated by blanks.
std::string modules(const std::string& list) {
  std::istringstream words(list);
  std::string text;
  for (std::string name, path; words >> name >> path;) {
    text.append(text.empty() ? "[" : ",")
        .append(R"({"type":"sentence_transformers.models.)")
        .append(name)
        .append(R"(","path":")")
        .append(path)
        .append("\"}");
  }
  return text + "]";
}

/// Makes a file as old as that, its link not followed; below 0: as old as can be.
void set_age(const fs::path& path, std::time_t seconds) {
  const timespec time = {.tv_sec = seconds < 0 ? 0 : std::time(nullptr) - seconds, .tv_nsec = 0};
  const timespec times[] = {time, time};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

std::string content_of(const fs::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::set<fs::path> files_in(const fs::path& folder, const fs::path& extension = {}) {
  std::set<fs::path> paths;
  std::error_code none;
  for (const auto& entry : fs::recursive_directory_iterator(folder, none)) {
    const bool is_wanted = extension.empty() || entry.path().extension() == extension;
    if (is_wanted && !entry.is_directory()) paths.insert(entry.path());
  }
  return paths;
}

const std::map<std::string, FakeHub::File> kFiles = {
    {"README.md", {"# A model"}},
    {"modules.json", {modules("Transformer . Pooling 1_Pooling")}},
    {"config.json", {R"({"model_type":"bert"})"}},
    {"tokenizer.json", {R"({"model":{},"x":")" + std::string(4980, 't') + "\"}"}},
    {"tokenizer_config.json", {"{}"}},
    {"1_Pooling/config.json", {"{}"}},
    {kWeights, {weights(kWeightBytes), true}},
    {"pytorch_model.bin", {std::string(9000, 'p'), true}}};
const std::string kWeightsId = FakeHub::id_of(kFiles.at(kWeights));
const std::set<fs::path> kNeeded = {"modules.json",          "config.json",
                                    "tokenizer.json",        "tokenizer_config.json",
                                    "1_Pooling/config.json", kWeights};

/// A hub with a small model, a cache, and fetches from the one into the other.
class Fetching {
 public:
  explicit Fetching(std::shared_ptr<SSL_CTX> tls = nullptr) : hub(std::move(tls)) {
    settings.root = _folder.path() / "hub";
    options.hub = {.endpoint = hub.url(), .token = kToken};
    options.hub.endpoint.insert(hub.url().find("//") + 2, "reader:hunter2@");
    options.clock = &clock;
    repair();
    set_fetch_observer([this](const FetchProgress& progress) {
      const LockGuard lock(_mutex);
      _said.append(progress.asked_host).append(progress.problem);
      if (progress.bytes >= last.bytes) last = progress;
      is_over = progress.is_over;
      is_waiting |= progress.is_waiting && progress.file == kWeights;
      if (progress.file == kWeights && !progress.is_waiting) {
        weights_told.push_back(progress.file_bytes);
        weights_now = progress.file_bytes;
        weights_now.notify_all();
      }
      throw std::domain_error("dropped");
    });
  }
  ~Fetching() { set_fetch_observer({}); }

  /// "fetched", or what it fails with, in one line: the cause, if it has one, and the message.
  std::string fetch() {
    std::string outcome = "fetched";
    try {
      EXPECT_EQ(fetch_model(name, settings, options).commit, hub.commit);
    } catch (const ModelFetchError& error) {
      constexpr const char* kCauses[] = {"unreachable", "refused", "no_such_model", "bad_answer",
                                         "not_a_model"};
      outcome = std::string(kCauses[static_cast<int>(error.cause())]) + ": " + error.what();
    } catch (const std::exception& error) {
      outcome = failure_text(error);
    }
    hub.settle();
    EXPECT_THAT(outcome, Not(HasSubstr("\n")));
    lines = log.take_lines();
    for (const std::string& line : lines) _said += line;
    EXPECT_THAT(_said + outcome, Not(ContainsRegex("hunt|hf_secret|s3cret")));
    EXPECT_THAT(hub.store().requests(), Not(Contains(ContainsRegex("uthorization|hf_secret"))));
    return outcome;
  }

  fs::path model() const { return settings.root / "models--sentence-transformers--tiny"; }
  fs::path snapshot() const { return model() / "snapshots" / hub.commit; }
  fs::path blob(const std::string& file) const {
    return model() / "blobs" / FakeHub::id_of(hub.files.at(file));
  }
  /// Leaves a part of a content, as old as that (see `set_age`).
  fs::path leave(const std::string& content, int age, const std::string& id = kWeightsId) const {
    fs::path path = model() / "blobs" / (id + ".00000001.incomplete");
    write_file(path, content);
    set_age(path, age);
    return path;
  }

  std::set<fs::path> unfinished() const { return files_in(model() / "blobs", ".incomplete"); }

  /// What is in the snapshot, each file with the hub's content.
  std::set<fs::path> files_in_snapshot() const {
    std::set<fs::path> names;
    for (const fs::path& path : files_in(snapshot())) {
      const fs::path file = path.lexically_relative(snapshot());
      names.insert(file);
      EXPECT_TRUE(content_of(path) == hub.files.at(file).content) << file;
    }
    return names;
  }

  /// The cache holds all of the model, and nothing is left over.
  void expect_whole() const {
    EXPECT_EQ(files_in_snapshot(), kNeeded);
    EXPECT_THAT(unfinished(), SizeIs(0));
    EXPECT_EQ(find_cached_model(name, settings).directory, fs::canonical(snapshot()));
  }

  void repair() {
    hub.hub_fault = nullptr;
    hub.store_fault = nullptr;
    hub.files = kFiles;
    name = parse_model_name("tiny");
  }

  std::size_t requests() const {
    return hub.hub().requests().size() + hub.store().requests().size();
  }

 private:
  TempFolder _folder;
  Mutex _mutex;
  std::string _said;

 public:
  LogRecorder log;
  std::vector<std::string> lines;  ///< What the last fetch logged.
  FetchProgress last;              ///< Of the moments, the one with the most bytes.
  bool is_over = false;
  bool is_waiting = false;  ///< For the weights.
  std::vector<std::uint64_t> weights_told;
  std::atomic<std::uint64_t> weights_now = 0;
  FakeHub hub;
  FakeClock clock;
  CacheSettings settings;
  FetchOptions options;
  ModelName name;
};

/// The process's transport, which looks at the requests' timeouts.
class CheckingTransport final : public http::Transport {
 public:
  http::Outcome send(const http::Request& request, http::ResponseSink& sink) override {
    const bool is_metadata = request.url.find("/api/models/") != std::string::npos;
    EXPECT_EQ(request.idle_timeout_s, is_metadata ? 7 : 8) << request.url;
    return http::default_transport().send(request, sink);
  }
};

TEST(FetchModelTest, FetchesWhatIsNeededOnceAndSendsTheTokenToTheHubAlone) {
  Fetching fetching;
  fetching.hub.page_size = 3;
  CheckingTransport transport;
  fetching.options.transport = &transport;
  fetching.options.hub.metadata_timeout_s = 7;
  fetching.options.hub.download_timeout_s = 8;
  EXPECT_EQ(fetching.fetch(), "fetched");
  EXPECT_TRUE(fetching.is_over);
  EXPECT_EQ(fetching.last.files, 5U);  // two of the six have one content
  EXPECT_EQ(fetching.last.bytes, fetching.last.size);

  fetching.expect_whole();
  EXPECT_EQ(fs::read_symlink(fetching.snapshot() / "1_Pooling/config.json"),
            "../../../blobs/" + fetching.blob("1_Pooling/config.json").filename().string());
  EXPECT_TRUE(fs::exists(fetching.model() / ".no_exist" / fetching.hub.commit /
                         "sentence_bert_config.json"));
  EXPECT_EQ(content_of(fetching.model() / "refs/main"), fetching.hub.commit);

  for (const std::string& head : fetching.hub.hub().requests()) {
    EXPECT_THAT(head, AllOf(HasSubstr("Authorization: Bearer " + kToken), Not(HasSubstr("gzip"))));
  }
  ASSERT_THAT(fetching.hub.store().requests(), SizeIs(1));
  EXPECT_THAT(fetching.hub.store().requests()[0], HasSubstr("Accept-Encoding: identity\r\n"));

  // Again: only what changes is asked for.
  const std::size_t before = fetching.requests();
  EXPECT_EQ(fetching.fetch(), "fetched");
  EXPECT_EQ(fetching.requests(), before + 4);  // the commit, and three pages
}

/// What makes hub, network or repository go wrong.
using SetUp = std::function<void(Fetching&)>;

/// The answer to the first `count` requests that hold `part`; later ones get what they should.
FakeHub::Fault answers(const std::string& part, int count,
                       const std::function<void(Connection&)>& answer) {
  return [=, left = std::make_shared<std::atomic<int>>(count)](Connection& connection) {
    if (connection.head().find(part) == std::string::npos || (*left)-- <= 0) return false;
    answer(connection);
    return true;
  };
}

SetUp hub(const std::string& part, int status, const std::string& headers,
          const std::string& body = "{}", int count = 10'000) {
  const auto answer = [=](Connection& connection) { connection.respond(status, body, headers); };
  return [=](Fetching& fetching) { fetching.hub.hub_fault = answers(part, count, answer); };
}

/// The hub's other host.
SetUp store(const std::function<void(Connection&)>& answer, int count = 100) {
  return [=](Fetching& fetching) { fetching.hub.store_fault = answers("", count, answer); };
}

/// It sends so many bytes and ends the connection.
SetUp store_sends(std::size_t bytes, const std::string& headers = {}) {
  return store([=](Connection& connection) {
    connection.send("HTTP/1.1 200 OK\r\n" + headers + "\r\n" + std::string(bytes, 'x'));
    connection.close();
  });
}

SetUp no(const std::string& code, int status = 404) {
  return hub("", status, "X-Error-Code: " + code + "\r\n");
}

/// A repository with these files in place of its own.
SetUp with(const std::string& name, const std::string& content) {
  return [=](Fetching& fetching) { fetching.hub.files[name] = {content}; };
}
/// Modules: names and paths, separated by blanks.
SetUp has(const std::string& list) { return with("modules.json", modules(list)); }
SetUp without(const std::string& name) {
  return [=](Fetching& fetching) { fetching.hub.files.erase(name); };
}

SetUp lists(const std::string& entries) { return hub("/tree/", 200, "", "[" + entries + "]"); }

std::string large(const std::string& name, std::uint64_t size, const std::string& id = kId64) {
  return FakeHub::entry(name, id, size, true);
}

const SetUp lists_too_much = [](Fetching& fetching) {
  fetching.hub.page_size = 50'000;
  for (int i = 0; i < 100'000; ++i) {
    fetching.hub.files["f" + std::to_string(i)] = {.content = "x", .id = std::string(40, 'e')};
  }
};

std::string denses(int count) {
  std::string list = "Transformer . Pooling p";
  for (int i = 0; i < count; ++i) list += " Dense " + std::to_string(i) + "/x/x/x";
  return list;
}

const std::string kWeightsHead = "HTTP/1.1 200 OK\r\nContent-Length: 300000\r\n\r\n";

const SetUp names_a_tag = [](Fetching& fetching) {
  fetching.name.revision = "v/1";
  hub("/revision/v%2F1", 200, "", R"({"sha":")" + fetching.hub.commit + "\"}")(fetching);
};
const SetUp has_too_much = [](Fetching& fetching) {
  fetching.leave("longer than it was", -1);
  store([](Connection& connection) { connection.respond(416, ""); }, 1)(fetching);
};
const auto send_other = [](Connection& connection) {
  connection.respond(200, std::string(kWeightBytes, 'x'));
};
const auto send_other_part = [](Connection& connection) {
  connection.respond(206, "abc", "Content-Range: bytes 5-7/300000\r\n");
};

/// Something that is wrong, and how a fetch ends.
struct Fault {
  SetUp set_up;
  std::string outcome;       ///< Of `Fetching::fetch`, as a regular expression.
  std::size_t requests = 0;  ///< At most; 0: not counted.
  double waited_s = -1;      ///< In all; below 0: not looked at.
};

const Fault kFaults[] = {
    // What is not there, or not for us.
    {no("RepoNotFound"), "^no_such_model.* does not exist at http://[*]{3}@127", 1},
    {no("RevisionNotFound"), "^no_such_model.* has no such revision at http://[*]{3}@127", 1},
    {no("EntryNotFound"), "^bad_answer: the hub lists a file .* that it does not have: http"},
    {no("", 404), "^no_such_model.*is http://[*]{3}@.* .HF_ENDPOINT. a model hub", 1},
    {no("GatedRepo", 403), "^refused.* is gated: accept its terms at http://[*]{3}@127"},
    {hub("", 403, "X-Error-Message: reader:hunter2, hf_secret is\tdisabled.\r\n"),
     "^refused.*HTTP 403, .*; the hub says.*[*]{3} is\\\\tdisabled", 1},
    {hub("", 401, ""), "^refused: http://[*]{3}@.* refuses the token", 2},
    {hub("Bearer", 401, ""), "^fetched"},
    {names_a_tag, "^fetched"},
    // NOLINTNEXTLINE(bugprone-string-constructor): it is to be large
    {hub("", 200, "", std::string(8'400'000, ' ')), "^bad_answer.* more than 8 MiB", 1},
    {hub("/revision/", 200, "", R"({"sha":"../../etc"})"), "^bad_answer.*else than a model's", 1},
    // What passes, and what does not.
    {hub("", 503, ""), "^unreachable.*HTTP 503, the hub has trouble", 4, 7},
    {hub("", 429, "Retry-After: 9\r\n", "", 1), "^fetched", 0, 9},
    {hub("", 429, "ratelimit: \"api\";r=0;t=8\r\n", "", 1), "^fetched", 0, 9},
    {store_sends(0, "Content-Length: 20\r\n"), "^bad_answer.*20 bytes instead of 300000"},
    {store_sends(1000), "^unreachable.*the response ended after 1000 of 300000 bytes"},
    {store_sends(kWeightBytes + 1), "^bad_answer.*more than that instead of 300000"},
    {store(send_other), "^bad_answer.*its hash is not"},
    {store(send_other, 1), "^fetched"},
    {store(send_other_part), "^bad_answer.*a part that was not asked for"},
    {has_too_much, "^fetched", 0, 0},
    {store_sends(9000, "Content-Length: 300000\r\n"), "^unreachable.*broke before the end"},
    {hub("", 307, "Location: /again\r\n"), "^bad_answer.*redirects more than 10 times", 11},
    {hub("", 302, "Location: file:///etc/passwd\r\n"), "^bad_answer.*no http or https URL", 1},
    {hub("", 307, "Location: http://hunter2.invalid/hf_secret\r\n"), "^unreachable.*[*]{3}"},
    {hub("/tree/", 200, "Link: <http://127.0.0.1:1/x>; rel=\"next\"\r\n", "[]"),
     "^bad_answer.*goes on at http://127"},
    {lists_too_much, "^bad_answer.* has more than 100000 files", 4},
    {hub("/tree/", 200, "Link: <tree/x>; rel=\"next\"\r\n", "[]"),
     "^bad_answer.* has more than 1000 pages", 1001},
    {lists(large("config.json", 7, "../../../../x")), "^bad_answer.*\"config.json\" has no hash"},
    {lists(R"({"type":"file","path":"x","oid":"a"})"), "^bad_answer.*\"x\" has no size"},
    {lists(large("a", 1) + "," + large("a", 2)), "^bad_answer.*\"a\" comes twice"},
    {lists(large("a/b", 1) + "," + large("a", 2)), "^bad_answer.*is both a file and a folder"},
    {lists(large("modules.json", 1'000'000'000)), "^not_a_model.* its modules.json has 1000 MB"},
    // Repositories.
    {without("config.json"), "^not_a_model.* it has no config.json"},
    {with("tokenizer.json", ""), "^not_a_model.* its tokenizer.json is empty"},
    {without("modules.json"), "^fetched"},
    {with("modules.json", "{}"), "^ModelFiles.*lists no modules"},
    {has("Transformer ../.. Pooling p"), "^ModelFiles.*\"../../config.json\", which is not inside"},
    {has(denses(63)), "^ModelFiles.*lists more than 64 modules"},
    {has(denses(50)), "^ModelFiles.* 2000 files or 200 folders"},
    {has("Transformer . Pooling 1/2/3/4/5/6/7/8/9/a/b/c/d/e/f/g"), "^ModelFiles.*is too long"},
    {has("Transformer . Pooling " + kId64 + kId64 + kId64 + kId64), "^ModelFiles.*is too long"},
    {has("Transformer . Pooling p WordWeights w"), "^ModelFiles.*WordWeights\" is not supported"},
    {has("Pooling p Transformer ."), "^ModelFiles.*a Transformer,"},
    {has("Transformer . Pooling p Transformer t"), "^ModelFiles.*, then a Pooling"},
    {with("adapter_config.json", "{}"), "^ModelFiles.*merge the adapter"},
    {with("tokenizer.json", "["), "^ModelFiles.*\"tokenizer.json\" cannot be used: "},
    {with("tokenizer.json", "{}"), "^ModelFiles.*it has no \"model\""},
    // Refused before its weights are fetched: commit, listing, and two small files.
    {with("config.json", R"({"model_type":"gpt2"})"),
     "^ModelFiles.*\"gpt2\", a decoder; supported are encoders: bert", 6},
};

TEST(FetchModelTest, EndsAsItShouldWhateverIsWrong) {
  for (const Fault& fault : kFaults) {
    SCOPED_TRACE(Message() << &fault - kFaults << ": " << fault.outcome);
    Fetching fetching;
    fault.set_up(fetching);
    const std::string outcome = fetching.fetch();
    EXPECT_THAT(outcome, ContainsRegex(fault.outcome));
    if (fault.requests > 0) {
      EXPECT_LE(fetching.requests(), fault.requests);
    }
    if (fault.waited_s >= 0) {
      EXPECT_EQ(fetching.clock.now(), 1000 + fault.waited_s);
    }
    if (outcome != "fetched") {
      EXPECT_THAT(fetching.files_in_snapshot(), SizeIs(0));
      EXPECT_FALSE(fs::exists(fetching.model() / "refs"));
    }
    fetching.repair();
    EXPECT_EQ(fetching.fetch(), "fetched");
    fetching.expect_whole();
  }
}

TEST(FetchModelTest, ResumesWhereAConnectionBrokeAtAnyPoint) {
  for (const std::size_t cut : {std::size_t{0}, std::size_t{1}, kWeightBytes - 1}) {
    SCOPED_TRACE(cut);
    Fetching fetching;
    // Each attempt of the first fetch is broken off, and another fetch goes on from there.
    const std::string begin = kWeightsHead + kFiles.at(kWeights).content.substr(0, cut);
    const auto break_off = [&](Connection& connection) {
      if (connection.head().find("Range:") == std::string::npos) connection.send(begin);
      connection.close();
    };
    store(break_off, 4)(fetching);
    EXPECT_THAT(fetching.fetch(), ContainsRegex("^unreachable: .*connection"));
    EXPECT_EQ(fetching.clock.now(), 1007);
    ASSERT_THAT(fetching.unfinished(), SizeIs(cut == 0 ? 0 : 1));
    // Given up in order, or by a process that was killed a minute ago: resumed in place.
    const fs::path kept = fetching.settings.root / "kept";
    for (const fs::path& path : fetching.unfinished()) {
      if (cut == 1) set_age(path, 61);
      fs::create_hard_link(path, kept);
    }
    fetching.weights_told.clear();
    EXPECT_EQ(fetching.fetch(), "fetched");
    fetching.expect_whole();
    EXPECT_EQ(fetching.weights_told.front(), cut);
    EXPECT_EQ(cut > 0, fs::exists(kept) && fs::equivalent(kept, fetching.blob(kWeights)));
    const std::string range = "Range: bytes=" + std::to_string(cut) + "-\r\n";
    EXPECT_EQ(fetching.hub.store().requests().back().find(range) != std::string::npos, cut > 0);
  }
}

TEST(FetchModelTest, NothingLeadsFromHttpsToHttp) {
  Fetching fetching(server_context());
  http::CurlTransport transport({.ca_file = authority_file()});
  fetching.options.transport = &transport;
  EXPECT_THAT(fetching.fetch(), HasSubstr("redirects from https to http, at http://127.0.0.1"));
  EXPECT_THAT(fetching.hub.store().requests(), SizeIs(0));
}

TEST(FetchModelTest, ADiskThatTakesNoMoreIsAnErrorWithThePlace) {
  Fetching fetching;
  // Larger files than this cannot be written by this process: as a full disk, it strikes midway.
  static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlim_t unlimited = std::exchange(limit.rlim_cur, 100'000);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  const std::string outcome = fetching.fetch();
  limit.rlim_cur = unlimited;
  ::setrlimit(RLIMIT_FSIZE, &limit);
  EXPECT_THAT(outcome, ContainsRegex("^CacheNotWritableError: .*File too large.*HF_HUB_CACHE"));

  // No room for the 200,000 bytes that are missing, with or without what others have left; and room
  // for them, once that is removed.
  const fs::path other = fetching.leave(std::string(150'000, 'x'), 0, kId64);
  ROOM = 300'000;
  EXPECT_THAT(fetching.fetch(), ContainsRegex("^CacheNotWritableError: .* has [0-9]* bytes of "
                                              "room, and the model needs 20[0-9]{4} bytes more"));
  EXPECT_THAT(fetching.hub.store().requests(), SizeIs(1));
  set_age(other, 61);
  ROOM = 310'000;
  EXPECT_EQ(fetching.fetch(), "fetched");
  ROOM = std::uint64_t{1} << 40U;
  fetching.expect_whole();
  EXPECT_THAT(fetching.hub.store().requests().back(), HasSubstr("Range: bytes=100000-"));
}

TEST(FetchModelTest, MendsWhatIsInTheCacheAlready) {
  Fetching fetching;
  ASSERT_EQ(fetching.fetch(), "fetched");
  const fs::path snapshot = fetching.snapshot();
  // A damaged blob of the right length behind a link, a link to nowhere, one to another blob, and
  // a plain file in place of a link.
  write_file(fetching.blob("tokenizer.json"), std::string(5000, 'x'));
  fs::remove(fetching.blob("config.json"));
  fs::remove(snapshot / "modules.json");
  fs::create_symlink("../../blobs/" + fetching.blob("tokenizer_config.json").filename().string(),
                     snapshot / "modules.json");
  write_file(snapshot / "tokenizer_config.json", "{}");
  // Leftovers: garbage is not resumed for ever, and all of it is removed once it is a minute old.
  const fs::path kept = fetching.settings.root / "kept";
  fs::rename(fetching.blob(kWeights), kept);
  fetching.leave(std::string(200'000, 'x'), 0);
  fetching.leave("x", 61, "reference");
  const fs::path young = fetching.leave("x", 30, kId64);
  const fs::path link = fetching.leave("x", 0, "link");
  fs::remove(link);
  fs::create_symlink("nowhere", link);
  set_age(link, 61);
  EXPECT_EQ(fetching.fetch(), "fetched");
  EXPECT_EQ(fetching.files_in_snapshot(), kNeeded);
  EXPECT_THAT(fetching.unfinished(), ElementsAre(young));
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(snapshot / "tokenizer_config.json")));

  // A store that several models share: the blob is itself a link.
  fs::rename(fetching.blob(kWeights), kept);
  fs::create_symlink("../../kept", fetching.blob(kWeights));
  const std::size_t before = fetching.hub.store().requests().size();
  EXPECT_EQ(fetching.fetch(), "fetched");

  // What is there can be checked without the hub.
  const CachedModel found = find_cached_model(fetching.name, fetching.settings);
  check_model(found);
  write_file(fetching.blob("tokenizer.json"), std::string(5000, '1'));
  EXPECT_THAT(failure_of([&] { check_model(found); }), HasSubstr("tokenizer.json: is damaged: "));

  // The branch has moved on.
  fetching.hub.commit = std::string(40, 'd');
  fetching.hub.files["config.json"].content = R"({"model_type":"mpnet"})";
  EXPECT_EQ(fetching.fetch(), "fetched");
  EXPECT_EQ(fetching.files_in_snapshot(), kNeeded);
  EXPECT_EQ(fetching.hub.store().requests().size(), before);
}

/// With a file system that has no links, and where none are wanted.
TEST(FetchModelTest, FetchesWhatTheModelsFilesNameAlsoWithoutLinks) {
  for (const bool are_wanted : {true, false}) {
    Fetching fetching;
    fetching.settings.has_links = are_wanted;
    LINK_ERROR = are_wanted ? EPERM : 0;
    LOCK_ERROR = are_wanted ? ENOLCK : 0;
    auto& files = fetching.hub.files;
    files.erase(kWeights);
    files["model.safetensors.index.json"] = {
        R"({"weight_map":{"a":"one.safetensors","b":"two.safetensors","c":"one.safetensors"}})"};
    files["one.safetensors"] = {weights(201), true};
    files["two.safetensors"] = {weights(202), true};
    files["three.safetensors"] = {"3", true};
    files.erase("tokenizer.json");
    files["vocab.txt"] = {"[UNK]"};
    files["modules.json"] = {modules("Transformer . Pooling ./1_Pooling/ Dense 2_Dense/")};
    files["2_Dense/config.json"] = {"{}"};
    files["2_Dense/model.safetensors"] = {weights(204), true};
    // The two shards at once: none is sent before both have been asked for.
    const std::string dense = FakeHub::id_of(files["2_Dense/model.safetensors"]);
    std::atomic<int> asked = 0;
    fetching.hub.store_fault = [&](Connection& connection) {
      if (connection.path().find(dense) != std::string::npos) return false;
      const Waiting waiting("two shards to be asked for at once");
      ++asked;
      asked.notify_all();
      asked.wait(1);
      return false;
    };
    EXPECT_EQ(fetching.fetch(), "fetched");
    std::set<fs::path> expected = kNeeded;
    expected.erase(kWeights);
    expected.erase("tokenizer.json");
    expected.insert({"model.safetensors.index.json", "one.safetensors", "two.safetensors",
                     "vocab.txt", "2_Dense/config.json", "2_Dense/model.safetensors"});
    EXPECT_EQ(fetching.files_in_snapshot(), expected);
    EXPECT_EQ(fetching.clock.now(), 1000);                  // neither was asked for again
    EXPECT_TRUE(fs::is_empty(fetching.model() / "blobs"));  // moved
    EXPECT_EQ(fetching.fetch(), "fetched");
    LINK_ERROR = LOCK_ERROR = 0;
  }
}

/// While one fetch is midway through the weights, another one begins and ends, and no lock keeps them
/// apart. Either the other cannot get all of the weights, or the one gets a wrong rest.
TEST(FetchModelTest, FetchesThatNoLockKeepsApartDoEachOtherNoHarm) {
  for (const auto& [is_taken_for_leftover, is_other_cut_short] :
       {std::pair(false, false), {false, true}, {true, false}, {true, true}}) {
    SCOPED_TRACE(Message() << is_taken_for_leftover << is_other_cut_short);
    Fetching fetching;
    write_file(fetching.settings.root / ".locks", "in the way of every lock");
    const std::string half = kFiles.at(kWeights).content.substr(0, kWeightBytes / 2);
    std::atomic<int> requests = 0;
    fetching.hub.store_fault = [&](Connection& connection) {
      if (++requests > 1) {
        EXPECT_EQ(fetching.files_in_snapshot().empty(), requests == 2 || is_other_cut_short);
        if (is_other_cut_short) connection.reset();
        return is_other_cut_short;
      }
      connection.send(kWeightsHead + half);
      for (std::uint64_t now; (now = fetching.weights_now) < half.size();) {
        fetching.weights_now.wait(now);
      }
      for (const fs::path& path : fetching.unfinished()) {
        if (is_taken_for_leftover && path.stem().stem() == kWeightsId) set_age(path, 61);
      }
      FetchOptions options = fetching.options;
      FakeClock clock;
      options.clock = &clock;
      EXPECT_THAT(failure_of([&] { fetch_model(fetching.name, fetching.settings, options); }),
                  StartsWith(is_other_cut_short ? "ModelFetchError" : "none"));
      connection.send(is_other_cut_short ? kFiles.at(kWeights).content.substr(half.size()) : half);
      return true;
    };
    EXPECT_EQ(fetching.fetch(), "fetched");
    fetching.expect_whole();
    EXPECT_THAT(fetching.hub.store().requests()[1], HasSubstr("Range: bytes=150000-"));
    EXPECT_EQ(requests, is_other_cut_short ? 5 : 3);
  }
}

TEST(FetchModelTest, LeavesAContentToWhoeverHoldsItsLockAsLongAsThatTakes) {
  Fetching fetching;
  const fs::path leftover = fetching.leave("what the other has of it", -1);
  const fs::path unwanted = fetching.leave("x", 61, kId64);
  std::vector<int> held;
  for (const std::string& id : {kWeightsId, kId64}) {
    const fs::path folder = fetching.settings.root / ".locks" / fetching.model().filename();
    write_file(folder / (id + ".lock"), "");
    held.push_back(::open((folder / (id + ".lock")).c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(::flock(held.back(), LOCK_EX), 0);
  }
  std::once_flag once;
  fetching.options.should_stop = [&] {
    if (fetching.clock.now() < 1000 + 700) return false;
    std::call_once(once, [&] {
      EXPECT_TRUE(fs::exists(leftover));
      write_file(fetching.blob(kWeights), kFiles.at(kWeights).content);
      ::close(held[0]);
    });
    return false;
  };
  EXPECT_EQ(fetching.fetch(), "fetched");
  EXPECT_TRUE(fetching.is_waiting);
  EXPECT_GE(fetching.clock.now(), 1000 + 700);
  EXPECT_THAT(fetching.hub.store().requests(), SizeIs(0));
  EXPECT_THAT(fetching.lines,
              Contains(HasSubstr("Waiting for another process that fetches \"model.")).Times(1));
  EXPECT_THAT(fetching.unfinished(), ElementsAre(unwanted));
  ::close(held[1]);
}

TEST(FetchModelTest, AModelsFolderMayBeALinkAndNoneBelowIt) {
  Fetching fetching;
  const fs::path elsewhere = fetching.settings.root / "../elsewhere";
  fs::create_directories(elsewhere);
  fs::create_directories(fetching.settings.root);
  fs::create_symlink(elsewhere, fetching.model());
  EXPECT_EQ(fetching.fetch(), "fetched");
  fetching.expect_whole();
  const CachedModel found = find_cached_model(fetching.name, fetching.settings);
  EXPECT_EQ(found.allowed_root, fs::canonical(elsewhere));
  check_model(found);

  for (const std::string& name :
       {std::string("blobs"), std::string("refs"), std::string(".no_exist"),
        "snapshots/" + fetching.hub.commit + "/1_Pooling"}) {
    Fetching other;
    fs::create_directories((other.model() / name).parent_path());
    fs::create_directory(other.settings.root / "elsewhere");
    fs::create_directory_symlink(other.settings.root / "elsewhere", other.model() / name);
    EXPECT_THAT(other.fetch(), ContainsRegex("^CacheNotWritableError: .*" + name +
                                             " is a link to another folder"));
    EXPECT_TRUE(fs::is_empty(other.settings.root / "elsewhere"));
    EXPECT_EQ(other.requests(), 2U);  // the commit and the list of its files
  }
}

}  // namespace
}  // namespace tovana::hub
