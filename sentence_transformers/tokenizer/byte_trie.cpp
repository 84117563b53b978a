#include "sentence_transformers/tokenizer/byte_trie.h"

#include <algorithm>
#include <array>
#include <bit>
#include <string>
#include <utility>

#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

constexpr std::size_t kBlock = 256;
constexpr std::size_t kMostKeyBytes = std::size_t{16} << 20U;

/// Which slots of one block are taken.
class Occupancy {
 public:
  bool taken(std::size_t slot) const noexcept {
    return ((_words[slot / 64] >> (slot % 64)) & 1U) != 0;
  }
  void take(std::size_t slot) noexcept {
    _words[slot / 64] |= std::uint64_t{1} << (slot % 64);
    ++_count;
  }
  std::size_t free() const noexcept { return kBlock - _count; }
  /// The first free slot from `slot` on, or kBlock.
  std::size_t next_free(std::size_t slot) const noexcept {
    while (slot < kBlock) {
      const std::uint64_t open = ~_words[slot / 64] >> (slot % 64);
      if (open != 0) return slot + static_cast<std::size_t>(std::countr_zero(open));
      slot = (slot / 64 + 1) * 64;
    }
    return kBlock;
  }

 private:
  std::array<std::uint64_t, kBlock / 64> _words = {};
  std::size_t _count = 0;
};

/// The first bytes of a key as a number that sorts as they do; zeros stand for those that it lacks.
std::uint64_t first_bytes(std::string_view key) noexcept {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < sizeof number; ++i) {
    number = number << 8U | (i < key.size() ? static_cast<unsigned char>(key[i]) : 0U);
  }
  return number;
}

/// Sorted by key, of equal keys the last; the keys are copied to `bytes` in their new order,
/// through which the builder passes once for each level. Comparing numbers first halves the time:
/// nearly all keys of a vocabulary differ in them.
std::vector<ByteTrie::Entry> sorted_unique(const std::vector<ByteTrie::Entry>& entries,
                                           std::string& bytes) {
  struct Place {
    std::uint64_t first_bytes;
    std::size_t index;
  };
  std::vector<Place> places;
  places.reserve(entries.size());
  for (const ByteTrie::Entry& entry : entries) {
    places.push_back({first_bytes(entry.key), places.size()});
  }
  std::sort(places.begin(), places.end(), [&](const Place& a, const Place& b) {
    if (a.first_bytes != b.first_bytes) return a.first_bytes < b.first_bytes;
    const int order = entries[a.index].key.compare(entries[b.index].key);
    return order != 0 ? order < 0 : a.index > b.index;
  });
  std::vector<ByteTrie::Entry> sorted;
  sorted.reserve(entries.size());
  for (const Place& place : places) {
    const ByteTrie::Entry& entry = entries[place.index];
    if (!sorted.empty() && sorted.back().key == entry.key) continue;
    const char* const copy = bytes.data() + bytes.size();  // within the capacity
    bytes += entry.key;
    sorted.push_back({std::string_view(copy, entry.key.size()), entry.value});
  }
  return sorted;
}

}  // namespace

/// Places the nodes, breadth first, so that those near the root, which every look-up passes, share
/// cache lines. `entries` are sorted and have different keys that are not empty.
class ByteTrie::Builder {
 public:
  Builder(ByteTrie& trie, const std::vector<Entry>& entries) : _trie(trie), _entries(entries) {}

  void build() {
    const std::size_t likely = _count_nodes() * 17 / 16 + kBlock;
    _trie._slots.reserve(likely);
    _trie._values.reserve(likely);
    _add_block();
    _blocks.front().take(kRoot);
    std::vector<Range> level = {{kRoot, 0, _entries.size()}};
    for (std::size_t depth = 0; !level.empty(); ++depth) {
      std::vector<Range> below;
      for (const Range& range : level) _place_children(range, depth, below);
      level.swap(below);
    }
  }

 private:
  /// The keys that pass through `node`.
  struct Range {
    Node node;
    std::size_t first;
    std::size_t last;
  };

  /// Every byte of a key that it does not share with the key before it is a node.
  std::size_t _count_nodes() const {
    std::size_t nodes = 1;
    std::string_view before;
    for (const Entry& entry : _entries) {
      const std::string_view key = entry.key;
      const auto parted = std::mismatch(key.begin(), key.end(), before.begin(), before.end()).first;
      nodes += static_cast<std::size_t>(key.end() - parted);
      before = key;
    }
    return nodes;
  }

  void _place_children(Range range, std::size_t depth, std::vector<Range>& below) {
    if (range.first < range.last && _entries[range.first].key.size() == depth) {
      _trie._slots[range.node].children |= kEnds;
      _trie._values[range.node] = _entries[range.first].value;
      ++range.first;
    }
    if (range.first == range.last) return;
    const std::size_t first_child = below.size();
    _labels.clear();
    for (std::size_t i = range.first; i < range.last; ++i) {
      const auto label = static_cast<unsigned char>(_entries[i].key[depth]);
      if (_labels.empty() || _labels.back() != label) {
        _labels.push_back(label);
        below.push_back({0, i, i});
      }
      below.back().last = i + 1;
    }
    const std::uint32_t children = _find_room();
    _trie._slots[range.node].children |= children;
    Occupancy& block = _blocks[children / kBlock];
    for (std::size_t i = 0; i < _labels.size(); ++i) {
      const Node child = children ^ Node { _labels[i] };
      block.take(child % kBlock);
      _trie._slots[child].parent = range.node;
      below[first_child + i].node = child;
    }
  }

  /// A `children` for which the slots of all `_labels` are free.
  std::uint32_t _find_room() {
    for (std::size_t b = _first_open; b < _blocks.size(); ++b) {
      const Occupancy& block = _blocks[b];
      if (block.free() < _labels.size()) continue;
      for (std::size_t slot = block.next_free(0); slot < kBlock; slot = block.next_free(slot + 1)) {
        const std::size_t children = slot ^ _labels.front();
        const bool fits = std::none_of(_labels.begin() + 1, _labels.end(), [&](std::size_t label) {
          return block.taken(children ^ label);
        });
        if (fits) return static_cast<std::uint32_t>(b * kBlock + children);
      }
    }
    _add_block();
    return static_cast<std::uint32_t>((_blocks.size() - 1) * kBlock);
  }

  /// Only the newest blocks are searched: that bounds the work a node can cause, and older ones are
  /// nearly full.
  void _add_block() {
    constexpr std::size_t kOpenBlocks = 4;
    _blocks.emplace_back();
    _trie._slots.resize(_blocks.size() * kBlock);
    _trie._values.resize(_blocks.size() * kBlock, -1);
    _first_open = _blocks.size() - std::min(_blocks.size(), kOpenBlocks);
  }

  ByteTrie& _trie;
  const std::vector<Entry>& _entries;
  std::vector<Occupancy> _blocks;
  std::size_t _first_open = 0;
  std::vector<unsigned char> _labels;  ///< Of the node being placed, ascending.
};

ByteTrie::ByteTrie(std::vector<Entry> entries) {
  std::size_t size = 0;
  for (const Entry& entry : entries) {
    size += entry.key.size();
    _largest_value = std::max(_largest_value, entry.value);
  }
  if (size > kMostKeyBytes) {
    throw ValueError("a vocabulary of " + std::to_string(size) + " bytes: the limit is " +
                     std::to_string(kMostKeyBytes));
  }
  std::string bytes;
  bytes.reserve(size);
  entries = sorted_unique(entries, bytes);
  _size = entries.size();
  std::erase_if(entries, [](const Entry& entry) { return entry.key.empty(); });
  Builder(*this, entries).build();
}

std::optional<ByteTrie::Node> ByteTrie::find(std::string_view prefix) const noexcept {
  Node node = kRoot;
  for (const char byte : prefix) {
    const Node child = (_slots[node].children & ~kEnds) ^ static_cast<unsigned char>(byte);
    if (_slots[child].parent != node) return std::nullopt;
    node = child;
  }
  return node;
}

std::optional<std::int32_t> ByteTrie::value_of(std::string_view key) const noexcept {
  const std::optional<Node> node = find(key);
  if (!node || (_slots[*node].children & kEnds) == 0) return std::nullopt;
  return _values[*node];
}

}  // namespace tovana::sentence_transformers
