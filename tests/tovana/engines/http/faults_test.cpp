#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/child_process.h"
#include "tests/support/failing_new.h"
#include "tests/support/failure_text.h"
#include "tests/support/http_server.h"
#include "tests/support/log_recorder.h"
#include "tests/support/manual_clock.h"
#include "tests/support/temp_folder.h"
#include "tovana/engines/http/curl_transport.h"
#include "tovana/engines/http/post_json.h"
#include "tovana/engines/http/reply_sink.h"

/// Where https_proxy leads.
extern tovana::testing::LoopbackSocket https_proxy_socket;

/// What a server, or the way to it, can do wrong, played by a scripted server on loopback and met
/// by the whole client: `post_json` over libcurl. Only the waits between attempts are on a fake
/// clock.
namespace tovana::http {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;
using namespace ::testing;
using namespace tovana::testing;
using Connection = HttpServer::Connection;
using Script = HttpServer::Script;

const std::string kGood = R"({"embeddings":[[1,2.5],[-0.0,1e-3]]})";
constexpr std::string_view kGoodGzipped =
    "\x1f\x8b\x08\0\0\0\0\0\x02\x03\xab\x56\x4a\xcd\x4d\x4a\x4d\x49\xc9\xcc\x4b\x2f\x56\xb2\x8a"
    "\x8e\x36\xd4\x31\xd2\x33\x8d\xd5\x89\xd6\x35\xd0\x33\xd0\x31\x4c\xd5\x35\x8e\x8d\xad\x05\0\xba"
    "\x5c"
    "\xc7\x86\x24\0\0\0"sv;
const std::string kKey = "sk-secret";
const std::string kGzip = "Content-Encoding: gzip\r\n";
// One byte, repeated by 104 bits of deflate for each 2064 more of them.
constexpr std::string_view kBomb = "\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\x03\x63\x18"sv;
constexpr std::string_view kBombRepeat = "\x05\xa3\x60\x14\x8c\x82\x51\x30\x0a\x46\xc1\x28\x18"sv;
const std::string kOk = "HTTP/1.1 200 OK\r\n";
const std::string kChunkedHead = kOk + "Transfer-Encoding: chunked\r\n\r\n";

/// What a call fails with; "none" when it ends with the good reply.
std::string call(Transport& transport, const std::string& url, RetryFields fields = {},
                 const std::string& text = "a", const std::string& key = kKey) {
  FakeClock clock;
  fields.clock = &clock;
  return failure_of([&] {
    const JsonReply reply = post_json(url, {{"texts", {text}}},
                                      {.policy = RetryPolicy(std::move(fields)),
                                       .headers = {{"Authorization", "Bearer " + key}},
                                       .transport = &transport});
    const std::vector<JsonValue> vectors = reply.root().find("embeddings").value().elements();
    EXPECT_EQ(vectors.at(0).numbers(), (std::vector<double>{1, 2.5}));
    EXPECT_EQ(vectors.at(1).numbers(), (std::vector<double>{-0.0, 1e-3}));
  });
}

Script sends(const std::string& bytes) {
  return [bytes](Connection& connection) { connection.send(bytes); };
}

Script sends_and_closes(const std::string& bytes) {
  return [bytes](Connection& connection) {
    connection.body();
    connection.send(bytes);
    connection.close();
  };
}

Script endless(const std::string& start, const std::string& repeated) {
  return [=](Connection& connection) {
    connection.send(start);
    for (int i = 0; i < 20'000; ++i) connection.send(repeated);
  };
}

struct Fault {
  const char* name;
  Script script;
  std::size_t requests;  ///< 3: tried again; 1: not.
  const char* said;      ///< By the failure; "none" when the good reply arrives.
  double timeout_s = 30;
  std::size_t text_size = 1;
};

const Fault kFaults[] = {
    {"accepts, never answers", [](Connection& c) { c.stall(); }, 3, "no byte moved for 0.2 s", 0.2},
    {"a drip longer than the timeout, in head and body",
     [](Connection& c) {
       const std::string lines = "A: 1\r\nB: 2\r\nC: 3\r\nD: 4\r\nE: 5\r\nF: 6\r\nG: 7\r\n";
       c.send_slowly(response(200, kGood, lines), 4, 0.04);
     },
     1, "none", 0.9},
    {"a request taken in more slowly than the timeout",
     [](Connection& c) {
       c.body(0.007);
       c.respond(200, kGood);
     },
     1, "none", 0.9, 12'000'000},
    {"closes without a byte", [](Connection& c) { c.close(); }, 3, "without a response"},
    {"resets without a byte", [](Connection& c) { c.reset(); }, 3, "the connection broke"},
    {"Content-Length too long", sends_and_closes(kOk + "Content-Length: 99\r\n\r\n" + kGood), 3,
     "before the end"},
    {"two Content-Lengths", sends(response(200, kGood, "Content-length: 10\r\n")), 1,
     "two different Content-Length"},
    {"the same Content-Length twice", sends(response(200, kGood, "Content-length: 36\r\n")), 1,
     "none"},
    {"not HTTP", sends_and_closes("SSH-2.0-OpenSSH_9.2\r\n"), 1, "HTTP/0.9"},
    {"interim responses first",
     sends("HTTP/1.1 103 Early\r\nContent-Length: 1\r\n\r\n" + response(200, kGood)), 1, "none"},
    {"endless interim responses", endless("", "HTTP/1.1 102 Processing\r\n\r\n"), 1,
     "256 KB of response headers"},
    {"one endless header", endless(kOk + "X-A: ", "0123456789"), 1, "more than 100 KB"},
    {"a gzip bomb", endless(kOk + kGzip + "\r\n" + std::string(kBomb), std::string(kBombRepeat)), 1,
     "compressed more than 100 times"},
    {"gzip", sends(response(200, kGoodGzipped, kGzip)), 1, "none"},
    {"gzip cut, its length right", sends(response(200, kGoodGzipped.substr(0, 40), kGzip)), 1,
     "not usable JSON"},
    {"not gzip", sends(response(200, kGood, kGzip)), 1, "malformed response"},
    {"413 while the request is being sent", sends(response(413, "{}")), 1, "HTTP 413", 30,
     3'000'000},
    {"a redirect to where it would work", sends(response(307, "", "Location: /good\r\n")), 1,
     "redirects are not followed"},
};

TEST(HttpFaults, EndAsTheyShouldAndLeaveTheTransportUsable) {
  const LogRecorder log;
  const std::size_t descriptors = open_descriptors();
  {
    CurlTransport transport;
    for (const Fault& fault : kFaults) {
      SCOPED_TRACE(fault.name);
      HttpServer server([&](Connection& connection) {
        connection.path() == "/good" ? connection.respond(200, kGood) : fault.script(connection);
      });
      EXPECT_THAT(call(transport, server.url(), {.timeout_s = fault.timeout_s},
                       std::string(fault.text_size, 'a')),
                  AllOf(HasSubstr(fault.said), Not(HasSubstr(kKey))));
      EXPECT_THAT(server.requests(), SizeIs(fault.requests));
      EXPECT_THAT(server.requests().back(),
                  AllOf(Not(HasSubstr("Expect")), HasSubstr("User-Agent: tovana-embedding/")));
      EXPECT_EQ(call(transport, server.url("/good")), "none");
    }
  }
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_THAT(log.records(), IsEmpty());
}

TEST(HttpFaults, AReplyCutAnywhereIsNeverAValue) {
  CurlTransport transport;
  // Some versions of libcurl take chunks for whole when only the very last line feed is missing.
  const std::pair<std::string, std::size_t> cases[] = {
      {response(200, kGood), 0},
      {kChunkedHead + "24\r\n" + kGood + "\r\n0\r\n\r\n", 1},
      {"HTTP/1.1 200 OK\r\n\r\n" + kGood, 0}};
  for (const auto& [whole, spare] : cases) {
    std::atomic<std::size_t> size = 0;
    HttpServer server([&size, &bytes = whole](Connection& connection) {
      connection.body();
      connection.send(std::string_view(bytes).substr(0, size));
      connection.close();
    });
    for (; size + spare < whole.size(); ++size) {
      EXPECT_NE(call(transport, server.url(), {.attempts = 1}), "none")
          << size << " bytes of " << whole;
    }
    size = whole.size();
    EXPECT_EQ(call(transport, server.url(), {.attempts = 1}), "none");
  }
}

TEST(HttpFaults, ADeadConnectionOfEarlierIsReplacedWithoutAnAttempt) {
  CurlTransport transport;
  HttpServer server([](Connection& connection) {
    if (connection.path() == "/reads" && connection.count() == 2) {
      connection.body();
      connection.reset();
    } else {
      connection.respond(200, kGood);
      if (connection.path() == "/counts" && connection.count() == 3) connection.close();
    }
  });
  for (int i = 0; i < 12; ++i) {
    EXPECT_EQ(call(transport, server.url("/counts"), {.attempts = 1}), "none");
  }
  EXPECT_EQ(server.connections(), 4U);  // it is kept alive, and closed after three requests each
  EXPECT_EQ(call(transport, server.url("/reads"), {.attempts = 1}), "none");
  EXPECT_EQ(call(transport, server.url("/reads"), {.attempts = 1}), "none");
  EXPECT_THAT(server.requests(), SizeIs(15));
}

TEST(HttpFaults, TheWayToTheServer) {
  CurlTransport transport;
  const auto [listener, number] = bind_to_loopback();
  const std::string port = std::to_string(number);
  EXPECT_THAT(call(transport, "http://127.0.0.1:" + port),
              AllOf(HasSubstr("after 3 attempts"), HasSubstr("refused: is the server running")));
  EXPECT_THAT(call(transport, "http://[::1]:" + port), HasSubstr("port " + port));  // by no proxy
  ::close(listener);

  // A label of more than 63 characters is no name: the resolver says so without asking anyone.
  const std::string no_name = "http://" + std::string(70, 'a') + ".direct.example/";
  EXPECT_THAT(call(transport, no_name),
              AllOf(HasSubstr("after 3 attempts"), HasSubstr("could not be resolved")));
  const char* const variable = std::getenv("http_proxy");
  ASSERT_NE(variable, nullptr);
  const std::string proxy = variable;
  EXPECT_THAT(call(transport, "http://remote.example/"),
              HasSubstr("port " + proxy.substr(proxy.rfind(':') + 1)));
}

TEST(HttpFaults, AProxyThatRefusesATunnelMayGiveItLater) {
  CurlTransport transport;
  HttpServer proxy(
      [](Connection& connection) {
        const int status = std::stoi(connection.path());  // of https://502.example/
        status == 1 ? connection.close() : connection.respond(status, "");
      },
      nullptr, https_proxy_socket);
  std::size_t requests = 0;
  for (const auto& [status, tries] :
       {std::pair(502, 3U), {503, 3U}, {429, 3U}, {407, 1U}, {403, 1U}, {600, 1U}, {1, 3U}}) {
    const std::string url = "https://" + std::to_string(status) + ".example/";
    const std::string said = status == 1 ? "broke" : "HTTP " + std::to_string(status);
    EXPECT_THAT(call(transport, url), HasSubstr(said));
    EXPECT_THAT(proxy.requests(), SizeIs(requests += tries)) << status;
  }
}

TEST(HttpFaults, NoMessageTellsTheSecretsOfAProxy) {
  // A process of its own for each, since the variable is the process's.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string at_proxy = "://us3r:psec@127.0.0.1:";
  const std::string no_name = "http://us3r:psec@" + std::string(70, 'a');
  struct Case {
    std::string proxy;
    const char* said;
    std::string_view reply = {};
    Ending ending = Ending::dropped;
  };
  const Case cases[] = {
      {no_name, "the proxy's host name could not be resolved"},
      {"http://us3r:psec#ret@[::1", "is malformed"},
      {"x://us3r:psec:ret@127.0.0.1:1", "proxy scheme"},
      {no_name + "psec/ret@h", "could not be resolved"},
      // One that breaks, says that the host cannot be reached, or not by us, or no.
      {"socks5h" + at_proxy, "proxy variables", "\x05"sv},
      {"socks5h" + at_proxy, "proxy variables", "\x05\0\x05\x04\0\x01\0\0\0\0\0\0"sv},
      {"socks5h" + at_proxy, "proxy variables", "\x05\0\x05\x02\0\x01\0\0\0\0\0\0"sv,
       Ending::failed},
      {"socks4a" + at_proxy, "proxy variables", "\0\x5B\0\0\0\0\0\0"sv},
  };
  for (const Case& given : cases) {
    const auto converse = [&given] {
      const HttpServer proxy([&given](Connection& connection) {
        connection.send(given.reply);
        connection.close();
      });
      const std::string port = given.reply.empty() ? "" : std::to_string(proxy.port());
      ::setenv("http_proxy", (given.proxy + port).c_str(), 1);
      CurlTransport transport;
      ReplySink sink(0);
      const Outcome outcome = transport.send({.url = "http://remote.example/"}, sink);
      EXPECT_EQ(outcome.ending, given.ending);
      EXPECT_THAT(outcome.problem, AllOf(HasSubstr(given.said), Not(HasSubstr("psec")),
                                         Not(HasSubstr("ret@")), Not(HasSubstr("us3r"))));
    };
    const auto meet_proxy = [&] {
      converse();  // the proxy's threads have ended before the process does
      ::_exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(meet_proxy(), ::testing::ExitedWithCode(0), "") << given.proxy;
  }
}

TEST(HttpFaults, MalformedRequestsAreNotSent) {
  CurlTransport transport;
  HttpServer server([](Connection& connection) { connection.respond(200, kGood); });
  const std::string port = std::to_string(server.port());
  for (const std::string& key : {"k\r\nX-Injected: yes"s, "k\0k"s, "k\x7F"s}) {
    EXPECT_THAT(call(transport, server.url(), {}, "a", key),
                AllOf(HasSubstr("was not sent"), HasSubstr("Authorization"), Not(HasSubstr(key))));
  }
  for (const std::string& url :
       {server.url("/a b"), server.url("/a\r\nX: y"), "ftp://127.0.0.1/"s, "file:///etc/passwd"s,
        "http://127.0.0.1:99999/"s, "http:///127.0.0.1:" + port, "http://:80/"s, "http://u:p@?"s}) {
    EXPECT_THAT(call(transport, url), HasSubstr("URL")) << url;
  }
  EXPECT_THAT(server.requests(), IsEmpty());
  EXPECT_EQ(call(transport, "HTTP://user:pw@localhost:" + port + "/"), "none");
}

TEST(HttpFaults, Tls) {
  const std::string ca_file = authority_file();
  const std::shared_ptr<SSL_CTX> outdated = server_context();
  SSL_CTX_set_max_proto_version(outdated.get(), TLS1_1_VERSION);
  const std::shared_ptr<SSL_CTX> asking = server_context();
  SSL_CTX_set_verify(asking.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  struct Case {
    std::shared_ptr<SSL_CTX> tls;
    std::string ca_file;
    const char* said;
    double timeout_s = 30;
    Script script = [](Connection& c) { c.path() == "/reset" ? c.reset() : c.respond(200, kGood); };
  };
  const Case cases[] = {
      {server_context(), ca_file, "none"},
      {server_context("other_host"), ca_file, "failed: the server's certificate is not valid"},
      {server_context("expired"), ca_file, "expired"},
      {server_context(), "", "failed: the server's certificate is not valid"},
      {server_context(), "/nonexistent/ca.pem", "trusted certificates cannot be read"},
      {outdated, ca_file, "failed: the server refused the TLS connection"},
      {asking, ca_file, "failed: the server refused the TLS connection"},
      {nullptr, ca_file, "no connection within", 0.2, [](Connection& c) { c.stall(); }},
      {nullptr, ca_file, "failed: no TLS connection"},  // an answer in plain text
      {nullptr, ca_file, "after 3 attempts: the connection broke in the TLS handshake", 30,
       [](Connection& c) { c.close(); }},
      {nullptr, ca_file, "after 3 attempts: the connection broke in the TLS handshake", 30,
       [](Connection& c) { c.reset(); }},
  };
  for (const Case& given : cases) {
    SCOPED_TRACE(&given - cases);
    CurlTransport transport({.ca_file = given.ca_file});
    HttpServer server(given.script, given.tls);
    const std::string url = "https://127.0.0.1:" + std::to_string(server.port());
    EXPECT_THAT(call(transport, url, {.timeout_s = given.timeout_s}), HasSubstr(given.said));
    if (given.said != "none"s) continue;
    // The peer goes while we send: libcurl's or OpenSSL's write must not raise SIGPIPE.
    EXPECT_NE(call(transport, url + "/reset", {}, std::string(8'000'000, 'a')), "none");
    EXPECT_EQ(call(transport, url), "none");
  }
}

TEST(HttpFaults, CaCertificates) {
  const TempFolder folder;
  const std::string root = folder.path().string();
  const std::string missing = root + "/missing";
  const std::string authority = authority_file();
  std::filesystem::create_directories(folder.path() / "hashed");
  std::filesystem::create_symlink(authority, folder.path() / "hashed" / "3387b84d.0");
  write_file(folder.path() / "other" / "ca-bundle.crt", "");
  const std::string hashed = root + "/hashed";
  const std::string other = root + "/other";
  struct Case {
    CaPlace built_in;
    Environment environment;
    std::vector<CaPlace> others;
    std::string said = "none";
  };
  const Case cases[] = {
      // What is named, and nothing else.
      {{}, {{"SSL_CERT_FILE", authority}, {"SSL_CERT_DIR", other}}, {}},
      {{}, {{"SSL_CERT_FILE", missing}, {"SSL_CERT_DIR", other + "::" + hashed}}, {}},
      {{authority},
       {{"SSL_CERT_FILE", "/a\n"}, {"SSL_CERT_DIR", other}},
       {{authority}},
       "correct SSL_CERT_FILE and SSL_CERT_DIR, which name where they should be (looked at "
       "/a\\n, " +
           other + ")"},
      // Then libcurl's own, alone.
      {{hashed, true}, {}, {{authority}}, "the server's certificate is not valid"},
      {{}, {}, {{authority}}, "the server's certificate is not valid"},
      // Of the others, the first.
      {{missing}, {{"SSL_CERT_FILE", ""}}, {{missing}, {other, true}, {authority}}},
      {{missing}, {}, {{missing}, {hashed, true}}},
      {{missing}, {}, {{other, true}}, "SSL_CERT_FILE (looked at " + missing + ", " + other + ")"},
  };
  const auto places_of = [](const Case& given) {
    return CaPlaces{named_ca_places(&given.environment), given.built_in, given.others};
  };
  HttpServer server([](Connection& c) { c.respond(200, kGood); }, server_context());
  const std::string url = "https://127.0.0.1:" + std::to_string(server.port());
  for (const Case& given : cases) {
    SCOPED_TRACE(&given - cases);
    CurlTransport transport({.ca_places = places_of(given)});
    EXPECT_THAT(call(transport, url), HasSubstr(given.said));
  }

  CurlTransport transport({.ca_places = CaPlaces{.built_in = {missing}}});
  HttpServer plain([](Connection& c) { c.respond(200, kGood); });
  EXPECT_EQ(call(transport, plain.url()), "none");
  EXPECT_THAT(call(transport, url), HasSubstr("no CA certificates were found"));
  std::filesystem::create_symlink(authority, missing);
  EXPECT_THAT(call(transport, url), HasSubstr("not valid")) << "installed since";

  set_last_ca_file(authority);
  EXPECT_EQ(system_ca_places().others.back().path, authority);
}

/// Keeps what it is given and asks whether to go on.
struct StringSink final : ResponseSink {
  explicit StringSink(std::function<bool()> test) : goes_on(std::move(test)) {}
  bool body(std::string_view bytes) override {
    text += bytes;
    return goes_on();
  }
  std::string text;
  std::function<bool()> goes_on;
};

TEST(CurlTransport, StreamsIntoASinkThatMayEndIt) {
  CurlTransport transport;
  HttpServer server([](Connection& connection) {
    connection.respond(206, connection.path(), "ETag: \"x\"\r\nLink: a\r\nLink: b\r\n");
  });
  for (const Method method : {Method::get, Method::post}) {
    StringSink sink([] { return true; });
    const Outcome outcome = transport.send(
        {.method = method, .url = server.url("/p"), .headers = {{"Range", "bytes=2-"}}}, sink);
    EXPECT_EQ(outcome.head.status, 206);
    EXPECT_EQ(outcome.head.headers.find("etag")->second, "\"x\"");
    EXPECT_EQ(outcome.head.headers.count("LINK"), 2U);
    EXPECT_EQ(sink.text, "/p");
    EXPECT_THAT(server.requests().back(), HasSubstr("Range: bytes=2-\r\n"));
  }
  StringSink aborting([] { return false; });
  EXPECT_EQ(transport.send({.url = server.url()}, aborting).ending, Ending::aborted);
  StringSink throwing([]() -> bool { throw std::domain_error("full"); });
  EXPECT_THROW(transport.send({.url = server.url()}, throwing), std::domain_error);
  EXPECT_EQ(server.connections(), 2U);  // only what was broken off costs its connection
}

TEST(CurlTransport, BoundsBodiesByTheirDecodedBytesAndTime) {
  const Script chunks = endless(kChunkedHead, "64\r\n" + std::string(100, 'x') + "\r\n");
  HttpServer server([&](Connection& connection) {
    if (connection.path().size() == 4) {  // a status
      connection.send("HTTP/1.1 " + connection.path().substr(1) +
                      " So\r\nContent-Length: 9\r\n\r\n");
      connection.stall();
    }
    if (connection.path() == "/drip") connection.send_slowly(response(200, kGood), 1, 0.05);
    chunks(connection);
    connection.stall();
  });
  CurlTransport transport;
  ReplySink bounded(1'000'000);
  EXPECT_EQ(transport.send({.url = server.url("/chunks")}, bounded).ending, Ending::aborted);
  EXPECT_TRUE(bounded.is_too_large());
  EXPECT_LE(bounded.text().size(), 1'000'000U);
  // Time that is as good as none is not no limit.
  for (const auto& [limit, said] : {std::pair(0.3, "0.3 s"), std::pair(std::nan(""), "0.001 s")}) {
    ReplySink sink(1'000'000);
    const Request request{.url = server.url("/drip"), .total_timeout_s = limit};
    EXPECT_EQ(transport.send(request, sink).problem, "not done after "s + said);
  }
  // The body of an error: a second at most, and its beginning only.
  EXPECT_LE(Request().error_body_timeout_s, 2);
  ReplySink sink(1'000'000);
  for (const auto& [path, said] : {std::pair("/200", "not done after 0.2 s"),
                                   {"/404", "the body of the error did not come within 0.05 s"}}) {
    const Request request{
        .url = server.url(path), .total_timeout_s = 0.2, .error_body_timeout_s = 0.05};
    EXPECT_EQ(transport.send(request, sink).problem, said);
  }
  EXPECT_FALSE(sink.body(std::string(1'000'000, 'x')));
  EXPECT_EQ(sink.text().size(), 16384U);
}

TEST(CurlTransport, ServesManyThreadsWithoutMixingTheirReplies) {
  CurlTransport transport;
  HttpServer server([](Connection& connection) { connection.respond(200, connection.body()); });
  std::atomic<int> right = 0;
  std::vector<std::jthread> threads;
  for (std::int64_t thread = 0; thread < 64; ++thread) {
    threads.emplace_back([&, thread] {
      for (std::int64_t number = 20 * thread; number < 20 * thread + 20; ++number) {
        const JsonReply reply =
            post_json(server.url(), {{"number", number}}, {.transport = &transport});
        right += std::get<std::int64_t>(reply.root().find("number")->number()) == number;
      }
    });
  }
  threads.clear();
  EXPECT_EQ(right, 64 * 20);
  EXPECT_LT(server.connections(), 64 * 20 / 4U);
}

TEST(CurlTransport, ClosesIdleConnectionsOfAllSlotsWithTheNextCall) {
  FakeClock clock;
  CurlTransport transport({.clock = &clock});
  std::atomic<int> begun = 0;
  std::atomic<bool> closes = false;
  HttpServer server([&](Connection& connection) {
    const bool is_burst = connection.path() == "/burst";
    begun += is_burst;
    // All three have a connection of their own.
    while (is_burst && begun % 3 != 0) std::this_thread::yield();
    connection.body();
    connection.respond(200, kGood);
    if (closes) connection.close();
  });
  HttpServer other([](Connection& connection) { connection.respond(200, kGood); });
  const auto burst = [&] {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([&] { EXPECT_EQ(call(transport, server.url("/burst")), "none"); });
    }
    threads.clear();
    server.settle();
  };
  const std::size_t none = open_descriptors();
  closes = true;
  burst();
  // A slot has its end of the connection, which the server closed, and some of libcurl's own.
  const std::size_t slot = (open_descriptors() - none) / 3;
  EXPECT_EQ(call(transport, other.url()), "none");
  EXPECT_EQ(open_descriptors(), none + slot + 1);

  closes = false;
  burst();
  const std::size_t opened = server.connections();
  for (int i = 0; i < 2; ++i) {
    clock.advance(59);
    EXPECT_EQ(call(transport, server.url()), "none");
    EXPECT_EQ(server.connections(), opened);
  }
  burst();
  EXPECT_EQ(server.connections(), opened + 2);  // only the one that calls went over is left
}

TEST(CurlTransport, AForkedChildLeavesItsParentsConnectionsAlone) {
  FakeClock clock;
  CurlTransport transport({.ca_file = authority_file(), .clock = &clock});
  HttpServer server([](Connection& connection) { connection.respond(200, kGood); },
                    server_context());
  EXPECT_EQ(call(transport, server.url()), "none");
  EXPECT_EQ(run_in_child([&] {
              const bool is_good = call(transport, server.url()) == "none";
              transport.~CurlTransport();
              return is_good ? 0 : 1;
            }),
            0);
  EXPECT_EQ(server.connections(), 2U);
  EXPECT_EQ(call(transport, server.url(), {.attempts = 1}), "none");
  EXPECT_EQ(server.connections(), 2U);

  // Forked in the middle of a call, when as many other slots are idle as are kept.
  int idle = 0;
  const std::function<bool()> fill = [&] {
    StringSink sink(fill);
    return ++idle > 16 || transport.send({.url = server.url()}, sink).ending == Ending::complete;
  };
  pid_t child = -1;
  StringSink forking([&] {
    EXPECT_TRUE(fill());
    child = ::fork();
    if (child == 0) return true;
    EXPECT_EQ(::waitpid(child, nullptr, 0), child);
    clock.advance(100);  // makes room for this slot among the idle ones
    return call(transport, server.url()) == "none";
  });
  transport.send({.url = server.url()}, forking);
  if (child == 0) ::_exit(0);
  const std::size_t connections = server.connections();
  StringSink both([&] { return call(transport, server.url()) == "none"; });
  EXPECT_EQ(transport.send({.url = server.url()}, both).ending, Ending::complete);
  EXPECT_EQ(server.connections(), connections);
}

/// What exit comes to in the end, behind all that libraries clean up there.
std::function<int()>* last_of_exit = nullptr;

[[gnu::constructor(101)]] void register_before_all_others() {
  static_cast<void>(std::atexit([] {
    if (last_of_exit != nullptr) ::_exit((*last_of_exit)());
  }));
}

TEST(CurlTransport, GoesOnWhileTheProcessExits) {
  HttpServer server(sends_and_closes(response(200, "[1]")), server_context());
  CurlTransport transport({.ca_file = authority_file()});
  std::function<int()> call_again = [&] {
    return post_json(server.url(), {{"a", 1}}, {.transport = &transport}).root().numbers()[0] != 1;
  };
  EXPECT_EQ(run_in_child([&]() -> int {
              call_again();
              last_of_exit = &call_again;
              std::exit(2);
            }),
            0);
}

TEST(CurlTransport, SurvivesEveryFailedAllocation) {
  CurlTransport transport;
  HttpServer server([](Connection& connection) { connection.respond(200, kGood, "X-A: b\r\n"); });
  const std::string url = server.url();
  const nlohmann::ordered_json body = {{"texts", {"a"}}};
  const PostOptions options{.headers = {{"Authorization", "Bearer " + kKey}},
                            .transport = &transport};
  int allocations = 0;
  for (bool has_struck = true; has_struck; ++allocations) {
    ASSERT_LT(allocations, 2000);
    try {
      const FailingNew failing(allocations);
      has_struck = false;
      const JsonReply reply = post_json(url, body, options);
      has_struck = failing.has_struck();
    } catch (const std::bad_alloc&) {
      has_struck = true;
    }
    ASSERT_EQ(call(transport, url, {.attempts = 1}), "none") << allocations;
  }
  EXPECT_GT(allocations, 20);
}

}  // namespace
}  // namespace tovana::http
