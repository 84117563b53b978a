#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

/// Every test runs with proxy variables that lead nowhere: to a port that is taken, and so free of
/// servers, but not listened on. They are set here, while there is only one thread.
int main(int argc, char** argv) {
  const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (::bind(socket, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
      ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    return 1;
  }
  const std::string proxy = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  for (const char* variable : {"http_proxy", "https_proxy", "ALL_PROXY"}) {
    ::setenv(variable, proxy.c_str(), 1);
  }
  for (const char* variable : {"NO_PROXY", "all_proxy", "HTTPS_PROXY"}) ::unsetenv(variable);
  ::setenv("no_proxy", ".direct.example", 1);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
