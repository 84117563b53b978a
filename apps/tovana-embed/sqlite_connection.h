#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_blob;
struct sqlite3_stmt;

/// SQLite, as far as an index file wants it. For one thread at a time. Every operation throws
/// Failure as its connection is used: one line with the file, the cause and what to do.
namespace tovana::tool {

class SqliteConnection {
 public:
  enum class Access {
    read,
    /// Of a file that nobody writes meanwhile, in a place where SQLite can make no files beside it.
    read_unguarded,
    write,  ///< Makes the file when it is not there and the first statement changes it.
  };

  SqliteConnection(std::string path, Access access);

  const std::string& path() const noexcept { return _path; }
  sqlite3* get() const noexcept { return _connection.get(); }

  /// Statements whose rows, if there are any, are of no interest.
  void run(const char* sql) const;
  /// The same. Whether it worked, where it does not matter much.
  bool try_to_run(const char* sql) const noexcept;

  /// How long an operation waits for another process's lock.
  void set_lock_wait_s(double seconds) const noexcept;

  /// Throws what the connection says is wrong.
  [[noreturn]] void fail() const;

 private:
  struct Close {
    void operator()(sqlite3* connection) const noexcept;
  };

  std::string _path;
  bool _writes;
  std::unique_ptr<sqlite3, Close> _connection;
};

/// A prepared statement, run as often as one likes.
class SqliteStatement {
 public:
  /// `connection` outlives it.
  SqliteStatement(const SqliteConnection& connection, const char* sql);

  /// Values of the parameters from 1 on. What they point to lives until the statement has run.
  SqliteStatement& bind(int parameter, std::int64_t value);
  SqliteStatement& bind(int parameter, std::string_view text);
  SqliteStatement& bind(int parameter, std::span<const std::byte> bytes);
  SqliteStatement& bind_null(int parameter);

  /// Goes to the next row. False behind the last; the statement can then be run again.
  bool step();
  /// Runs one that has no rows.
  void run() { step(); }
  /// Makes it ready to run again before its last row.
  void reset() noexcept;

  /// Columns of the row, from 0 on; views hold until the next step.
  std::int64_t integer(int column) const noexcept;
  std::string_view text(int column) const noexcept;
  std::span<const std::byte> bytes(int column) const noexcept;

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const noexcept;
  };

  const SqliteConnection& _connection;
  std::unique_ptr<sqlite3_stmt, Finalize> _statement;
};

/// The bytes of one BLOB of a table at a time, read and written in place.
class SqliteBlob {
 public:
  /// `connection` outlives it; the names do, too.
  SqliteBlob(const SqliteConnection& connection, const char* table, const char* column, bool writes)
      : _connection(connection), _table(table), _column(column), _writes(writes) {}

  /// Goes to the BLOB of another row. One that has been written to in another way since has to be
  /// gone to again.
  void go_to(std::int64_t row);
  void read(std::span<std::byte> bytes, std::size_t offset);
  void write(std::span<const std::byte> bytes, std::size_t offset);
  std::size_t size() const noexcept;
  /// A transaction ends only when no BLOB is written to.
  void close() noexcept { _blob.reset(); }

 private:
  struct Close {
    void operator()(sqlite3_blob* blob) const noexcept;
  };

  void _check(int result) const;

  const SqliteConnection& _connection;
  const char* _table;
  const char* _column;
  bool _writes;
  std::unique_ptr<sqlite3_blob, Close> _blob;
};

}  // namespace tovana::tool
