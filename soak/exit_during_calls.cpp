#include <chrono>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include "soak/exit_runs.h"
#include "tests/support/http_server.h"
#include "tovana/engines/http/curl_transport.h"
#include "tovana/engines/http/post_json.h"

/// A process may exit with its own status while threads of it are in calls over TLS.
/// Usage: exit_during_calls RUNS; each run is a child process that exits at a moment of its
/// own.
namespace {

using namespace tovana;

constexpr int kThreads = 4;

/// Leaves everything to the end of the process, as the process-wide transport does.
[[noreturn]] void exit_during_calls(unsigned seed) {
  const auto* const server = new tovana::testing::HttpServer(
      [](tovana::testing::HttpServer::Connection& connection) { connection.respond(200, "[]"); },
      tovana::testing::server_context());
  auto* const transport = new http::CurlTransport({.ca_file = tovana::testing::authority_file()});
  for (int i = 0; i < kThreads; ++i) {
    std::thread([url = server->url(), transport] {
      for (;;) http::post_json(url, {{"a", 1}}, {.transport = transport});
    }).detach();
  }
  tovana::soak::exit_within(std::chrono::milliseconds(30), seed);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  return tovana::soak::check_exits(std::stoi(argv[1]), &exit_during_calls);
}
