#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "tests/support/http_server.h"

namespace tovana::testing {

/// A model hub on loopback with one repository, and the host that it sends clients to for large
/// files. It answers as the real one does: a commit for a revision, listings in pages, 307 to its
/// own cache for small files, 302 to a signed URL elsewhere for large ones, ranges, error codes.
class FakeHub {
 public:
  struct File {
    std::string content;
    bool is_large = false;  ///< Kept as LFS files are: named by SHA-256, served by the other host.
    std::string id = {};    ///< The hash, if it is not to be worked out for each request.
  };
  using Connection = HttpServer::Connection;

  /// May answer in place of the hub, or of its other host: returns whether it did.
  using Fault = std::function<bool(Connection& connection)>;

  std::string repo_id = "sentence-transformers/tiny";
  std::string commit = std::string(40, 'c');
  std::map<std::string, File> files;
  std::size_t page_size = 1000;
  Fault hub_fault = nullptr;
  Fault store_fault = nullptr;

  /// With a context the hub speaks TLS; the other host never does. The members may be changed
  /// before the first request, and after `settle` until the next.
  explicit FakeHub(std::shared_ptr<SSL_CTX> tls = nullptr);

  std::string url() const;
  /// Returns once no request is being answered.
  void settle() const {
    _hub.settle();
    _store.settle();
  }
  const HttpServer& hub() const { return _hub; }
  const HttpServer& store() const { return _store; }

  static std::string id_of(const File& file);
  /// What the listing says of one file.
  static std::string entry(std::string_view path, std::string_view id, std::uint64_t size,
                           bool is_large);

 private:
  void answer(Connection& connection);
  void answer_store(Connection& connection);
  void send_info(Connection& connection);
  void send_listing(Connection& connection, std::string_view query);
  void send_file(Connection& connection, const std::string& name);

  HttpServer _store;
  HttpServer _hub;
};

}  // namespace tovana::testing
