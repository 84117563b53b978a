#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace tovana::sentence_transformers {

/// A fixed set of byte strings with a number each, which finds the longest one that a text begins
/// with in one step a byte.
///
/// It is a double-array trie: the child of a node for a byte is the slot `children ^ byte`, if that
/// slot's parent is the node. A step is two dependent loads from one slot of eight bytes, whatever
/// the strings are, so a hostile set cannot slow it down as it could a hash table.
///
/// Threads: immutable; any number may use one.
class ByteTrie {
 public:
  struct Entry {
    std::string_view key;
    std::int32_t value;  ///< Not negative.
  };
  using Node = std::uint32_t;
  static constexpr Node kRoot = 0;

  struct Match {
    std::int32_t value;
    std::size_t size;  ///< 0: nothing matches.
  };

  /// Of equal keys the last entry counts; the empty key is never found. The keys are not referred
  /// to afterwards. Throws ValueError for more than 16 MiB of keys.
  explicit ByteTrie(std::vector<Entry> entries);

  /// How many different keys there are.
  std::size_t size() const noexcept { return _size; }

  /// 0 when there are none.
  std::int32_t largest_value() const noexcept { return _largest_value; }

  /// The node that the keys beginning with `prefix` hang below.
  std::optional<Node> find(std::string_view prefix) const noexcept;

  /// The value of exactly this key.
  std::optional<std::int32_t> value_of(std::string_view key) const noexcept;

  /// Calls `on_match(value, size)` for each key that [at, end) begins with, the shortest first.
  template <class OnMatch>
  void for_each_match(const char* at, const char* end, const OnMatch& on_match) const {
    const Slot* const slots = _slots.data();
    Node node = kRoot;
    for (const char* next = at; next != end;) {
      const Node child = (slots[node].children & ~kEnds) ^ static_cast<unsigned char>(*next);
      if (slots[child].parent != node) return;
      node = child;
      ++next;
      if ((slots[node].children & kEnds) != 0) {
        on_match(_values[node], static_cast<std::size_t>(next - at));
      }
    }
  }

  /// Of the keys below `from` that [at, end) goes on with, the longest.
  Match longest_match(const char* at, const char* end, Node from = kRoot) const noexcept {
    const Slot* const slots = _slots.data();
    Node node = from;
    Node matched = kRoot;
    const char* matched_end = at;
    const char* next = at;
    while (next != end) {
      const Node child = (slots[node].children & ~kEnds) ^ static_cast<unsigned char>(*next);
      if (slots[child].parent != node) break;
      node = child;
      ++next;
      if ((slots[node].children & kEnds) != 0) {
        matched = node;
        matched_end = next;
      }
    }
    return {_values[matched], static_cast<std::size_t>(matched_end - at)};
  }

 private:
  class Builder;

  struct Slot {
    std::uint32_t children = 0;    ///< What a byte is combined with; kEnds: a key ends here.
    std::uint32_t parent = kNone;  ///< kNone: free, or the root.
  };
  static constexpr std::uint32_t kEnds = std::uint32_t{1} << 31U;
  static constexpr std::uint32_t kNone = ~std::uint32_t{0};

  std::vector<Slot> _slots;  ///< A multiple of 256, so that no byte leads out of it.
  std::vector<std::int32_t> _values;
  std::size_t _size = 0;
  std::int32_t _largest_value = 0;
};

}  // namespace tovana::sentence_transformers
