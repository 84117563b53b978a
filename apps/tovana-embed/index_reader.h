#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "index_format.h"
#include "ranking.h"
#include "run_limits.h"
#include "sqlite_connection.h"
#include "tovana/engines/embedding/backends/backend.h"

namespace tovana::tool {

/// An index file as it is at one moment, whoever changes it meanwhile, and searched by as many
/// threads as there are processors. One thread uses it. Everything throws Failure: no_input for
/// what cannot be read, bad_data for a file that is no index or a damaged one, not_ready when it is
/// locked.
class IndexReader {
 public:
  explicit IndexReader(std::string path);
  ~IndexReader();
  IndexReader(const IndexReader&) = delete;
  IndexReader& operator=(const IndexReader&) = delete;

  const IndexOrigin& origin() const noexcept { return _origin; }

  /// For each query the records that are wanted, best first, by their numbers: every vector is
  /// looked at. The queries have the index's dimension, and none is zero. Throws Interrupted, too.
  std::vector<std::vector<Hit>> nearest(const std::vector<embedding::Vector>& queries,
                                        const Wanted& wanted, const RunLimits& limits);

  struct Record {
    std::string text;
    std::optional<std::string> members;  ///< Of its JSON object; null for a line.
  };
  Record record(std::int64_t number);

 private:
  /// Of one query: its records, from the best vectors.
  std::vector<Hit> _records_of(const std::vector<Hit>& vectors, const embedding::Vector& query,
                               const Wanted& wanted);
  void _check_unchanged() const;

  std::string _path;
  IndexOrigin _origin;
  /// One a thread, which all see the same state of the file.
  std::vector<std::unique_ptr<SqliteConnection>> _connections;
  /// What an unguarded file was like when it was opened; empty for a guarded one.
  std::string _mark;
};

}  // namespace tovana::tool
