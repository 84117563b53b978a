#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "tovana/base/export.h"
#include "tovana/exceptions/exceptions.h"
#include "tovana/storage/database.h"

struct sqlite3;

namespace tovana::storage {

/// A database could not be read. The message names the file, the cause, and what to do.
class TOVANA_API DatabaseError final : public RuntimeError {
 public:
  enum class Cause {
    no_such_file,
    unreadable,      ///< No right to it or to a folder on its way, or the system fails to read it.
    broken_off,      ///< A writer has left a transaction that only one that may write can undo.
    not_a_database,  ///< No SQLite file, or a damaged one.
    other_schema,    ///< It lacks the table or the column that is asked for.
  };

  DatabaseError(Cause cause, const std::string& message) : RuntimeError(message), _cause(cause) {}
  const char* kind() const noexcept override { return "DatabaseError"; }
  Cause cause() const noexcept { return _cause; }

 private:
  Cause _cause;
};

/// Another process has held the database's lock for longer than the wait.
class TOVANA_API DatabaseLockedError final : public TryAgainLaterError {
 public:
  using TryAgainLaterError::TryAgainLaterError;
  const char* kind() const noexcept override { return "DatabaseLockedError"; }
};

/// An SQLite file, opened to be read and never created or changed. Its rows are positional. For one
/// thread at a time.
class TOVANA_API SqliteDatabase final : public Database {
 public:
  static constexpr double kDefaultLockWaitS = 5;

  /// `lock_wait_s` is how many seconds a query waits for another process's lock. Throws
  /// DatabaseError when the file cannot be opened; whether it is a database shows at the first
  /// query.
  explicit SqliteDatabase(const std::filesystem::path& path,
                          double lock_wait_s = kDefaultLockWaitS);

  /// Throws DatabaseError, or DatabaseLockedError once the wait for a lock is over.
  std::optional<DatabaseRow> fetchone(const std::string& sql) override;

 private:
  struct Close {
    void operator()(sqlite3* connection) const noexcept;
  };

  /// As `fetchone`, within whatever transaction there is.
  std::optional<PositionalRow> _first_row(const std::string& sql);

  /// Throws DatabaseError (not_a_database) for a file that lacks a part of its last page: SQLite
  /// reads that part as zeros. It notices itself when whole pages are missing.
  void _check_not_cut_short();

  /// Throws the error that the connection reports.
  [[noreturn]] void fail() const;

  const std::string _path;  ///< As it was given, for messages.
  std::unique_ptr<sqlite3, Close> _connection;
};

}  // namespace tovana::storage
