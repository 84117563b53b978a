#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "digest.h"
#include "index_writer.h"
#include "text_input.h"
#include "tovana/engines/embedding/backends/backend.h"

namespace tovana::tool {

/// What is done to an index so that it holds the records of an input: found out first, then done in
/// transactions, each of which leaves an index that can be searched and gone on with.
class IndexUpdate {
 public:
  struct Options {
    IndexOrigin origin;            ///< Of the vectors to come.
    bool keeps_gone = false;       ///< Records that are not in the input stay.
    bool starts_anew = false;      ///< What the index holds is worth nothing.
    bool weighs_by_batch = false;  ///< Vectors compare only with those of the same call.
  };

  struct Counts {
    std::size_t records = 0;  ///< In the index, in the end.
    std::size_t added = 0;
    std::size_t changed = 0;
    std::size_t removed = 0;
  };

  /// Compares and changes nothing. `index` and `input` outlive it. Throws Failure (bad_data) when
  /// the input has two different records of one id.
  IndexUpdate(IndexWriter& index, const InputTexts& input, const Options& options);

  const Counts& counts() const noexcept { return _counts; }

  /// The texts without a vector, each once; all texts, as often as they are there, where vectors
  /// are weighed by batch and anything has changed.
  const InputTexts& texts_to_embed() const noexcept { return _to_embed; }

  /// Does all that takes no new vector. Comes first.
  void begin();
  /// Puts the records of the texts to embed from number `first` on into the index, and commits.
  void put(std::size_t first, const std::vector<embedding::Vector>& vectors);
  /// Comes last.
  void finish();

 private:
  /// A record that is not in the index as it is now.
  struct Change {
    Digest id;
    Digest content;
    Digest text_digest;
    std::size_t place;                   ///< In the input, or behind it in `_kept`.
    std::optional<StoredRecord> before;  ///< What it is in place of.
  };

  /// Sorts the input out. Returns all its records, once each, where that is asked for.
  std::vector<Change> _compare(const std::vector<StoredRecord>& stored, bool wants_all);
  void _add_change(const Change& change);
  /// For what is weighed by batch.
  void _take_everything(std::vector<Change> all);
  void _start();
  void _put(const Change& change, std::int64_t vector);
  void _release(std::int64_t vector);
  [[noreturn]] void throw_contradiction(std::size_t place, std::size_t earlier) const;

  IndexWriter& _index;
  const InputTexts& _input;
  const Options _options;
  Counts _counts;
  bool _must_empty;
  InputTexts _to_embed;
  std::vector<std::vector<Change>> _waiting;            ///< For each text to embed its records.
  std::vector<std::pair<Change, std::int64_t>> _known;  ///< Records with texts that have a vector.
  std::vector<StoredRecord> _gone;
  std::vector<IndexWriter::Content> _kept;
  std::unordered_map<std::int64_t, std::size_t> _uses;  ///< How many records have a vector.
  /// Of texts: the vector, and of those without one the number among those to embed.
  std::unordered_map<Digest, std::int64_t, DigestHash> _vectors;
  std::unordered_map<Digest, std::size_t, DigestHash> _numbers;
};

}  // namespace tovana::tool
