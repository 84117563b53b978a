#include "tests/support/http_server.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tovana/base/libcrypto.h"
#include "tovana/engines/http/sigpipe_guard.h"

namespace tovana::testing {
namespace {

constexpr std::string_view kHeadEnd = "\r\n\r\n";

}  // namespace

std::string response(int status, std::string_view body, std::string_view headers) {
  return "HTTP/1.1 " + std::to_string(status) +
         " Scripted\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
         std::string(headers) + "\r\n" + std::string(body);
}

std::string authority_file() { return TOVANA_TEST_CERTIFICATES "/authority.pem"; }

std::shared_ptr<SSL_CTX> server_context(const std::string& name) {
  initialize_libcrypto();
  const std::string file = TOVANA_TEST_CERTIFICATES "/" + name + ".pem";  // with its key
  std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free);
  if (SSL_CTX_use_certificate_file(context.get(), file.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_use_PrivateKey_file(context.get(), file.c_str(), SSL_FILETYPE_PEM) != 1) {
    throw std::runtime_error("cannot read " + file);
  }
  return context;
}

LoopbackSocket bind_to_loopback() {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(socket, generic, size) != 0 || ::getsockname(socket, generic, &size) != 0) {
    throw std::runtime_error("cannot bind to a loopback port");
  }
  return {socket, ntohs(address.sin_port)};
}

std::size_t open_descriptors() {
  const std::filesystem::directory_iterator open("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(open), end(open)));
}

HttpServer::HttpServer(Script script, std::shared_ptr<SSL_CTX> tls, LoopbackSocket at)
    : _script(std::move(script)), _tls(std::move(tls)), _listener(at.socket), _port(at.port) {
  if (::listen(_listener, 128) != 0) throw std::runtime_error("cannot listen on loopback");
  _acceptor = std::thread(&HttpServer::accept_connections, this);
}

HttpServer::~HttpServer() {
  std::list<Connection> connections;
  {
    const LockGuard lock(_mutex);
    _is_stopping = true;
    connections.swap(_connections);
  }
  ::shutdown(_listener, SHUT_RDWR);
  _acceptor.join();
  ::close(_listener);
  for (Connection& connection : connections) {
    connection.hang_up();
    connection._thread.join();
  }
}

std::string HttpServer::url(std::string_view path) const {
  return (_tls ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(_port) +
         std::string(path);
}

std::size_t HttpServer::connections() const {
  const LockGuard lock(_mutex);
  return _connections.size();
}

void HttpServer::settle() const {
  const LockGuard lock(_mutex);
  while (_running_scripts > 0) _script_ended.wait(_mutex);
}

std::vector<std::string> HttpServer::requests() const {
  const LockGuard lock(_mutex);
  return _requests;
}

void HttpServer::accept_connections() {
  for (;;) {
    const int socket = ::accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) return;
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const LockGuard lock(_mutex);
    if (_is_stopping) {
      ::close(socket);
      return;
    }
    Connection& connection = _connections.emplace_back(socket, _tls.get());
    connection._thread = std::thread([this, &connection] { serve(connection); });
  }
}

void HttpServer::serve(Connection& connection) {
  const http::SigpipeGuard guard;
  // A client whose handshake has failed reads why and goes.
  if (connection._tls && SSL_accept(connection._tls.get()) != 1) connection.stall();
  while (connection.read_head()) {
    {
      const LockGuard lock(_mutex);
      _requests.push_back(connection._head);
      ++_running_scripts;
    }
    _script(connection);
    connection.body();
    const LockGuard lock(_mutex);
    --_running_scripts;
    _script_ended.notify_all();
  }
  connection.close();
}

HttpServer::Connection::Connection(int socket, SSL_CTX* tls)
    : _socket(socket), _tls(tls != nullptr ? SSL_new(tls) : nullptr, &SSL_free) {
  if (_tls) SSL_set_fd(_tls.get(), socket);
}

HttpServer::Connection::~Connection() { close(); }

std::string HttpServer::Connection::path() const {
  const std::size_t start = _head.find(' ') + 1;
  return _head.substr(start, _head.find(' ', start) - start);
}

const std::string& HttpServer::Connection::body(double gap_s) {
  if (_has_body) return _body;
  _has_body = true;
  constexpr std::string_view kLength = "Content-Length: ";
  const std::size_t field = _head.find(kLength);
  if (field == std::string::npos) return _body;
  const std::size_t size = std::strtoul(_head.c_str() + field + kLength.size(), nullptr, 10);
  while (_received.size() < size && read_more()) {
    if (gap_s > 0) pause(gap_s);
  }
  _body = _received.substr(0, size);
  _received.erase(0, size);
  return _body;
}

bool HttpServer::Connection::read_head() {
  std::size_t end = 0;
  while ((end = _received.find(kHeadEnd)) == std::string::npos) {
    if (!read_more()) return false;
    const bool is_handshake =
        !_tls && std::string_view("\x16\x04\x05").find(_received.front()) != std::string_view::npos;
    if (is_handshake) _received += kHeadEnd;
  }
  _head = _received.substr(0, end + kHeadEnd.size());
  _received.erase(0, _head.size());
  _body.clear();
  _has_body = false;
  ++_count;
  return true;
}

bool HttpServer::Connection::read_more() {
  if (_socket < 0) return false;
  char buffer[1 << 16];
  const auto size = _tls ? SSL_read(_tls.get(), buffer, sizeof buffer)
                         : ::recv(_socket, buffer, sizeof buffer, 0);
  if (size <= 0) return false;
  _received.append(buffer, static_cast<std::size_t>(size));
  return true;
}

void HttpServer::Connection::send(std::string_view bytes) {
  while (!bytes.empty() && _socket >= 0) {
    const auto size = _tls ? SSL_write(_tls.get(), bytes.data(), static_cast<int>(bytes.size()))
                           : ::send(_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (size <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(size));
  }
}

void HttpServer::Connection::send_slowly(std::string_view bytes, std::size_t size, double gap_s) {
  for (std::size_t start = 0; start < bytes.size(); start += size) {
    if (start > 0 && gap_s > 0) pause(gap_s);
    send(bytes.substr(start, size));
  }
}

void HttpServer::Connection::respond(int status, std::string_view body, std::string_view headers) {
  send(response(status, body, headers));
}

void HttpServer::Connection::pause(double seconds) {
  pollfd gone{_socket, POLLRDHUP, 0};
  ::poll(&gone, 1, seconds < 0 ? -1 : static_cast<int>(seconds * 1000));
}

void HttpServer::Connection::close() {
  const LockGuard lock(_closing);
  const int socket = _socket.exchange(-1);
  if (socket >= 0) ::close(socket);
}

void HttpServer::Connection::reset() {
  const linger drop_all{.l_onoff = 1, .l_linger = 0};
  ::setsockopt(_socket, SOL_SOCKET, SO_LINGER, &drop_all, sizeof drop_all);
  close();
}

void HttpServer::Connection::hang_up() {
  const LockGuard lock(_closing);
  if (_socket >= 0) ::shutdown(_socket, SHUT_RDWR);
}

}  // namespace tovana::testing
