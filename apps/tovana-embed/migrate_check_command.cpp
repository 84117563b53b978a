#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "command.h"
#include "engine_arguments.h"
#include "engine_session.h"
#include "output.h"
#include "tovana/storage/sqlite/sqlite_database.h"

namespace tovana::tool {
namespace {

using storage::DatabaseError;
using storage::DatabaseLockedError;
using storage::DatabaseRow;

struct MigrateCheckArguments {
  EngineArguments engine;
  CLI::Option* database = nullptr;
};

ExitStatus exit_status(DatabaseError::Cause cause) {
  switch (cause) {
    case DatabaseError::Cause::not_a_database:
    case DatabaseError::Cause::other_schema:
      return ExitStatus::bad_data;
    case DatabaseError::Cause::no_such_file:
    case DatabaseError::Cause::unreadable:
    case DatabaseError::Cause::broken_off:
      break;
  }
  return ExitStatus::no_input;
}

/// The daemon's database. A stored row is what makes the answer depend on the backend, so only then
/// is the backend waited for, in the tool's way.
class DaemonDatabase final : public storage::Database {
 public:
  DaemonDatabase(const std::string& path, EngineSession& session, const RunLimits& limits)
      : _sqlite(path), _session(session), _limits(limits) {}

  std::optional<DatabaseRow> fetchone(const std::string& sql) override {
    std::optional<DatabaseRow> row = _sqlite.fetchone(sql);
    if (row) _session.wait_ready(_limits);
    _has_row = row.has_value();
    return row;
  }

  bool has_row() const { return _has_row; }

 private:
  storage::SqliteDatabase _sqlite;
  EngineSession& _session;
  const RunLimits& _limits;
  bool _has_row = false;
};

ExitStatus migrate_check(const MigrateCheckArguments& arguments, const Interrupts& interrupts) {
  const RunLimits limits(interrupts);
  Output output("-", limits);
  EngineSession session(arguments.engine, interrupts);
  bool changed = false;
  std::string answer = "no stored vectors, nothing to embed again\n";
  try {
    DaemonDatabase database(arguments.database->results().front(), session, limits);
    changed = session.engine().check_backend_migration(database);
    if (database.has_row()) {
      const std::string backend = session.engine().backend_name();
      answer = changed ? "the stored vectors are not those of " + backend +
                             ": they have to be embedded again\n"
                       : "the stored vectors are those of " + backend + "\n";
    }
  } catch (const DatabaseLockedError& error) {
    throw Failure(ExitStatus::not_ready, std::string(error.what()) + "; try again later");
  } catch (const DatabaseError& error) {
    throw Failure(exit_status(error.cause()), error.what());
  }
  output.write(answer);
  output.finish();
  return changed ? ExitStatus::different : ExitStatus::success;
}

}  // namespace

Command add_migrate_check_command(CLI::App& tool) {
  const auto arguments = std::make_shared<MigrateCheckArguments>();
  CLI::App& command = *tool.add_subcommand(
      "migrate-check", "Say whether stored vectors were made by another backend");
  arguments->database =
      command.add_option("DB", "The daemon's database, an SQLite file; only read")->required();
  add_engine_options(command, arguments->engine);
  command.footer(
      R"(Vectors of two backends do not compare, so those that another one has made have
to be embedded again. The exit status is 0 when there are none, 1 when there
are, and 75 when the backend is not ready or the database is locked: ask again.

Example:
  tovana-embed migrate-check repository.db --backend local)");
  return {&command, [arguments](const Interrupts& interrupts) {
            return migrate_check(*arguments, interrupts);
          }};
}

}  // namespace tovana::tool
