#include <chrono>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/certificates.h"
#include "tests/support/http_server.h"
#include "tovana/engines/http/curl_transport.h"
#include "tovana/engines/http/post_json.h"

/// A process may exit with its own status while threads of it are in calls over TLS.
/// Usage: exit_during_calls RUNS CA_FILE; each run is a child process that exits at a moment of its
/// own.
namespace {

using namespace tovana;

constexpr int kOwnStatus = 42;
constexpr int kThreads = 4;

/// Leaves everything to the end of the process, as the process-wide transport does.
[[noreturn]] void exit_during_calls(const std::string& ca_file, unsigned seed) {
  const tovana::testing::Certificate authority;
  authority.write(ca_file);
  const auto* const server = new tovana::testing::HttpServer(
      [](tovana::testing::HttpServer::Connection& connection) { connection.respond(200, "[]"); },
      tovana::testing::Certificate(authority, {}).server_context());
  auto* const transport = new http::CurlTransport({.ca_file = ca_file});
  for (int i = 0; i < kThreads; ++i) {
    std::thread([url = server->url(), transport] {
      for (;;) http::post_json(url, {{"a", 1}}, {.transport = transport});
    }).detach();
  }
  std::mt19937 random(seed);
  std::this_thread::sleep_for(std::chrono::microseconds(random() % 30'000));
  std::exit(kOwnStatus);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const int runs = std::stoi(argv[1]);
  for (int run = 0; run < runs; ++run) {
    const pid_t child = ::fork();
    if (child == 0) exit_during_calls(argv[2], static_cast<unsigned>(run));
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != kOwnStatus) {
      std::cerr << "run " << run << " of " << runs << " ended with wait status " << status << "\n";
      return 1;
    }
  }
  return 0;
}
