#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace tovana::sentence_transformers {

/// Cuts words into the tokens of a vocabulary.
///
/// Threads: immutable; any number may use one.
class Model {
 public:
  Model() = default;
  Model(const Model&) = delete;
  Model& operator=(const Model&) = delete;
  virtual ~Model() = default;

  /// Appends the ids of a word, which is not empty and well-formed UTF-8.
  virtual void append_ids(std::string_view word, std::vector<std::int32_t>& ids) const = 0;

  virtual std::optional<std::int32_t> id_of(std::string_view token) const noexcept = 0;
  /// How many tokens there are: the first that is added gets this id.
  virtual std::size_t vocabulary_size() const noexcept = 0;
  virtual std::int32_t largest_id() const noexcept = 0;
};

using ModelStep = std::unique_ptr<const Model>;

}  // namespace tovana::sentence_transformers
