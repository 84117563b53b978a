#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "sqlite_connection.h"

/// An index file is an SQLite database of these tables:
///
///   about    one row: the backend, the prompt and the dimension of all vectors, and how often the
///            file has been changed. The dimension is 0 before the first vector
///   vectors  a BLOB of 256 vectors a row, one behind the other, their numbers 32-bit floats,
///            little-endian. Vector n is number n % 256 of the row n / 256. It has unit length, or
///            is zero; a place without a vector holds NaN, which no comparison prefers
///   records  what is found: the digests of its id, of itself and of its text, the number of its
///            vector, its text and the members of its object, NULL for a line. Records whose texts
///            are equal share a vector
namespace tovana::tool {

inline constexpr std::int64_t kIndexFormat = 1;  ///< SQLite's user_version.
inline constexpr std::size_t kBlockVectors = 256;
inline constexpr float kNoNumber = std::numeric_limits<float>::quiet_NaN();

/// What made the vectors of an index. Those of another origin do not compare with them.
struct IndexOrigin {
  std::string backend;  ///< Its name.
  std::string prompt;   ///< What was put in front of the texts.
  std::size_t dimension = 0;
};

struct IndexHead {
  IndexOrigin origin;
  std::int64_t changes = 0;  ///< Grows with each transaction that changes the file.
};

/// What the file says about itself; null for a database with nothing in it. Throws Failure
/// (bad_data) for one that is no index, or whose format is a later one.
std::optional<IndexHead> read_index_head(const SqliteConnection& connection);

/// Makes the tables in a database with nothing in it.
void create_index_tables(const SqliteConnection& connection);

}  // namespace tovana::tool
