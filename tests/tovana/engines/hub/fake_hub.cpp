#include "tests/tovana/engines/hub/fake_hub.h"

#include <cstdlib>
#include <utility>

#include "tovana/engines/hub/partial_blob.h"

namespace tovana::testing {
namespace {

using Connection = HttpServer::Connection;

void respond(Connection& connection, int status, std::string_view body,
             const std::string& headers) {
  const std::string whole = response(status, body, headers);
  const bool is_head = connection.head().starts_with("HEAD ");
  connection.send(std::string_view(whole).substr(0, whole.size() - (is_head ? body.size() : 0)));
}

/// Sends a content, or the range of it that is asked for.
void send_content(Connection& connection, const std::string& content, const std::string& headers) {
  constexpr std::string_view kRange = "Range: bytes=";
  const std::size_t range = connection.head().find(kRange);
  if (range == std::string::npos) return respond(connection, 200, content, headers);
  const std::size_t first = std::stoul(connection.head().substr(range + kRange.size()));
  const std::string size = std::to_string(content.size());
  if (first >= content.size()) {
    return respond(connection, 416, "", "Content-Range: bytes */" + size + "\r\n");
  }
  respond(connection, 206, std::string_view(content).substr(first),
          headers + "Content-Range: bytes " + std::to_string(first) + "-" +
              std::to_string(content.size() - 1) + "/" + size + "\r\n");
}

void refuse(Connection& connection, int status, const std::string& code) {
  respond(connection, status, R"({"error":"no"})", "X-Error-Code: " + code + "\r\n");
}

std::string hash(const FakeHub::File& file, std::size_t digits) {
  hub::ContentHash hash(std::string(digits, '0'), file.content.size());
  hash.update(file.content);
  return hash.finish();
}

}  // namespace

FakeHub::FakeHub(std::shared_ptr<SSL_CTX> tls)
    : _store([this](Connection& connection) { answer_store(connection); }),
      _hub([this](Connection& connection) { answer(connection); }, std::move(tls)) {}

std::string FakeHub::url() const {
  const std::string url = _hub.url();
  return url.substr(0, url.size() - 1);
}

std::string FakeHub::id_of(const File& file) {
  return file.id.empty() ? hash(file, file.is_large ? 64 : 40) : file.id;
}

std::string FakeHub::entry(std::string_view path, std::string_view id, std::uint64_t size,
                           bool is_large) {
  const std::string number = R"(","size":)" + std::to_string(size);
  // A large file's own id and size are those of the pointer that lies in the repository.
  const std::string own = is_large ? std::string(40, 'a') : std::string(id);
  const std::string lfs =
      R"(,"lfs":{"oid":")" + std::string(id) + number + R"(,"pointerSize":134})";
  return R"({"type":"file","path":")" + std::string(path) + number + R"(,"oid":")" + own + "\"" +
         (is_large ? lfs : "") + "}";
}

void FakeHub::answer(Connection& connection) {
  if (hub_fault && hub_fault(connection)) return;
  const std::string target = connection.path();
  const std::string path = target.substr(0, target.find('?'));
  const std::string info = "/api/models/" + repo_id;
  const std::string cache = "/api/resolve-cache/models/" + repo_id + "/" + commit + "/";
  if (path == info || path == info + "/revision/main") return send_info(connection);
  if (path.starts_with(info + "/revision/")) return refuse(connection, 404, "RevisionNotFound");
  if (path == info + "/tree/" + commit || path == info + "/tree/main") {
    return send_listing(connection, std::string_view(target).substr(path.size()));
  }
  if (path.starts_with(cache) && files.contains(path.substr(cache.size()))) {
    const File& file = files.at(path.substr(cache.size()));
    return send_content(connection, file.content,
                        "ETag: \"" + id_of(file) + "\"\r\nX-Repo-Commit: " + commit + "\r\n");
  }
  for (const std::string& revision : {commit, std::string("main")}) {
    const std::string prefix = "/" + repo_id + "/resolve/" + revision + "/";
    if (path.starts_with(prefix)) return send_file(connection, path.substr(prefix.size()));
  }
  refuse(connection, 401, "RepoNotFound");
}

void FakeHub::answer_store(Connection& connection) {
  if (store_fault && store_fault(connection)) return;
  for (const auto& [name, file] : files) {
    if (connection.path().starts_with("/" + id_of(file) + "?")) {
      return send_content(connection, file.content, "ETag: \"0xSTORE\"\r\n");
    }
  }
  respond(connection, 403, "<Error>AccessDenied</Error>", "");
}

void FakeHub::send_info(Connection& connection) {
  std::string siblings;
  for (const auto& [name, file] : files) {
    siblings += (siblings.empty() ? "" : ",") + (R"({"rfilename":")" + name + "\"}");
  }
  respond(connection, 200,
          R"({"id":")" + repo_id + R"(","sha":")" + commit + R"(","siblings":[)" + siblings + "]}",
          "Content-Type: application/json\r\n");
}

void FakeHub::send_listing(Connection& connection, std::string_view query) {
  const std::size_t cursor = query.find('=', query.find("cursor"));
  const std::size_t start =
      cursor == std::string_view::npos ? 0 : std::stoul(std::string(query.substr(cursor + 1)));
  std::string page = R"([{"type":"directory","path":"1_Pooling","size":0,"oid":"d"})";
  std::size_t number = 0;
  for (const auto& [name, file] : files) {
    if (number >= start && number < start + page_size) {
      page += "," + entry(name, id_of(file), file.content.size(), file.is_large);
    }
    ++number;
  }
  std::string headers;
  if (number > start + page_size) {
    headers = "Link: <" + url() + "/api/models/" + repo_id + "/tree/" + commit +
              "?recursive=true&expand=false&cursor=" + std::to_string(start + page_size) +
              ">; rel=\"next\"\r\n";
  }
  respond(connection, 200, page + "]", headers);
}

void FakeHub::send_file(Connection& connection, const std::string& name) {
  const auto found = files.find(name);
  if (found == files.end()) {
    return respond(connection, 404, "Entry not found",
                   "X-Error-Code: EntryNotFound\r\nX-Repo-Commit: " + commit + "\r\n");
  }
  const File& file = found->second;
  const std::string id = id_of(file);
  std::string headers = "X-Repo-Commit: " + commit + "\r\nX-Linked-Etag: \"" + id +
                        "\"\r\nX-Linked-Size: " + std::to_string(file.content.size()) + "\r\n";
  if (!file.is_large) {
    return respond(connection, 307, "Temporary Redirect",
                   headers + "Location: /api/resolve-cache/models/" + repo_id + "/" + commit + "/" +
                       name + "?%2F" + name + "=&etag=%22" + id + "%22\r\n");
  }
  respond(connection, 302, "Found. Redirecting",
          headers + "Location: " + _store.url("/" + id + "?Signature=s3cret&Expires=1") + "\r\n");
}

}  // namespace tovana::testing
