#include "sentence_transformers/weights/safetensors.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <simdjson.h>

#include "tovana/exceptions/exceptions.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {
namespace {

namespace dom = simdjson::dom;

constexpr std::size_t kLengthBytes = 8;
constexpr std::uint64_t kLongestHeader = 25'000'000;
constexpr std::size_t kDeepestNesting = 64;

/// What the header says of one tensor. Offsets count from the end of the header.
struct TensorEntry {
  Dtype dtype = Dtype::f32;
  std::vector<std::int64_t> shape;
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
};

using EntryMap = std::map<std::string, TensorEntry, std::less<>>;

[[noreturn]] void refuse(std::string_view tensor, const std::string& fault) {
  throw ValueError("tensor " + files::in_quotes(tensor) + ": " + fault);
}

Dtype read_dtype(std::string_view tensor, dom::element value) {
  std::string_view name;
  if (value.get_string().get(name) != simdjson::SUCCESS)
    refuse(tensor, "\"dtype\" is not a string");
  const std::optional<Dtype> dtype = dtype_from_name(name);
  if (!dtype) refuse(tensor, "unknown dtype " + files::in_quotes(name));
  return *dtype;
}

/// A list of whole numbers that are not negative.
std::vector<std::uint64_t> read_numbers(std::string_view tensor, std::string_view field,
                                        dom::element value) {
  dom::array list;
  if (value.get_array().get(list) != simdjson::SUCCESS) {
    refuse(tensor, files::in_quotes(field) + " is not an array");
  }
  std::vector<std::uint64_t> numbers;
  for (const dom::element element : list) {
    if (!element.is_uint64() && !element.is_int64()) {
      refuse(tensor, files::in_quotes(field) + " holds something else than whole numbers");
    }
    std::uint64_t number = 0;
    if (element.get_uint64().get(number) != simdjson::SUCCESS) {
      refuse(tensor, files::in_quotes(field) + " holds a negative number");
    }
    numbers.push_back(number);
  }
  return numbers;
}

std::vector<std::int64_t> read_shape(std::string_view tensor, dom::element value) {
  std::vector<std::int64_t> shape;
  for (const std::uint64_t extent : read_numbers(tensor, "shape", value)) {
    if (extent > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      refuse(tensor, "\"shape\" holds " + std::to_string(extent) + ", more than any tensor has");
    }
    shape.push_back(static_cast<std::int64_t>(extent));
  }
  return shape;
}

TensorEntry read_entry(std::string_view name, dom::element value) {
  dom::object object;
  if (value.get_object().get(object) != simdjson::SUCCESS)
    refuse(name, "its entry is not an object");
  TensorEntry entry;
  bool has_dtype = false;
  bool has_shape = false;
  bool has_offsets = false;
  for (const auto [field, content] : object) {
    const auto first = [&name, &field = field](bool& seen) {
      if (std::exchange(seen, true)) refuse(name, files::in_quotes(field) + " comes twice");
    };
    if (field == "dtype") {
      first(has_dtype);
      entry.dtype = read_dtype(name, content);
    } else if (field == "shape") {
      first(has_shape);
      entry.shape = read_shape(name, content);
    } else if (field == "data_offsets") {
      first(has_offsets);
      const std::vector<std::uint64_t> offsets = read_numbers(name, field, content);
      if (offsets.size() != 2) refuse(name, "\"data_offsets\" are not two numbers");
      entry.begin = offsets[0];
      entry.end = offsets[1];
    }
  }
  if (!has_dtype) refuse(name, "has no \"dtype\"");
  if (!has_shape) refuse(name, "has no \"shape\"");
  if (!has_offsets) refuse(name, "has no \"data_offsets\"");
  return entry;
}

void check_metadata(dom::element value) {
  if (value.is_null()) return;
  dom::object object;
  if (value.get_object().get(object) != simdjson::SUCCESS) {
    throw ValueError("\"__metadata__\" is not an object");
  }
  for (const auto [key, content] : object) {
    if (!content.is_string()) {
      throw ValueError("\"__metadata__\": the value of " + files::in_quotes(key) +
                       " is not a string");
    }
  }
}

EntryMap read_header(std::string_view header) {
  const simdjson::padded_string text(header);
  dom::parser parser;
  simdjson::error_code error = parser.allocate(text.size(), kDeepestNesting);
  dom::element root;
  if (error == simdjson::SUCCESS) error = parser.parse(text).get(root);
  if (error == simdjson::MEMALLOC) throw std::bad_alloc();
  if (error != simdjson::SUCCESS) {
    throw ValueError(std::string("the header is not valid JSON: ") +
                     simdjson::error_message(error));
  }
  dom::object object;
  if (root.get_object().get(object) != simdjson::SUCCESS) {
    throw ValueError("the header is no JSON object");
  }
  EntryMap entries;
  bool has_metadata = false;
  for (const auto [name, content] : object) {
    if (name == "__metadata__") {
      if (std::exchange(has_metadata, true)) throw ValueError("\"__metadata__\" comes twice");
      check_metadata(content);
    } else {
      entries.insert_or_assign(std::string(name), read_entry(name, content));
    }
  }
  return entries;
}

/// Throws unless the tensor's bytes are as many as its shape and dtype ask for.
void check_size(std::string_view name, const TensorEntry& entry) {
  std::uint64_t bits = 1;
  bool overflows = false;
  for (const std::int64_t extent : entry.shape) {
    overflows |= __builtin_mul_overflow(bits, static_cast<std::uint64_t>(extent), &bits);
  }
  overflows |= __builtin_mul_overflow(bits, std::uint64_t{bits_of(entry.dtype)}, &bits);
  if (overflows) refuse(name, "its shape is larger than any memory");
  if (bits % 8 != 0) refuse(name, "does not end at a whole byte");
  if (entry.end - entry.begin != bits / 8) {
    refuse(name, "has " + std::to_string(entry.end - entry.begin) +
                     " bytes of data, but its shape of " + std::string(dtype_name(entry.dtype)) +
                     " takes " + std::to_string(bits / 8));
  }
}

/// Throws unless the tensors cover `data_size` bytes without a hole and without an overlap. Then
/// every offset lies within the data.
void check_layout(const EntryMap& entries, std::uint64_t data_size) {
  std::vector<const EntryMap::value_type*> in_order;
  in_order.reserve(entries.size());
  for (const auto& named : entries) in_order.push_back(&named);
  std::ranges::sort(in_order, {}, [](const EntryMap::value_type* named) {
    return std::pair(named->second.begin, named->second.end);
  });
  std::uint64_t covered = 0;
  for (const auto* const named : in_order) {
    const auto& [name, entry] = *named;
    if (entry.end < entry.begin) refuse(name, "its data ends before it begins");
    if (entry.begin > covered) {
      refuse(name, "there is a hole of " + std::to_string(entry.begin - covered) +
                       " bytes before its data");
    }
    if (entry.begin < covered) refuse(name, "its data overlaps that of another tensor");
    check_size(name, entry);
    covered = entry.end;
  }
  if (covered != data_size) {
    throw ValueError("the header describes " + std::to_string(covered) +
                     " bytes of data, but there are " + std::to_string(data_size));
  }
}

}  // namespace

TensorMap parse_safetensors(std::span<const std::byte> file) {
  if (file.size() < kLengthBytes) {
    throw ValueError("has " + std::to_string(file.size()) +
                     " bytes, too few for a safetensors file");
  }
  std::uint64_t header_size = 0;
  std::memcpy(&header_size, file.data(), kLengthBytes);
  if (header_size > kLongestHeader || header_size > file.size() - kLengthBytes) {
    throw ValueError("claims a header of " + std::to_string(header_size) + " bytes in a file of " +
                     std::to_string(file.size()) + "; at most " + std::to_string(kLongestHeader) +
                     " are allowed");
  }
  const std::span<const std::byte> header = file.subspan(kLengthBytes, header_size);
  const std::span<const std::byte> data = file.subspan(kLengthBytes + header_size);
  EntryMap entries = read_header({reinterpret_cast<const char*>(header.data()), header.size()});
  check_layout(entries, data.size());

  TensorMap tensors;
  for (auto& [name, entry] : entries) {
    tensors.emplace_hint(tensors.end(), name,
                         TensorView{.dtype = entry.dtype,
                                    .shape = std::move(entry.shape),
                                    .data = data.subspan(entry.begin, entry.end - entry.begin)});
  }
  return tensors;
}

SafetensorsFile::SafetensorsFile(files::FileMemory memory, TensorMap tensors) noexcept
    : _memory(std::move(memory)), _tensors(std::move(tensors)) {}

SafetensorsFile SafetensorsFile::open(const files::FileHandle& file, files::FileAccess access) {
  files::FileMemory memory(file, access);
  try {
    TensorMap tensors = parse_safetensors(memory.bytes());
    file.check_unchanged();
    return SafetensorsFile(std::move(memory), std::move(tensors));
  } catch (const ValueError& error) {
    throw files::ModelFilesError(file.path() + ": not a valid safetensors file: " + error.what());
  }
}

void SafetensorsFile::discard(const TensorView& tensor) const noexcept {
  const std::byte* const begin = _memory.bytes().data();
  const std::byte* const end = begin + _memory.bytes().size();
  if (std::less_equal<>()(begin, tensor.data.data()) && std::less<>()(tensor.data.data(), end)) {
    _memory.discard(tensor.data);
  }
}

const TensorView* SafetensorsFile::find(std::string_view name) const noexcept {
  const auto found = _tensors.find(name);
  return found == _tensors.end() ? nullptr : &found->second;
}

}  // namespace tovana::sentence_transformers
