#include "index_reader.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <exception>
#include <filesystem>
#include <span>
#include <thread>
#include <utility>

#include <sys/stat.h>

#include "cosine.h"
#include "failure.h"
#include "tovana/base/platform.h"

namespace tovana::tool {
namespace {

using Access = SqliteConnection::Access;
using embedding::Vector;

/// More threads than that do not make memory any faster.
constexpr std::size_t kMostThreads = 8;

/// How far a score of 32-bit numbers may be from that of exact ones.
constexpr double kScoreError = 1e-5;

/// Independent sums let the compiler use the whole width of the machine's registers.
float dot_product(std::span<const float> a, std::span<const float> b) noexcept {
  constexpr std::size_t kSums = 16;
  std::array<float, kSums> sums{};
  std::size_t index = 0;
  for (; index + kSums <= a.size(); index += kSums) {
    for (std::size_t lane = 0; lane < kSums; ++lane) {
      sums[lane] += a[index + lane] * b[index + lane];
    }
  }
  float total = 0;
  for (; index < a.size(); ++index) total += a[index] * b[index];
  for (const float sum : sums) total += sum;
  return total;
}

std::vector<float> direction_of(std::span<const double> vector) {
  double squares = 0;
  for (const double number : vector) squares += number * number;
  std::vector<float> direction;
  for (const double number : vector) {
    direction.push_back(static_cast<float>(number / std::sqrt(squares)));
  }
  return direction;
}

/// What changes in the file's entry when it is written to.
std::string mark_of(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return "gone";
  const std::timespec modified = modification_time(status);
  return std::to_string(status.st_ino) + " " + std::to_string(status.st_size) + " " +
         std::to_string(modified.tv_sec) + " " + std::to_string(modified.tv_nsec);
}

/// Offers the vectors of blocks `first` to `end` to each query's ranking.
void scan(const SqliteConnection& connection, std::int64_t first, std::int64_t end,
          const std::vector<std::vector<float>>& queries, std::vector<Ranking>& rankings,
          const RunLimits& limits) {
  const std::size_t dimension = queries.front().size();
  std::vector<float> block(kBlockVectors * dimension);
  SqliteStatement blocks(connection,
                         "SELECT block FROM vectors WHERE block >= ? AND block < ? ORDER BY block");
  SqliteBlob blob(connection, "vectors", "numbers", false);
  blocks.bind(1, first).bind(2, end);
  while (blocks.step()) {
    limits.check_interrupted();
    const std::int64_t number = blocks.integer(0);
    blob.go_to(number);
    if (blob.size() != block.size() * sizeof(float)) {
      throw Failure(ExitStatus::bad_data,
                    connection.path() + ": block " + std::to_string(number) +
                        " has another size than the others; it is damaged, "
                        "remove it and make it again with tovana-embed index");
    }
    blob.read(std::as_writable_bytes(std::span(block)), 0);
    for (std::size_t place = 0; place < kBlockVectors; ++place) {
      const auto vector = std::span<const float>(block).subspan(place * dimension, dimension);
      const std::int64_t id =
          number * static_cast<std::int64_t>(kBlockVectors) + static_cast<std::int64_t>(place);
      for (std::size_t query = 0; query < queries.size(); ++query) {
        rankings[query].offer({id, double{dot_product(vector, queries[query])}});
      }
    }
  }
}

}  // namespace

IndexReader::IndexReader(std::string path) : _path(std::move(path)) {
  std::error_code error;
  if (!std::filesystem::exists(_path, error) || std::filesystem::is_directory(_path, error)) {
    throw Failure(ExitStatus::no_input,
                  "cannot read " + _path + ": " +
                      (error ? error.message() : "there is no such file") +
                      "; give --index a file that tovana-embed index has made");
  }
  Access access = Access::read;
  // In a folder where it may make no files SQLite cannot read an index that its writer has left in
  // the midst of things, unless the writer's own files are there.
  if (!SqliteConnection(_path, access).try_to_run("SELECT * FROM sqlite_schema") &&
      !std::filesystem::exists(_path + "-wal", error)) {
    access = Access::read_unguarded;
    _mark = mark_of(_path);
  }
  const std::size_t threads =
      std::clamp(std::size_t{std::thread::hardware_concurrency()}, std::size_t{1}, kMostThreads);
  for (std::size_t thread = 0; thread < threads; ++thread) {
    _connections.push_back(std::make_unique<SqliteConnection>(_path, access));
  }
  // Each sees the file as it was when it first read it: until nobody comes between them.
  for (bool is_same = false; !is_same;) {
    is_same = true;
    std::optional<std::int64_t> changes;
    for (const auto& connection : _connections) {
      connection->try_to_run("ROLLBACK");
      connection->run("BEGIN");
      const std::optional<IndexHead> head = read_index_head(*connection);
      if (!head) {
        throw Failure(ExitStatus::bad_data, _path + ": empty; fill it with tovana-embed index");
      }
      is_same = is_same && changes.value_or(head->changes) == head->changes;
      changes = head->changes;
      _origin = head->origin;
    }
  }
}

IndexReader::~IndexReader() = default;

std::vector<std::vector<Hit>> IndexReader::nearest(const std::vector<Vector>& queries,
                                                   const Wanted& wanted, const RunLimits& limits) {
  std::vector<std::vector<float>> directions;
  for (const Vector& query : queries) directions.push_back(direction_of(query));
  const Wanted roughly = {.top = wanted.top, .min_score = wanted.min_score - kScoreError};
  const std::size_t threads = _connections.size();
  std::vector<std::vector<Ranking>> rankings(
      threads, std::vector<Ranking>(queries.size(), Ranking(roughly)));
  std::int64_t end = 0;
  {
    SqliteStatement last(*_connections.front(), "SELECT max(block) + 1 FROM vectors");
    if (last.step()) end = last.integer(0);
  }
  std::vector<std::exception_ptr> errors(threads);
  {
    std::vector<std::jthread> workers;
    for (std::size_t thread = 0; thread < threads; ++thread) {
      const auto part = [&, end](std::size_t index) {
        return end * static_cast<std::int64_t>(index) / static_cast<std::int64_t>(threads);
      };
      workers.emplace_back([&, thread, first = part(thread), behind = part(thread + 1)] {
        try {
          scan(*_connections[thread], first, behind, directions, rankings[thread], limits);
        } catch (...) {
          errors[thread] = std::current_exception();
        }
      });
    }
  }
  for (const std::exception_ptr& error : errors) {
    if (error) std::rethrow_exception(error);
  }
  std::vector<std::vector<Hit>> found;
  for (std::size_t query = 0; query < queries.size(); ++query) {
    Ranking best(roughly);
    for (std::vector<Ranking>& of_thread : rankings) {
      for (const Hit& hit : of_thread[query].take_best()) best.offer(hit);
    }
    found.push_back(_records_of(best.take_best(), queries[query], wanted));
  }
  _check_unchanged();
  return found;
}

std::vector<Hit> IndexReader::_records_of(const std::vector<Hit>& vectors, const Vector& query,
                                          const Wanted& wanted) {
  SqliteStatement records(*_connections.front(), "SELECT number FROM records WHERE vector = ?");
  SqliteBlob blob(*_connections.front(), "vectors", "numbers", false);
  std::vector<float> vector(query.size());
  Ranking ranking(wanted);
  for (const Hit& hit : vectors) {
    constexpr auto kSize = static_cast<std::int64_t>(kBlockVectors);
    blob.go_to(hit.number / kSize);
    blob.read(std::as_writable_bytes(std::span(vector)),
              static_cast<std::size_t>(hit.number % kSize) * vector.size() * sizeof(float));
    const double score = cosine<float>(vector, query);
    records.bind(1, hit.number);
    while (records.step()) ranking.offer({records.integer(0), score});
  }
  return ranking.take_best();
}

IndexReader::Record IndexReader::record(std::int64_t number) {
  SqliteStatement one(*_connections.front(),
                      "SELECT text, members, members IS NULL FROM records WHERE number = ?");
  Record record;
  if (!one.bind(1, number).step()) return record;
  record.text = one.text(0);
  if (one.integer(2) == 0) record.members = one.text(1);
  return record;
}

void IndexReader::_check_unchanged() const {
  std::error_code error;
  if (_mark.empty() ||
      (_mark == mark_of(_path) && !std::filesystem::exists(_path + "-wal", error))) {
    return;
  }
  throw Failure(ExitStatus::not_ready, _path + ": was changed while it was read; try again");
}

}  // namespace tovana::tool
