#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tovana::sentence_transformers {

/// The element types of the format. Those narrower than a byte are packed without gaps.
enum class Dtype {
  boolean,
  f4,
  f6_e2m3,
  f6_e3m2,
  u8,
  i8,
  f8_e5m2,
  f8_e4m3,
  f8_e8m0,
  f8_e4m3fnuz,
  f8_e5m2fnuz,
  i16,
  u16,
  f16,
  bf16,
  i32,
  u32,
  f32,
  c64,
  f64,
  i64,
  u64,
};

/// As the format spells it: "F32", "BF16".
std::string_view dtype_name(Dtype dtype) noexcept;
std::optional<Dtype> dtype_from_name(std::string_view name) noexcept;
unsigned bits_of(Dtype dtype) noexcept;

/// Throws ValueError, naming the dtype, unless its numbers can be used as weights: those of F64, F32,
/// F16 and BF16 can.
void check_weight_type(Dtype dtype);

/// One tensor in a file: row-major, little-endian, exactly as many bytes as shape and dtype ask
/// for.
struct TensorEntry {
  Dtype dtype;
  /// [] is a single number; an extent of 0 makes the tensor empty. No extent is negative, and their
  /// product fits 64 bits.
  std::vector<std::int64_t> shape;
  /// Where its bytes begin in the file. NOT a multiple of the element's size: the file decides that.
  std::uint64_t offset;
  std::uint64_t size;  ///< In bytes.

  std::int64_t element_count() const noexcept;
};

using TensorMap = std::map<std::string, TensorEntry, std::less<>>;

/// The elements of an F32 tensor where they lie, without a copy; none for another dtype or when they
/// are not aligned.
std::optional<std::span<const float>> float32_in_place(Dtype dtype,
                                                       std::span<const std::byte> bytes) noexcept;

/// Converts the elements that `bytes` consists of into `out`, which has a float for each. F64 is
/// rounded to the nearest. The others are exact: each of these numbers is an F32; a NaN stays a NaN
/// with its sign and payload. Throws what `check_weight_type` throws.
void copy_float32(Dtype dtype, std::span<const std::byte> bytes, std::span<float> out);

}  // namespace tovana::sentence_transformers
