#include "tovana/storage/sqlite/sqlite_database.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <system_error>
#include <utility>

#include <sqlite3.h>

namespace tovana::storage {
namespace {

struct Finalize {
  void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
};
using Cause = DatabaseError::Cause;
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

DatabaseValue column_value(sqlite3_stmt* statement, int column) {
  // The pointer is asked for before the size, which is that of the form asked for last.
  switch (sqlite3_column_type(statement, column)) {
    case SQLITE_INTEGER:
      return std::int64_t{sqlite3_column_int64(statement, column)};
    case SQLITE_FLOAT:
      return sqlite3_column_double(statement, column);
    case SQLITE_TEXT: {
      const auto* const text =
          reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
      return std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
    }
    case SQLITE_BLOB: {
      const auto* const begin =
          static_cast<const std::byte*>(sqlite3_column_blob(statement, column));
      return Blob(begin, begin + sqlite3_column_bytes(statement, column));
    }
    default:
      return nullptr;
  }
}

/// While it lasts, nobody changes the file under what is read: a writer that makes it longer writes
/// the new size first and the new pages last.
class ReadTransaction {
 public:
  explicit ReadTransaction(sqlite3* connection) : _connection(connection) { _run("BEGIN"); }
  ~ReadTransaction() { _run("ROLLBACK"); }
  ReadTransaction(const ReadTransaction&) = delete;
  ReadTransaction& operator=(const ReadTransaction&) = delete;

 private:
  void _run(const char* sql) noexcept { sqlite3_exec(_connection, sql, nullptr, nullptr, nullptr); }

  sqlite3* const _connection;
};

/// The size of the connection's file, or of its journal; 0 for a journal that is not in use.
std::int64_t size_of(sqlite3* connection, int which_file) {
  sqlite3_file* file = nullptr;
  sqlite3_file_control(connection, "main", which_file, static_cast<void*>(&file));
  sqlite3_int64 size = 0;
  if (file != nullptr && file->pMethods != nullptr) file->pMethods->xFileSize(file, &size);
  return size;
}

}  // namespace

void SqliteDatabase::Close::operator()(sqlite3* connection) const noexcept {
  sqlite3_close_v2(connection);
}

SqliteDatabase::SqliteDatabase(const std::filesystem::path& path, double lock_wait_s)
    : _path(path.string()) {
  std::error_code error;
  const bool exists = std::filesystem::exists(path, error);
  if (error) {
    throw DatabaseError(Cause::unreadable,
                        _path + ": " + error.message() +
                            (error == std::errc::permission_denied
                                 ? "; it takes access to every folder of it"
                                 : "; give another path to the daemon's database file"));
  }
  if (!exists) {
    throw DatabaseError(Cause::no_such_file,
                        _path + ": no such database; give the path of the daemon's database file");
  }
  if (std::filesystem::is_directory(path, error)) {
    throw DatabaseError(Cause::not_a_database,
                        _path + ": is a directory; give the path of an SQLite file");
  }
  sqlite3* connection = nullptr;
  // Absolute, since SQLite reads names like ":memory:" its own way.
  const int result = sqlite3_open_v2(std::filesystem::absolute(path).c_str(), &connection,
                                     SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
  _connection.reset(connection);
  if (connection == nullptr) throw std::bad_alloc();
  if (result != SQLITE_OK) fail();
  sqlite3_busy_timeout(connection, static_cast<int>(std::clamp(lock_wait_s, 0.0, 3600.0) * 1000));
}

std::optional<DatabaseRow> SqliteDatabase::fetchone(const std::string& sql) {
  const ReadTransaction transaction(_connection.get());
  _check_not_cut_short();
  return _first_row(sql);
}

std::optional<PositionalRow> SqliteDatabase::_first_row(const std::string& sql) {
  sqlite3_stmt* prepared = nullptr;
  if (sqlite3_prepare_v2(_connection.get(), sql.c_str(), -1, &prepared, nullptr) != SQLITE_OK) {
    fail();
  }
  const Statement statement(prepared);
  const int result = sqlite3_step(prepared);
  if (result == SQLITE_DONE) return std::nullopt;
  if (result != SQLITE_ROW) fail();
  PositionalRow row;
  for (int column = 0; column < sqlite3_column_count(prepared); ++column) {
    row.push_back(column_value(prepared, column));
  }
  return row;
}

void SqliteDatabase::_check_not_cut_short() {
  const auto row =
      _first_row("SELECT page_count * page_size FROM pragma_page_count, pragma_page_size");
  // The pages that a write-ahead log holds need not be in the file.
  if (size_of(_connection.get(), SQLITE_FCNTL_JOURNAL_POINTER) > 0) return;
  const std::int64_t expected = row ? std::get<std::int64_t>(row->front()) : 0;
  const std::int64_t size = size_of(_connection.get(), SQLITE_FCNTL_FILE_POINTER);
  if (size >= expected) return;
  throw DatabaseError(Cause::not_a_database,
                      _path + ": cut short, there are " + std::to_string(size) + " of its " +
                          std::to_string(expected) + " bytes; take a whole copy");
}

void SqliteDatabase::fail() const {
  const std::string problem = _path + ": " + sqlite3_errmsg(_connection.get());
  const int code = sqlite3_extended_errcode(_connection.get());
  if (code == SQLITE_READONLY_ROLLBACK) {
    throw DatabaseError(Cause::broken_off,
                        _path +
                            ": a writer was broken off and has left a journal; let the daemon, "
                            "which may write, open it once");
  }
  switch (code & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      throw DatabaseLockedError(problem + " by another process");
    case SQLITE_NOTADB:
      throw DatabaseError(Cause::not_a_database, problem + "; give the path of an SQLite file");
    case SQLITE_CORRUPT:
      throw DatabaseError(Cause::not_a_database,
                          problem + "; it is damaged, take a copy from before that");
    case SQLITE_ERROR:  // what a query that fits other databases meets
      throw DatabaseError(Cause::other_schema, problem + "; is it the daemon's database?");
    case SQLITE_CANTOPEN:
    case SQLITE_READONLY:
      throw DatabaseError(Cause::unreadable,
                          problem +
                              "; it takes read access, and for a database in WAL mode write access "
                              "to its folder unless another process has it open");
    default:
      throw DatabaseError(Cause::unreadable, problem);
  }
}

}  // namespace tovana::storage
