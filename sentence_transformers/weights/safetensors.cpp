#include "sentence_transformers/weights/safetensors.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <simdjson.h>

#include "tovana/base/utf8.h"
#include "tovana/exceptions/exceptions.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {
namespace {

namespace dom = simdjson::dom;

constexpr std::size_t kLengthBytes = 8;
constexpr std::uint64_t kLongestHeader = 25'000'000;
constexpr std::size_t kDeepestNesting = 64;

/// What the header says of one tensor. Offsets count from the end of the header.
struct HeaderEntry {
  Dtype dtype = Dtype::f32;
  std::vector<std::int64_t> shape;
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
};

using EntryMap = std::map<std::string, HeaderEntry, std::less<>>;

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

HeaderEntry read_entry(std::string_view name, dom::element value) {
  dom::object object;
  if (value.get_object().get(object) != simdjson::SUCCESS)
    refuse(name, "its entry is not an object");
  HeaderEntry entry;
  bool has_dtype = false;
  bool has_shape = false;
  bool has_offsets = false;
  for (const auto [field, content] : object) {
    const auto first = [&name, &field](bool& seen) {
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
  // Versions of the parser differ in whether they skip it.
  if (header.starts_with(utf8::kByteOrderMark)) {
    throw ValueError("the header is not valid JSON: it begins with a byte-order mark");
  }
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
void check_size(std::string_view name, const HeaderEntry& entry) {
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

std::size_t safetensors_head_size(std::span<const std::byte> first_bytes, std::uint64_t file_size) {
  if (file_size < kLengthBytes) {
    throw ValueError("has " + std::to_string(file_size) + " bytes, too few for a safetensors file");
  }
  std::uint64_t header_size = 0;
  std::memcpy(&header_size, first_bytes.data(), kLengthBytes);
  if (header_size > kLongestHeader || header_size > file_size - kLengthBytes) {
    throw ValueError("claims a header of " + std::to_string(header_size) + " bytes in a file of " +
                     std::to_string(file_size) + "; at most " + std::to_string(kLongestHeader) +
                     " are allowed");
  }
  return kLengthBytes + header_size;
}

TensorMap parse_safetensors(std::span<const std::byte> head, std::uint64_t file_size) {
  const std::size_t head_size = safetensors_head_size(head, file_size);
  const std::span<const std::byte> header = head.first(head_size).subspan(kLengthBytes);
  EntryMap entries = read_header({reinterpret_cast<const char*>(header.data()), header.size()});
  check_layout(entries, file_size - head_size);

  TensorMap tensors;
  for (auto& [name, entry] : entries) {
    tensors.emplace_hint(tensors.end(), name,
                         TensorEntry{.dtype = entry.dtype,
                                     .shape = std::move(entry.shape),
                                     .offset = head_size + entry.begin,
                                     .size = entry.end - entry.begin});
  }
  return tensors;
}

namespace {

TensorMap read_tensors(const files::FileHandle& file, const files::FileMapping* mapping) {
  try {
    if (mapping != nullptr) return parse_safetensors(mapping->bytes(), file.size());
    std::vector<std::byte> head(std::min<std::uint64_t>(file.size(), kLengthBytes));
    file.read(0, head);
    head.resize(safetensors_head_size(head, file.size()));
    file.read(kLengthBytes, std::span(head).subspan(kLengthBytes));
    return parse_safetensors(head, file.size());
  } catch (const ValueError& error) {
    throw files::ModelFilesError(file.path() + ": not a valid safetensors file: " + error.what());
  }
}

}  // namespace

SafetensorsFile::SafetensorsFile(files::FileHandle file, FileAccess access)
    : _file(std::move(file)),
      _mapping(access == FileAccess::map ? std::make_shared<const files::FileMapping>(_file)
                                         : nullptr),
      _tensors(read_tensors(_file, _mapping.get())) {}

std::optional<std::span<const float>> SafetensorsFile::in_place(
    const TensorEntry& tensor) const noexcept {
  if (_mapping == nullptr) return std::nullopt;
  return float32_in_place(tensor.dtype, _mapping->bytes().subspan(tensor.offset, tensor.size));
}

void SafetensorsFile::read_float32(const TensorEntry& tensor, std::size_t first,
                                   std::span<float> out) const {
  // What is kept apart has a whole number of bytes: others are not converted.
  const std::size_t width = bits_of(tensor.dtype) / 8;
  const std::uint64_t begin = tensor.offset + first * width;
  if (_mapping != nullptr) {
    copy_float32(tensor.dtype, _mapping->bytes().subspan(begin, out.size() * width), out);
  } else if (tensor.dtype == Dtype::f32) {
    _file.read(begin, std::as_writable_bytes(out));
  } else {
    constexpr std::size_t kAtOnce = std::size_t{1} << 14U;
    std::vector<std::byte> bytes(std::min(out.size(), kAtOnce) * width);
    for (std::size_t done = 0; done < out.size();) {
      const std::span<float> part = out.subspan(done, std::min(out.size() - done, kAtOnce));
      const std::span<std::byte> part_bytes = std::span(bytes).first(part.size() * width);
      _file.read(begin + done * width, part_bytes);
      copy_float32(tensor.dtype, part_bytes, part);
      done += part.size();
    }
  }
}

void SafetensorsFile::discard(const TensorEntry& tensor, std::size_t first,
                              std::size_t count) const noexcept {
  if (_mapping == nullptr) return;
  const std::size_t width = bits_of(tensor.dtype) / 8;
  _mapping->discard(_mapping->bytes().subspan(tensor.offset + first * width, count * width));
}

}  // namespace tovana::sentence_transformers
