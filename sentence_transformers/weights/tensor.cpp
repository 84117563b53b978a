#include "sentence_transformers/weights/tensor.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

static_assert(std::endian::native == std::endian::little, "the format's numbers are little-endian");

struct DtypeEntry {
  Dtype dtype;
  std::string_view name;
  unsigned bits;
};

constexpr std::array<DtypeEntry, 22> kDtypes = {{
    {Dtype::boolean, "BOOL", 8},
    {Dtype::f4, "F4", 4},
    {Dtype::f6_e2m3, "F6_E2M3", 6},
    {Dtype::f6_e3m2, "F6_E3M2", 6},
    {Dtype::u8, "U8", 8},
    {Dtype::i8, "I8", 8},
    {Dtype::f8_e5m2, "F8_E5M2", 8},
    {Dtype::f8_e4m3, "F8_E4M3", 8},
    {Dtype::f8_e8m0, "F8_E8M0", 8},
    {Dtype::f8_e4m3fnuz, "F8_E4M3FNUZ", 8},
    {Dtype::f8_e5m2fnuz, "F8_E5M2FNUZ", 8},
    {Dtype::i16, "I16", 16},
    {Dtype::u16, "U16", 16},
    {Dtype::f16, "F16", 16},
    {Dtype::bf16, "BF16", 16},
    {Dtype::i32, "I32", 32},
    {Dtype::u32, "U32", 32},
    {Dtype::f32, "F32", 32},
    {Dtype::c64, "C64", 64},
    {Dtype::f64, "F64", 64},
    {Dtype::i64, "I64", 64},
    {Dtype::u64, "U64", 64},
}};

const DtypeEntry& entry_of(Dtype dtype) noexcept {
  return kDtypes[static_cast<std::size_t>(dtype)];
}

static_assert(std::ranges::is_sorted(kDtypes, {}, &DtypeEntry::dtype));
static_assert(kDtypes.back().dtype == Dtype::u64 && kDtypes.size() == std::size_t{21} + 1);

std::uint16_t half_at(const std::byte* bytes, std::size_t index) noexcept {
  std::uint16_t value = 0;
  std::memcpy(&value, bytes + 2 * index, sizeof value);
  return value;
}

/// One of two numbers, computed rather than jumped to: a choice between results of floating-point
/// operations would keep the compiler from making vector code.
std::uint32_t choose(bool first, std::uint32_t one, std::uint32_t other) noexcept {
  return other ^ ((one ^ other) & (0U - std::uint32_t{first}));
}

/// Every half-precision number as a single-precision one: the bit patterns of the ordinary numbers,
/// of infinities and NaNs, and of the subnormal ones, of which one is chosen.
void widen_f16(const std::byte* bytes, std::span<float> out) noexcept {
  constexpr std::uint32_t kRebias = (127U - 15U) << 23U;
  for (std::size_t i = 0; i < out.size(); ++i) {
    const std::uint32_t half = half_at(bytes, i);
    const std::uint32_t magnitude = half & 0x7FFFU;
    const std::uint32_t shifted = magnitude << 13U;
    const std::uint32_t ordinary = shifted + kRebias;
    const std::uint32_t not_finite = shifted + 2 * kRebias;
    const auto subnormal = std::bit_cast<std::uint32_t>(
        static_cast<float>(static_cast<std::int32_t>(magnitude)) * 0x1p-24F);
    const std::uint32_t finite = choose(magnitude < 0x0400U, subnormal, ordinary);
    const std::uint32_t result = choose(magnitude >= 0x7C00U, not_finite, finite);
    out[i] = std::bit_cast<float>(result | (half & 0x8000U) << 16U);
  }
}

void widen_bf16(const std::byte* bytes, std::span<float> out) noexcept {
  for (std::size_t i = 0; i < out.size(); ++i) {
    out[i] = std::bit_cast<float>(std::uint32_t{half_at(bytes, i)} << 16U);
  }
}

void narrow_f64(const std::byte* bytes, std::span<float> out) noexcept {
  for (std::size_t i = 0; i < out.size(); ++i) {
    double value = 0;
    std::memcpy(&value, bytes + 8 * i, sizeof value);
    out[i] = static_cast<float>(value);
  }
}

}  // namespace

std::string_view dtype_name(Dtype dtype) noexcept { return entry_of(dtype).name; }

std::optional<Dtype> dtype_from_name(std::string_view name) noexcept {
  const auto found = std::ranges::find(kDtypes, name, &DtypeEntry::name);
  if (found == kDtypes.end()) return std::nullopt;
  return found->dtype;
}

unsigned bits_of(Dtype dtype) noexcept { return entry_of(dtype).bits; }

void check_weight_type(Dtype dtype) {
  if (dtype == Dtype::f64 || dtype == Dtype::f32 || dtype == Dtype::f16 || dtype == Dtype::bf16) {
    return;
  }
  throw ValueError("weights of type " + std::string(dtype_name(dtype)) +
                   " cannot be used: F64, F32, F16 and BF16 can");
}

std::int64_t TensorEntry::element_count() const noexcept {
  std::int64_t count = 1;
  for (const std::int64_t extent : shape) count *= extent;
  return count;
}

std::optional<std::span<const float>> float32_in_place(Dtype dtype,
                                                       std::span<const std::byte> bytes) noexcept {
  const auto address = std::bit_cast<std::uintptr_t>(bytes.data());
  if (dtype != Dtype::f32 || address % alignof(float) != 0) return std::nullopt;
  return std::span(reinterpret_cast<const float*>(bytes.data()), bytes.size() / sizeof(float));
}

void copy_float32(Dtype dtype, std::span<const std::byte> bytes, std::span<float> out) {
  switch (dtype) {
    case Dtype::f32:
      if (!out.empty()) std::memcpy(out.data(), bytes.data(), bytes.size());
      return;
    case Dtype::f16:
      return widen_f16(bytes.data(), out);
    case Dtype::bf16:
      return widen_bf16(bytes.data(), out);
    case Dtype::f64:
      return narrow_f64(bytes.data(), out);
    default:
      return check_weight_type(dtype);
  }
}

}  // namespace tovana::sentence_transformers
