#include "index_format.h"

#include "failure.h"

namespace tovana::tool {
namespace {

constexpr std::int64_t kApplicationId = 0x746F7665;  // "tove"

/// Of a vector, as many of which as a row holds fit into SQLite's largest BLOB.
constexpr std::int64_t kMostNumbers = 1'000'000'000 / (kBlockVectors * sizeof(float));

std::int64_t number(const SqliteConnection& connection, const char* sql) {
  SqliteStatement statement(connection, sql);
  return statement.step() ? statement.integer(0) : 0;
}

}  // namespace

std::optional<IndexHead> read_index_head(const SqliteConnection& connection) {
  const std::int64_t application = number(connection, "PRAGMA application_id");
  if (application != kApplicationId) {
    if (application == 0 && number(connection, "SELECT count(*) FROM sqlite_schema") == 0) {
      return std::nullopt;
    }
    throw Failure(ExitStatus::bad_data, connection.path() +
                                            ": the database of something else; give a file that "
                                            "tovana-embed index has made, or a new one");
  }
  const std::int64_t format = number(connection, "PRAGMA user_version");
  if (format != kIndexFormat) {
    throw Failure(ExitStatus::bad_data, connection.path() + ": an index of format " +
                                            std::to_string(format) + ", where this version knows " +
                                            std::to_string(kIndexFormat) +
                                            "; use a newer tovana-embed, or make another index");
  }
  SqliteStatement about(connection, "SELECT backend, prompt, dimension, changes FROM about");
  if (!about.step()) return std::nullopt;
  if (about.integer(2) < 0 || about.integer(2) > kMostNumbers) {
    throw Failure(
        ExitStatus::bad_data,
        connection.path() + ": it says that vectors have " + std::to_string(about.integer(2)) +
            " numbers; it is damaged, remove it and make it again with tovana-embed index");
  }
  return IndexHead{.origin = {.backend = std::string(about.text(0)),
                              .prompt = std::string(about.text(1)),
                              .dimension = static_cast<std::size_t>(about.integer(2))},
                   .changes = about.integer(3)};
}

void create_index_tables(const SqliteConnection& connection) {
  connection.run(
      ("PRAGMA application_id = " + std::to_string(kApplicationId) +
       "; PRAGMA user_version = " + std::to_string(kIndexFormat) +
       "; CREATE TABLE about (backend TEXT NOT NULL, prompt TEXT NOT NULL,"
       " dimension INTEGER NOT NULL, changes INTEGER NOT NULL);"
       "CREATE TABLE vectors (block INTEGER PRIMARY KEY, numbers BLOB NOT NULL);"
       "CREATE TABLE records (number INTEGER PRIMARY KEY, id BLOB NOT NULL, content BLOB NOT NULL,"
       " text_digest BLOB NOT NULL, vector INTEGER NOT NULL, text TEXT NOT NULL, members TEXT);"
       "CREATE INDEX records_of_vector ON records (vector);"
       "INSERT INTO about VALUES ('', '', 0, 0)")
          .c_str());
}

}  // namespace tovana::tool
