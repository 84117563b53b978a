#include <csignal>
#include <filesystem>
#include <future>
#include <string>
#include <system_error>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_hub.h"
#include "subprocess.h"
#include "tests/support/temp_folder.h"

namespace tovana::testing {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::SizeIs;

class TovanaEmbedPull : public ::testing::Test {
 protected:
  TovanaEmbedPull() {
    hub.files = {{"config.json", {"{}"}},
                 {"tokenizer.json", {"{}"}},
                 {"model.safetensors", {std::string(3'000'000, 'w'), true}}};
  }

  std::vector<std::string> command(const std::string& arguments) const {
    hub.settle();  // its threads then see what has been changed of it
    return tool({"HF_ENDPOINT=" + hub.url(), "HF_HUB_CACHE=" + cache}, split("pull " + arguments));
  }

  /// Whether a part of the weights is on the disk.
  bool keeps_a_part() const {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.path())) {
      std::error_code vanished;
      const auto size = entry.file_size(vanished);
      if (!vanished && size > 1000) return true;
    }
    return false;
  }

  TempFolder folder;
  std::string cache = (folder.path() / "hub").string();
  FakeHub hub;
};

TEST_F(TovanaEmbedPull, FetchesOnceAndPrintsTheFolder) {
  const ProcessResult fetched = run(command("tiny"));
  EXPECT_EQ(fetched.status, 0);
  EXPECT_EQ(fetched.output,
            cache + "/models--sentence-transformers--tiny/snapshots/" + hub.commit + "\n");
  EXPECT_THAT(fetched.errors, AllOf(HasSubstr("fetching the model sentence-transformers/tiny\n"),
                                    HasSubstr("  config.json: 2 bytes\n"),
                                    HasSubstr("  model.safetensors: 3.0 MB\n")));
  EXPECT_THAT(fetched.errors, ::testing::Not(HasSubstr("\r")));

  const std::size_t requests = hub.hub().requests().size();
  for (const char* arguments : {"tiny", "--offline tiny"}) {
    const ProcessResult found = run(command(arguments));
    EXPECT_EQ(found.status, 0);
    EXPECT_EQ(found.output, fetched.output);
    EXPECT_EQ(found.errors, "");
  }
  EXPECT_THAT(hub.hub().requests(), SizeIs(requests));
}

TEST_F(TovanaEmbedPull, SaysInOneLineWhyItCannot) {
  const struct {
    const char* arguments;
    int status;
    const char* said;
  } cases[] = {
      {"--offline tiny", 69, "is not in the cache"},
      {"nobody/nothing", 69, "the model nobody/nothing does not exist"},
      {"a/b/c", 64, "neither a repository"},
      {"", 64, "MODEL"},
  };
  for (const auto& [arguments, status, said] : cases) {
    const ProcessResult result = run(command(arguments));
    EXPECT_EQ(result.status, status) << result.errors;
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, HasSubstr(said));
    EXPECT_EQ(result.errors.find('\n'), result.errors.size() - 1) << result.errors;
  }
  write_file(cache, "in the way");
  const ProcessResult result = run(command("tiny"));
  EXPECT_EQ(result.status, 74);
  EXPECT_THAT(result.errors, HasSubstr("cannot be written to"));
}

TEST_F(TovanaEmbedPull, AnInterruptEndsItAndTheNextGoesOn) {
  std::promise<void> half_sent;
  hub.store_fault = [&](HttpServer::Connection& connection) {
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 3000000\r\n\r\n" +
                    std::string(1'000'000, 'w'));
    half_sent.set_value();
    connection.stall();
    return true;
  };
  Subprocess process(command("tiny"));
  half_sent.get_future().wait();
  while (!keeps_a_part()) {
  }
  process.signal(SIGINT);
  EXPECT_EQ(process.finish().status, 130);
  hub.settle();
  hub.store_fault = nullptr;
  EXPECT_EQ(run(command("tiny")).status, 0);
  EXPECT_THAT(hub.store().requests().back(), HasSubstr("Range: bytes="));
}

TEST_F(TovanaEmbedPull, DrawsABarOnATerminal) {
  hub.store_fault = [this](HttpServer::Connection& connection) {
    connection.send_slowly(response(200, hub.files.at("model.safetensors").content), 500'000, 0.11);
    return true;
  };
  std::string line = "exec";
  for (const std::string& word : command("tiny")) line += " '" + word + "'";
  const ProcessResult result = run({"/usr/bin/script", "-qefc", line, "/dev/null"});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.output, AllOf(HasSubstr("\r[####"), HasSubstr(" of 3.0 MB, "),
                                   HasSubstr(" MB/s, 0:"), HasSubstr(" left")));
}

}  // namespace
}  // namespace tovana::testing
