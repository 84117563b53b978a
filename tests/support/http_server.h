#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <openssl/ssl.h>

#include "tovana/base/condition_variable.h"
#include "tovana/base/mutex.h"

namespace tovana::testing {

/// A TCP socket bound to a loopback port that was free, and is refused to clients until it listens.
struct LoopbackSocket {
  int socket;
  int port;
};
LoopbackSocket bind_to_loopback();

/// An HTTP/1.1 server on a loopback port that the kernel chooses. It knows how to read requests;
/// what is sent back, byte by byte, and what is done to the connection is the script's business.
class HttpServer {
 public:
  class Connection;

  /// Plays the server's part for one request, whose head has been read. Runs on the connection's
  /// own thread. Unless it closed the connection, the next request on it is read afterwards.
  using Script = std::function<void(Connection&)>;

  /// With a context it speaks TLS. Without one, the beginning of a TLS handshake, or of one with a
  /// SOCKS proxy, counts as a request. The socket is closed in the end.
  explicit HttpServer(Script script, std::shared_ptr<SSL_CTX> tls = nullptr,
                      LoopbackSocket at = bind_to_loopback());
  /// Ends all connections, whatever their scripts are doing.
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  std::string url(std::string_view path = "/") const;
  int port() const { return _port; }

  std::size_t connections() const;
  /// Returns once no script is running: what they use may be changed.
  void settle() const;
  /// The heads of all requests, in order of arrival.
  std::vector<std::string> requests() const;

 private:
  void accept_connections();
  void serve(Connection& connection);

  Script _script;
  std::shared_ptr<SSL_CTX> _tls;
  int _listener;
  int _port;
  mutable Mutex _mutex;
  bool _is_stopping TOVANA_GUARDED_BY(_mutex) = false;
  int _running_scripts TOVANA_GUARDED_BY(_mutex) = 0;
  mutable ConditionVariable _script_ended;
  std::vector<std::string> _requests TOVANA_GUARDED_BY(_mutex);
  std::list<Connection> _connections TOVANA_GUARDED_BY(_mutex);
  std::thread _acceptor;
};

/// One connection, as its script sees it. What cannot be sent because the client has gone is
/// dropped.
class HttpServer::Connection {
 public:
  Connection(int socket, SSL_CTX* tls);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  const std::string& head() const { return _head; }
  std::string path() const;
  /// How many requests have been read from this connection, the present one included.
  int count() const { return _count; }
  /// Reads the body by its Content-Length, `gap_s` seconds after each 64 KB. If a script does not,
  /// it is read after it.
  const std::string& body(double gap_s = 0);

  void send(std::string_view bytes);
  /// In pieces of `size` bytes, `gap_s` seconds apart.
  void send_slowly(std::string_view bytes, std::size_t size, double gap_s);
  /// A whole response with its Content-Length; `headers` are lines with their ends.
  void respond(int status, std::string_view body, std::string_view headers = {});

  /// Does nothing until the client goes or `seconds` have passed.
  void pause(double seconds);
  void stall() { pause(-1); }
  void close();
  /// Closes with an RST in place of a FIN.
  void reset();

 private:
  friend class HttpServer;
  bool read_more();
  bool read_head();
  /// From another thread: wakes this one from whatever it waits for.
  void hang_up();

  Mutex _closing;            ///< So that `hang_up` does not meet another socket of the same number.
  std::atomic<int> _socket;  ///< -1 once closed.
  std::unique_ptr<SSL, decltype(&SSL_free)> _tls;
  std::string _received;  ///< Read, and not yet part of a head or body.
  std::string _head;
  std::string _body;
  bool _has_body = false;
  int _count = 0;
  std::thread _thread;
};

/// The PEM file of the authority that signed the certificates of the servers.
std::string authority_file();

/// The context of a server that shows one of them: "server", which is valid for 127.0.0.1,
/// "other_host" or "expired".
std::shared_ptr<SSL_CTX> server_context(const std::string& name = "server");

/// The response that `Connection::respond` sends.
std::string response(int status, std::string_view body, std::string_view headers = {});

/// How many file descriptors this process has open.
std::size_t open_descriptors();

}  // namespace tovana::testing
