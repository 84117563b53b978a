#pragma once

#include <array>
#include <cstddef>
#include <vector>

namespace tovana::sentence_transformers {

/// Room for `size` elements that lasts as long as this: on the stack for nearly every word. What is
/// in them at first is anything.
template <class Element, std::size_t kUsual>
class SmallBuffer {
 public:
  explicit SmallBuffer(std::size_t size) : _more(size > kUsual ? size : 0) {}
  SmallBuffer(const SmallBuffer&) = delete;
  SmallBuffer& operator=(const SmallBuffer&) = delete;

  Element* data() noexcept { return _more.empty() ? _usual.data() : _more.data(); }

 private:
  std::array<Element, kUsual> _usual;
  std::vector<Element> _more;
};

}  // namespace tovana::sentence_transformers
