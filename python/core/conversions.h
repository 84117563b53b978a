#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nanobind/nanobind.h>

#include "tovana/engines/embedding/engine/configuration.h"
#include "tovana/engines/embedding/engine/status.h"
#include "tovana/storage/database.h"

/// Values of Python as the component's, and back. All have the interpreter, and throw Python's
/// TypeError for values of other types.
namespace tovana::python {

/// UTF-8 as Python's text, an ill-formed sequence as U+FFFD: no message is lost for its encoding.
nanobind::object python_text(std::string_view text);

/// A text in UTF-8. Surrogates, which have no place there, become U+FFFD.
std::string text_of(nanobind::handle text);
/// The same; null for None.
std::optional<std::string> optional_text_of(nanobind::handle text);
std::vector<std::string> texts_of(const nanobind::tuple& texts);

/// Nones, whole numbers and texts by name.
embedding::EngineConfiguration configuration_of(const nanobind::dict& values);
nanobind::dict python_configuration(const embedding::EngineConfiguration& configuration);

/// A row of a database: None, or a tuple of values as SQLite has them.
std::optional<storage::DatabaseRow> row_of(nanobind::handle row);

/// The fields of a status as `tovana_embedding.EmbeddingStatus`, and back as they stand in it.
nanobind::object python_status(const embedding::EmbeddingStatus& status);

}  // namespace tovana::python
