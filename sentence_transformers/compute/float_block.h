#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>

#include "tovana/base/huge_pages.h"

namespace tovana::sentence_transformers {

/// A block of floats that begins on a cache line; not set to anything. Move only.
class FloatBlock {
 public:
  FloatBlock() = default;
  explicit FloatBlock(std::size_t size) : _size(size) {
    if (size == 0) return;
    constexpr std::size_t kLine = 64;
    const std::size_t bytes = (size * sizeof(float) + kLine - 1) / kLine * kLine;
    _data.reset(static_cast<float*>(std::aligned_alloc(kLine, bytes)));
    if (_data == nullptr) throw std::bad_alloc();
    prefer_huge_pages(_data.get(), bytes);
  }

  float* data() const noexcept { return _data.get(); }
  std::size_t size() const noexcept { return _size; }

 private:
  struct Free {
    void operator()(float* data) const noexcept { std::free(data); }
  };
  std::unique_ptr<float, Free> _data;
  std::size_t _size = 0;
};

/// Hands out consecutive pieces of a block, each from the beginning of a cache line.
class FloatSlices {
 public:
  explicit FloatSlices(float* data) : _next(data) {}

  static constexpr std::size_t size(std::size_t count) { return (count + 15) / 16 * 16; }
  float* take(std::size_t count) {
    float* const slice = _next;
    _next += size(count);
    return slice;
  }

 private:
  float* _next;
};

}  // namespace tovana::sentence_transformers
