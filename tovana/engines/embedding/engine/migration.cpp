#include <optional>
#include <string>
#include <utility>

#include "tovana/base/logging.h"
#include "tovana/engines/embedding/engine/engine.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::embedding {
namespace {

using storage::DatabaseRow;
using storage::DatabaseValue;
using storage::NamedRow;
using storage::PositionalRow;

constexpr Logger log("engines.embedding");
constexpr const char* kModelNameColumn = "model_name";

/// The value of the one column; null for a row without columns.
const DatabaseValue* stored_model_name(const DatabaseRow& row) {
  if (const auto* const fields = std::get_if<PositionalRow>(&row)) {
    return fields->empty() ? nullptr : &fields->front();
  }
  const auto& fields = std::get<NamedRow>(row);
  if (fields.empty()) return nullptr;
  const auto found = fields.find(kModelNameColumn);
  if (found == fields.end()) {
    throw RuntimeError(std::string("the row has no column ") + kModelNameColumn);
  }
  return &found->second;
}

/// A stored value in a log line; null has no text.
struct Printed {
  std::optional<std::string> operator()(std::nullptr_t) const { return std::nullopt; }
  std::optional<std::string> operator()(std::int64_t value) const { return std::to_string(value); }
  std::optional<std::string> operator()(double value) const { return std::to_string(value); }
  std::optional<std::string> operator()(const std::string& value) const { return value; }
  std::optional<std::string> operator()(const storage::Blob& value) const {
    return "a blob of " + std::to_string(value.size()) + " bytes";
  }
};

}  // namespace

bool EmbeddingEngine::check_backend_migration(storage::Database& db) {
  const std::optional<DatabaseRow> row =
      db.fetchone("SELECT model_name FROM symbol_embeddings LIMIT 1");
  const DatabaseValue* const stored_backend = row ? stored_model_name(*row) : nullptr;
  if (stored_backend == nullptr) return false;
  const std::string current_backend = backend_name();
  const auto* const stored_text = std::get_if<std::string>(stored_backend);
  if (stored_text != nullptr && *stored_text == current_backend) return false;
  log.info("Embedding backend changed from '%s' to '%s' — re-embedding needed",
           std::visit(Printed{}, *stored_backend), current_backend);
  return true;
}

}  // namespace tovana::embedding
