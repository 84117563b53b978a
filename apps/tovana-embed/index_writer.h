#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "digest.h"
#include "index_format.h"
#include "sqlite_connection.h"

namespace tovana::tool {

/// A record as an index keeps it.
struct IndexRecord {
  Digest id;
  Digest content;  ///< Of the whole record.
  Digest text_digest;
  std::string_view text;
  std::optional<std::string_view> members;  ///< Of a JSON object; null for a line.
};

/// What is known of one that an index holds.
struct StoredRecord {
  std::int64_t number;
  Digest id;
  Digest content;
  Digest text_digest;
  std::int64_t vector;
};

/// Changes an index file. What is changed between two calls of `commit` is there whole or not at
/// all, however the process ends; others read what was there before, meanwhile. Nothing is made or
/// written before the first change. For one thread; everything throws Failure: cannot_write,
/// bad_data for a file that is no index or a damaged one, not_ready when another process changes
/// it, too.
class IndexWriter {
 public:
  /// Looks at the file, and where there is none at the folder that it is to be in.
  explicit IndexWriter(std::string path);
  /// Takes back what is not committed, and leaves a single file, which can be read where nothing
  /// can be written; unless somebody reads it just now.
  ~IndexWriter();
  IndexWriter(const IndexWriter&) = delete;
  IndexWriter& operator=(const IndexWriter&) = delete;

  /// Null before there is anything in the file.
  std::optional<IndexOrigin> origin() const;
  std::vector<StoredRecord> records();
  struct Content {
    std::string text;
    std::optional<std::string> members;
  };
  Content content(std::int64_t number);

  /// Takes everything out of the index; what comes is of that origin. Its dimension may be 0, not
  /// known yet.
  void empty(const IndexOrigin& origin);

  /// Stores the vector's direction, and says by which number. The first vector of an index
  /// determines the dimension of all; throws Failure (call_failed) for another one, and for a
  /// number that is not finite.
  std::int64_t add_vector(std::span<const double> vector);
  void remove_vector(std::int64_t vector);

  /// `number` is that of a record that gives way, or null.
  void put_record(const IndexRecord& record, std::int64_t vector,
                  std::optional<std::int64_t> number);
  void remove_record(std::int64_t number);

  void commit();

  /// Commits, and makes the file smaller where blocks of it hold no vector any more.
  void give_back_room();

 private:
  struct Statements;

  /// Every change begins with it.
  void _begin();
  void _open_for_changes();
  void _find_free_places();
  void _add_block();
  SqliteBlob& _block(std::int64_t block);
  void _close_block();

  std::string _path;
  std::unique_ptr<SqliteConnection> _connection;  ///< Null before there is a file.
  std::unique_ptr<Statements> _statements;        ///< Null before the first change.
  std::optional<IndexHead> _head;
  bool _is_changing = false;  ///< Within a transaction.

  std::vector<std::int64_t> _free;  ///< Numbers without a vector, the next one last.
  std::int64_t _next_block = 0;
  std::int64_t _open_block = -1;
};

}  // namespace tovana::tool
