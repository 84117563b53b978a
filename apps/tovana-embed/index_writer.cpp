#include "index_writer.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <utility>

#include <unistd.h>

#include "failure.h"

namespace tovana::tool {
namespace {

static_assert(std::endian::native == std::endian::little, "numbers are stored as in memory");

constexpr double kReadersWaitS = 0.5;

[[noreturn]] void throw_unwritable(const std::string& path, const std::string& reason) {
  throw Failure(ExitStatus::cannot_write,
                "cannot write " + path + ": " + reason + "; give another file for the index");
}

/// Whether the file is there. Throws where it could not be changed or made.
bool check_writable(const std::string& path) {
  if (path.empty()) throw_unwritable(path, "the path is empty");
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) throw_unwritable(path, "it is a directory");
  const bool exists = std::filesystem::exists(path, error);
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  const std::string needed = exists ? path : folder.empty() ? "." : folder.string();
  if (::access(needed.c_str(), W_OK) != 0) throw_unwritable(path, system_reason(errno));
  return exists;
}

std::span<const std::byte> bytes_of(const Digest& digest) { return digest; }

Digest digest_of(std::span<const std::byte> bytes) {
  Digest digest{};
  std::memcpy(digest.data(), bytes.data(), std::min(bytes.size(), digest.size()));
  return digest;
}

/// In unit length, or zero.
std::vector<float> direction_of(std::span<const double> vector) {
  double squares = 0;
  for (const double number : vector) squares += number * number;
  if (!std::isfinite(squares)) {
    throw Failure(ExitStatus::call_failed,
                  "the backend returned a number that is not finite, or too large; leave that text "
                  "out or use another backend");
  }
  const double scale = squares > 0 ? 1 / std::sqrt(squares) : 0;
  std::vector<float> direction;
  direction.reserve(vector.size());
  for (const double number : vector) direction.push_back(static_cast<float>(number * scale));
  return direction;
}

}  // namespace

struct IndexWriter::Statements {
  explicit Statements(const SqliteConnection& connection)
      : set_origin(connection, "UPDATE about SET backend = ?, prompt = ?, dimension = ?"),
        count_change(connection, "UPDATE about SET changes = changes + 1"),
        insert_block(connection, "INSERT INTO vectors VALUES (?, ?)"),
        put_record(connection, "REPLACE INTO records VALUES (?, ?, ?, ?, ?, ?, ?)"),
        remove_record(connection, "DELETE FROM records WHERE number = ?"),
        block(connection, "vectors", "numbers", true) {}

  SqliteStatement set_origin;
  SqliteStatement count_change;
  SqliteStatement insert_block;
  SqliteStatement put_record;
  SqliteStatement remove_record;
  SqliteBlob block;
};

IndexWriter::IndexWriter(std::string path) : _path(std::move(path)) {
  if (!check_writable(_path)) return;
  _connection = std::make_unique<SqliteConnection>(_path, SqliteConnection::Access::write);
  _head = read_index_head(*_connection);
}

IndexWriter::~IndexWriter() {
  if (_connection == nullptr) return;
  _statements.reset();
  _connection->try_to_run("ROLLBACK");
  _connection->set_lock_wait_s(kReadersWaitS);
  _connection->try_to_run("PRAGMA journal_mode = DELETE");
}

std::optional<IndexOrigin> IndexWriter::origin() const {
  return _head && !_head->origin.backend.empty() ? std::optional(_head->origin) : std::nullopt;
}

std::vector<StoredRecord> IndexWriter::records() {
  std::vector<StoredRecord> records;
  if (!_head) return records;
  SqliteStatement all(
      *_connection, "SELECT number, id, content, text_digest, vector FROM records ORDER BY number");
  while (all.step()) {
    records.push_back({.number = all.integer(0),
                       .id = digest_of(all.bytes(1)),
                       .content = digest_of(all.bytes(2)),
                       .text_digest = digest_of(all.bytes(3)),
                       .vector = all.integer(4)});
  }
  return records;
}

IndexWriter::Content IndexWriter::content(std::int64_t number) {
  SqliteStatement one(*_connection,
                      "SELECT text, members, members IS NULL FROM records WHERE number = ?");
  Content content;
  if (!one.bind(1, number).step()) return content;
  content.text = one.text(0);
  if (one.integer(2) == 0) content.members = one.text(1);
  return content;
}

void IndexWriter::_open_for_changes() {
  if (_connection == nullptr) {
    _connection = std::make_unique<SqliteConnection>(_path, SqliteConnection::Access::write);
  }
  if (!_head) {
    // The size of pages has to be said before there is one.
    _connection->run("PRAGMA page_size = 65536; PRAGMA auto_vacuum = INCREMENTAL");
  }
  // A file system that cannot have it serves, too: readers then wait for a commit to end.
  _connection->try_to_run("PRAGMA journal_mode = WAL");
  _connection->run("PRAGMA synchronous = NORMAL");
}

void IndexWriter::_begin() {
  if (_is_changing) return;
  if (_statements == nullptr) _open_for_changes();
  _connection->run("BEGIN IMMEDIATE");
  _is_changing = true;
  std::optional<IndexHead> head = read_index_head(*_connection);
  if (head.has_value() != _head.has_value() || (head && head->changes != _head->changes)) {
    throw Failure(ExitStatus::not_ready,
                  _path + ": another process has changed it meanwhile; run it again");
  }
  if (!head) {
    create_index_tables(*_connection);
    _head = IndexHead();
  }
  if (_statements == nullptr) {
    _statements = std::make_unique<Statements>(*_connection);
    _find_free_places();  // before any is given up
  }
  _statements->count_change.run();
  ++_head->changes;
}

void IndexWriter::empty(const IndexOrigin& origin) {
  _begin();
  _connection->run("DELETE FROM records; DELETE FROM vectors");
  _statements->set_origin.bind(1, origin.backend)
      .bind(2, origin.prompt)
      .bind(3, static_cast<std::int64_t>(origin.dimension))
      .run();
  _head->origin = origin;
  _free.clear();
  _next_block = 0;
}

/// Numbers in blocks that are there, and that no record has.
void IndexWriter::_find_free_places() {
  constexpr auto kSize = static_cast<std::int64_t>(kBlockVectors);
  std::vector<std::int64_t> blocks;
  SqliteStatement all_blocks(*_connection, "SELECT block FROM vectors ORDER BY block DESC");
  while (all_blocks.step()) blocks.push_back(all_blocks.integer(0));
  if (!blocks.empty()) _next_block = blocks.front() + 1;
  std::vector<bool> is_used(static_cast<std::size_t>(_next_block * kSize));
  SqliteStatement used(*_connection, "SELECT DISTINCT vector FROM records");
  while (used.step()) {
    const auto number = static_cast<std::size_t>(used.integer(0));
    if (number < is_used.size()) is_used[number] = true;
  }
  for (const std::int64_t block : blocks) {
    for (std::int64_t number = (block + 1) * kSize; number-- > block * kSize;) {
      if (!is_used[static_cast<std::size_t>(number)]) _free.push_back(number);
    }
  }
}

void IndexWriter::_add_block() {
  const std::vector<float> nothing(kBlockVectors * _head->origin.dimension, kNoNumber);
  _statements->insert_block.bind(1, _next_block).bind(2, std::as_bytes(std::span(nothing))).run();
  constexpr auto kSize = static_cast<std::int64_t>(kBlockVectors);
  for (std::int64_t number = (_next_block + 1) * kSize; number-- > _next_block * kSize;) {
    _free.push_back(number);
  }
  ++_next_block;
}

SqliteBlob& IndexWriter::_block(std::int64_t block) {
  if (block != std::exchange(_open_block, block)) _statements->block.go_to(block);
  return _statements->block;
}

void IndexWriter::_close_block() {
  _statements->block.close();
  _open_block = -1;
}

std::int64_t IndexWriter::add_vector(std::span<const double> vector) {
  const std::vector<float> direction = direction_of(vector);
  _begin();
  IndexOrigin& origin = _head->origin;
  if (origin.dimension == 0) {
    origin.dimension = vector.size();
    _statements->set_origin.bind(1, origin.backend)
        .bind(2, origin.prompt)
        .bind(3, static_cast<std::int64_t>(origin.dimension))
        .run();
  }
  if (vector.size() != origin.dimension) {
    throw Failure(ExitStatus::call_failed,
                  _path + ": holds vectors of " + std::to_string(origin.dimension) +
                      " numbers, and the backend returned one of " + std::to_string(vector.size()) +
                      "; --rebuild makes all of them anew");
  }
  if (_free.empty()) _add_block();
  const std::int64_t number = _free.back();
  _free.pop_back();
  constexpr auto kSize = static_cast<std::int64_t>(kBlockVectors);
  _block(number / kSize)
      .write(std::as_bytes(std::span(direction)),
             static_cast<std::size_t>(number % kSize) * direction.size() * sizeof(float));
  return number;
}

void IndexWriter::remove_vector(std::int64_t vector) {
  _begin();
  const std::vector<float> nothing(_head->origin.dimension, kNoNumber);
  constexpr auto kSize = static_cast<std::int64_t>(kBlockVectors);
  _block(vector / kSize)
      .write(std::as_bytes(std::span(nothing)),
             static_cast<std::size_t>(vector % kSize) * nothing.size() * sizeof(float));
  _free.push_back(vector);
}

void IndexWriter::put_record(const IndexRecord& record, std::int64_t vector,
                             std::optional<std::int64_t> number) {
  _begin();
  SqliteStatement& put = _statements->put_record;
  if (number) {
    put.bind(1, *number);
  } else {
    put.bind_null(1);
  }
  put.bind(2, bytes_of(record.id)).bind(3, bytes_of(record.content));
  put.bind(4, bytes_of(record.text_digest)).bind(5, vector).bind(6, record.text);
  if (record.members) {
    put.bind(7, *record.members);
  } else {
    put.bind_null(7);
  }
  put.run();
}

void IndexWriter::remove_record(std::int64_t number) {
  _begin();
  _statements->remove_record.bind(1, number).run();
}

void IndexWriter::commit() {
  if (!_is_changing) return;
  _close_block();
  _connection->run("COMMIT");
  _is_changing = false;
}

void IndexWriter::give_back_room() {
  _begin();
  _close_block();
  _connection->run(
      "DELETE FROM vectors WHERE block NOT IN (SELECT vector / 256 FROM records);"
      "PRAGMA incremental_vacuum");
  commit();
}

}  // namespace tovana::tool
