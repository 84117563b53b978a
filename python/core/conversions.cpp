#include "conversions.h"

#include <cstdint>
#include <optional>
#include <utility>
#include <variant>

#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>

namespace tovana::python {
namespace {

namespace nb = nanobind;
using embedding::EngineConfiguration;
using embedding::EngineValue;

std::string kind_of(nb::handle value) { return nb::cast<std::string>(nb::inst_name(value)); }

/// A whole number; True is none here.
bool is_number(nb::handle value) {
  return nb::isinstance<nb::int_>(value) && !nb::isinstance<nb::bool_>(value);
}

EngineValue engine_value(const std::string& key, nb::handle value) {
  if (value.is_none()) return nullptr;
  if (nb::isinstance<nb::str>(value)) return text_of(value);
  if (is_number(value)) return nb::cast<std::int64_t>(value);
  throw nb::type_error(
      ("the configuration's " + key + " is a str, an int or None, not " + kind_of(value)).c_str());
}

/// U+FFFD, which is as long, in the place of each surrogate.
std::string without_surrogates(std::string text) {
  for (std::size_t i = 0; i + 2 < text.size(); ++i) {
    if (text[i] == '\xed' && static_cast<unsigned char>(text[i + 1]) >= 0xa0) {
      text.replace(i, 3, "\xef\xbf\xbd");
    }
  }
  return text;
}

struct PythonValue {
  nb::object operator()(std::nullptr_t) const { return nb::none(); }
  nb::object operator()(std::int64_t value) const { return nb::int_(value); }
  nb::object operator()(const std::string& value) const { return python_text(value); }
};

storage::DatabaseValue database_value(nb::handle value) {
  if (value.is_none()) return nullptr;
  if (nb::isinstance<nb::str>(value)) return text_of(value);
  if (is_number(value)) return nb::cast<std::int64_t>(value);
  if (nb::isinstance<nb::float_>(value)) return nb::cast<double>(value);
  if (nb::isinstance<nb::bytes>(value)) {
    const nb::bytes bytes = nb::borrow<nb::bytes>(value);
    const auto* const begin = reinterpret_cast<const std::byte*>(bytes.c_str());
    return storage::Blob(begin, begin + bytes.size());
  }
  throw nb::type_error(("a row holds " + kind_of(value) + ", which no database stores").c_str());
}

}  // namespace

nb::object python_text(std::string_view text) {
  return nb::steal(
      PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace"));
}

std::string text_of(nb::handle text) {
  if (!PyUnicode_Check(text.ptr())) {
    throw nb::type_error(("a text is a str, not " + kind_of(text)).c_str());
  }
  Py_ssize_t size = 0;
  if (const char* const data = PyUnicode_AsUTF8AndSize(text.ptr(), &size); data != nullptr) {
    return {data, static_cast<std::size_t>(size)};
  }
  PyErr_Clear();
  const auto bytes =
      nb::steal<nb::bytes>(PyUnicode_AsEncodedString(text.ptr(), "utf-8", "surrogatepass"));
  if (!bytes.is_valid()) throw nb::python_error();
  return without_surrogates({bytes.c_str(), bytes.size()});
}

std::optional<std::string> optional_text_of(nb::handle text) {
  if (text.is_none()) return std::nullopt;
  return text_of(text);
}

std::vector<std::string> texts_of(const nb::tuple& texts) {
  std::vector<std::string> converted;
  converted.reserve(texts.size());
  for (const nb::handle text : texts) converted.push_back(text_of(text));
  return converted;
}

EngineConfiguration configuration_of(const nb::dict& values) {
  EngineConfiguration configuration;
  for (const auto& [key, value] : values) {
    std::string name = text_of(key);
    EngineValue converted = engine_value(name, value);
    configuration.insert_or_assign(std::move(name), std::move(converted));
  }
  return configuration;
}

nb::dict python_configuration(const EngineConfiguration& configuration) {
  nb::dict values;
  for (const auto& [key, value] : configuration) {
    values[python_text(key)] = std::visit(PythonValue(), value);
  }
  return values;
}

std::optional<storage::DatabaseRow> row_of(nb::handle row) {
  if (row.is_none()) return std::nullopt;
  storage::PositionalRow values;
  for (const nb::handle value : nb::cast<nb::tuple>(row)) values.push_back(database_value(value));
  return values;
}

nb::object python_status(const embedding::EmbeddingStatus& status) {
  const auto text = [](const std::optional<std::string>& value) {
    return value ? python_text(*value) : nb::none();
  };
  return nb::module_::import_("tovana_embedding.status")
      .attr("EmbeddingStatus")(python_text(status.state), text(status.backend), text(status.detail),
                               status.loading_s, status.retry_in_s);
}

}  // namespace tovana::python
