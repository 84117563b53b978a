#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/http_server.h"

/// Every test runs with proxy variables that lead nowhere: to a port that is taken, and so free of
/// servers, but not listened on. They are set here, while there is only one thread.
int main(int argc, char** argv) {
  const std::string proxy =
      "http://127.0.0.1:" + std::to_string(tovana::testing::bind_to_loopback().port);
  for (const char* variable : {"http_proxy", "https_proxy", "ALL_PROXY"}) {
    ::setenv(variable, proxy.c_str(), 1);
  }
  for (const char* variable : {"NO_PROXY", "all_proxy", "HTTPS_PROXY"}) ::unsetenv(variable);
  ::setenv("no_proxy", ".direct.example", 1);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
