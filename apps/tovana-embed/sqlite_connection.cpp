#include "sqlite_connection.h"

#include <filesystem>
#include <new>
#include <utility>

#include <sqlite3.h>

#include "failure.h"

namespace tovana::tool {
namespace {

constexpr double kLockWaitS = 10;

/// SQLite's way to say more about a file than its path: as a URI, in which some bytes have a
/// meaning.
std::string unguarded_uri(const std::string& path) {
  std::string uri = "file:";
  for (const char byte : path) {
    if (byte == '%' || byte == '?' || byte == '#') {
      uri += byte == '%' ? "%25" : byte == '?' ? "%3f" : "%23";
    } else {
      uri += byte;
    }
  }
  return uri + "?immutable=1";
}

}  // namespace

void SqliteConnection::Close::operator()(sqlite3* connection) const noexcept {
  sqlite3_close_v2(connection);
}

SqliteConnection::SqliteConnection(std::string path, Access access)
    : _path(std::move(path)), _writes(access == Access::write) {
  // Absolute, since SQLite reads names like ":memory:" its own way.
  const std::string absolute = std::filesystem::absolute(_path).string();
  const bool unguarded = access == Access::read_unguarded;
  const int flags = _writes     ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE
                    : unguarded ? SQLITE_OPEN_READONLY | SQLITE_OPEN_URI
                                : SQLITE_OPEN_READONLY;
  sqlite3* connection = nullptr;
  const int result = sqlite3_open_v2((unguarded ? unguarded_uri(absolute) : absolute).c_str(),
                                     &connection, flags | SQLITE_OPEN_NOMUTEX, nullptr);
  _connection.reset(connection);
  if (connection == nullptr) throw std::bad_alloc();
  if (result != SQLITE_OK) fail();
  set_lock_wait_s(kLockWaitS);
}

void SqliteConnection::set_lock_wait_s(double seconds) const noexcept {
  sqlite3_busy_timeout(get(), static_cast<int>(seconds * 1000));
}

void SqliteConnection::run(const char* sql) const {
  if (!try_to_run(sql)) fail();
}

bool SqliteConnection::try_to_run(const char* sql) const noexcept {
  return sqlite3_exec(get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

void SqliteConnection::fail() const {
  const std::string problem = _path + ": " + sqlite3_errmsg(get());
  switch (sqlite3_errcode(get())) {
    case SQLITE_NOMEM:
      throw std::bad_alloc();
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      throw Failure(ExitStatus::not_ready, problem + " by another process; try again later");
    case SQLITE_NOTADB:
      throw Failure(ExitStatus::bad_data,
                    problem + "; give a file that tovana-embed index has made, or a new one");
    case SQLITE_ERROR:  // what a query that fits an index meets in another database
    case SQLITE_CORRUPT:
      throw Failure(
          ExitStatus::bad_data,
          problem + "; it is damaged, remove it and make it again with tovana-embed index");
    case SQLITE_FULL:
      throw Failure(ExitStatus::cannot_write,
                    problem + "; make room and run it again, what was done is kept");
    default:
      throw Failure(_writes ? ExitStatus::cannot_write : ExitStatus::no_input,
                    problem + (_writes ? "; it takes write access to the file and its folder"
                                       : "; it takes read access to the file and its folder"));
  }
}

void SqliteStatement::Finalize::operator()(sqlite3_stmt* statement) const noexcept {
  sqlite3_finalize(statement);
}

SqliteStatement::SqliteStatement(const SqliteConnection& connection, const char* sql)
    : _connection(connection) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(connection.get(), sql, -1, &statement, nullptr) != SQLITE_OK) {
    connection.fail();
  }
  _statement.reset(statement);
}

SqliteStatement& SqliteStatement::bind(int parameter, std::int64_t value) {
  if (sqlite3_bind_int64(_statement.get(), parameter, value) != SQLITE_OK) _connection.fail();
  return *this;
}

SqliteStatement& SqliteStatement::bind(int parameter, std::string_view text) {
  if (sqlite3_bind_text64(_statement.get(), parameter, text.data(), text.size(), SQLITE_STATIC,
                          SQLITE_UTF8) != SQLITE_OK) {
    _connection.fail();
  }
  return *this;
}

SqliteStatement& SqliteStatement::bind(int parameter, std::span<const std::byte> bytes) {
  if (sqlite3_bind_blob64(_statement.get(), parameter, bytes.data(), bytes.size(), SQLITE_STATIC) !=
      SQLITE_OK) {
    _connection.fail();
  }
  return *this;
}

SqliteStatement& SqliteStatement::bind_null(int parameter) {
  if (sqlite3_bind_null(_statement.get(), parameter) != SQLITE_OK) _connection.fail();
  return *this;
}

bool SqliteStatement::step() {
  const int result = sqlite3_step(_statement.get());
  if (result == SQLITE_ROW) return true;
  if (result != SQLITE_DONE) _connection.fail();
  reset();
  return false;
}

void SqliteStatement::reset() noexcept { sqlite3_reset(_statement.get()); }

std::int64_t SqliteStatement::integer(int column) const noexcept {
  return sqlite3_column_int64(_statement.get(), column);
}

// The pointer is asked for before the size, which is that of the form asked for last.
std::string_view SqliteStatement::text(int column) const noexcept {
  const auto* const text =
      reinterpret_cast<const char*>(sqlite3_column_text(_statement.get(), column));
  return {text, static_cast<std::size_t>(sqlite3_column_bytes(_statement.get(), column))};
}

std::span<const std::byte> SqliteStatement::bytes(int column) const noexcept {
  const auto* const bytes =
      static_cast<const std::byte*>(sqlite3_column_blob(_statement.get(), column));
  return {bytes, static_cast<std::size_t>(sqlite3_column_bytes(_statement.get(), column))};
}

void SqliteBlob::Close::operator()(sqlite3_blob* blob) const noexcept { sqlite3_blob_close(blob); }

void SqliteBlob::_check(int result) const {
  if (result != SQLITE_OK) _connection.fail();
}

void SqliteBlob::go_to(std::int64_t row) {
  if (_blob != nullptr) return _check(sqlite3_blob_reopen(_blob.get(), row));
  sqlite3_blob* blob = nullptr;
  const int result =
      sqlite3_blob_open(_connection.get(), "main", _table, _column, row, _writes ? 1 : 0, &blob);
  _blob.reset(blob);
  _check(result);
}

void SqliteBlob::read(std::span<std::byte> bytes, std::size_t offset) {
  _check(sqlite3_blob_read(_blob.get(), bytes.data(), static_cast<int>(bytes.size()),
                           static_cast<int>(offset)));
}

void SqliteBlob::write(std::span<const std::byte> bytes, std::size_t offset) {
  _check(sqlite3_blob_write(_blob.get(), bytes.data(), static_cast<int>(bytes.size()),
                            static_cast<int>(offset)));
}

std::size_t SqliteBlob::size() const noexcept {
  return static_cast<std::size_t>(sqlite3_blob_bytes(_blob.get()));
}

}  // namespace tovana::tool
