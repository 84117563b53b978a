#include "tovana/storage/sqlite/sqlite_database.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <sqlite3.h>

#include "tests/support/temp_folder.h"

namespace tovana::storage {
namespace {

using namespace ::testing;

/// The daemon's end: runs what writes the database that is read here.
std::function<void(const char*)> writer_of(const std::filesystem::path& path) {
  sqlite3* opened = nullptr;
  sqlite3_open(path.c_str(), &opened);
  return [connection = std::shared_ptr<sqlite3>(opened, &sqlite3_close)](const char* sql) {
    ASSERT_EQ(sqlite3_exec(connection.get(), sql, nullptr, nullptr, nullptr), SQLITE_OK);
  };
}

TEST(SqliteDatabaseTest, GivesTheFirstRowAsItIsStored) {
  const TempFolder folder;
  std::filesystem::current_path(folder.path());
  const auto write = writer_of(folder.path() / ":memory:");
  write("CREATE TABLE t (a); PRAGMA journal_mode=WAL;");
  SqliteDatabase db(":memory:", 1.5);  // a name that SQLite has another use for
  EXPECT_EQ(db.fetchone("SELECT a FROM t LIMIT 1"), std::nullopt);
  EXPECT_EQ(db.fetchone("PRAGMA busy_timeout"), DatabaseRow(PositionalRow{1500}));
  write("INSERT INTO t VALUES ('tfidf'), (zeroblob(9000))");  // in the log, not in the file
  const auto row = db.fetchone("SELECT a, NULL, 7, 0.5, x'00ff', 'a' || char(0) || 'b' FROM t");
  EXPECT_EQ(row,
            DatabaseRow(PositionalRow{"tfidf", nullptr, 7, 0.5, Blob{std::byte{0}, std::byte{0xff}},
                                      std::string("a\0b", 3)}));
  EXPECT_THROW(db.fetchone("INSERT INTO t VALUES (1)"), DatabaseError);
}

TEST(SqliteDatabaseTest, SaysWhatIsWrongWithTheFile) {
  using Cause = DatabaseError::Cause;
  const TempFolder folder;
  const auto path = folder.path() / "x.db";
  const auto copy = folder.path() / "copy.db";
  const auto expect = [](const std::filesystem::path& file, Cause cause, const char* said) {
    try {
      SqliteDatabase(file, 0).fetchone("SELECT model_name FROM symbol_embeddings LIMIT 1");
      ADD_FAILURE() << said;
    } catch (const DatabaseError& error) {
      EXPECT_EQ(error.cause(), cause);
      EXPECT_THAT(error.what(), AllOf(StartsWith(file.string() + ": "), HasSubstr(said)));
    }
  };
  expect(path, Cause::no_such_file, "no such database");
  EXPECT_FALSE(std::filesystem::exists(path));
  write_file(path, std::string(4096, 'x'));
  expect(path, Cause::not_a_database, "give the path");
  expect(folder.path(), Cause::not_a_database, "is a directory");
  std::filesystem::create_symlink("loop", folder.path() / "loop");
  expect(folder.path() / "loop", Cause::unreadable, "symbolic links; give another path");
  write_file(path, "");
  expect(path, Cause::other_schema, "symbol_embeddings; is it the daemon's database?");

  const auto write = writer_of(path);
  write("CREATE TABLE symbol_embeddings (name)");
  expect(path, Cause::other_schema, "no such column");
  write("INSERT INTO symbol_embeddings VALUES (zeroblob(9000))");
  // What a writer leaves that is broken off once some of its pages have reached the file.
  write("PRAGMA cache_size=1; BEGIN; UPDATE symbol_embeddings SET name = zeroblob(9999999)");
  std::filesystem::copy_file(path, copy);
  std::filesystem::copy_file(path.string() + "-journal", copy.string() + "-journal");
  expect(copy, Cause::broken_off, "let the daemon");
  write("COMMIT");
  std::filesystem::remove(copy.string() + "-journal");
  const auto size = std::filesystem::file_size(path);
  for (const auto left : {size - 1, size - 4096, std::uintmax_t{5000}}) {
    std::filesystem::copy_file(path, copy, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::resize_file(copy, left);
    expect(copy, Cause::not_a_database, "");
  }
  write("BEGIN EXCLUSIVE");
  EXPECT_THROW(SqliteDatabase(path, 0).fetchone("SELECT name"), DatabaseLockedError);
}

}  // namespace
}  // namespace tovana::storage
