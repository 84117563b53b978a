#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tovana/base/process_once.h"
#include "tovana/engines/embedding/backends/tfidf/code_tokens.h"

namespace tovana::embedding {

/// The distinct terms of a batch, numbered from 0 in the order of their first occurrence.
///
/// An open-addressing hash table (linear probing, at most three quarters full) of term numbers; the
/// terms' bytes lie one behind another in one buffer. The first eight bytes of a term stand in its
/// entry, so that looking up a short term, as most are, touches a slot and an entry and no more.
/// One thread at a time.
class TermTable {
 public:
  using TermNumber = std::uint32_t;

  TermTable() : _slots(kFirstSlots) {}

  std::size_t size() const noexcept { return _entries.size(); }

  std::string_view term(TermNumber number) const noexcept {
    const Entry& entry = _entries[number];
    return std::string_view(_bytes).substr(entry.offset, entry.size);
  }

  /// The number of a term, which is one of CodeTokenizer's (kReadableBehindTerm) of at least one
  /// byte. A new term gets the next number. Throws std::length_error beyond 2^32 - 1 terms.
  TermNumber intern(std::string_view term) {
    const std::uint64_t head = _head_of(term);
    const std::uint32_t hash = _hash_of(term, head);
    const std::size_t mask = _slots.size() - 1;
    std::size_t index = hash & mask;
    for (; _slots[index].number_plus_1 != 0; index = (index + 1) & mask) {
      const Slot& slot = _slots[index];
      if (slot.hash == hash && _equals(slot.number_plus_1 - 1, term, head)) {
        return slot.number_plus_1 - 1;
      }
    }
    const TermNumber number = _append(term, head);
    _slots[index] = {hash, number + 1};
    if (_entries.size() * 4 > _slots.size() * 3) _grow();
    return number;
  }

 private:
  struct Entry {
    std::uint64_t head;    ///< The first eight bytes, zeros behind a shorter term.
    std::uint64_t offset;  ///< Of all the bytes, in _bytes.
    std::uint64_t size;
  };
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t number_plus_1 = 0;  ///< 0: the slot is empty.
  };

  static constexpr std::size_t kFirstSlots = 64;

  static std::uint64_t _load8(const char* bytes) noexcept {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof word);
    return word;
  }

  static std::uint64_t _head_of(std::string_view term) noexcept {
    static_assert(CodeTokenizer::kReadableBehindTerm >= sizeof(std::uint64_t));
    const std::uint64_t word = _load8(term.data());
    if (term.size() >= sizeof word) return word;
    const auto bits = static_cast<unsigned>(8 * term.size());
    // The term's bytes come first in memory: the low bits on a little-endian machine.
    if constexpr (std::endian::native == std::endian::little) {
      return word & ~(~std::uint64_t{0} << bits);
    } else {
      return word & ~(~std::uint64_t{0} >> bits);
    }
  }

  /// Multiplies to 128 bits and folds the halves together.
  static std::uint64_t _mix(std::uint64_t a, std::uint64_t b) noexcept {
    __extension__ using Wide = unsigned __int128;
    const Wide product = static_cast<Wide>(a) * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64U);
  }

  std::uint32_t _hash_of(std::string_view term, std::uint64_t head) const noexcept {
    constexpr std::uint64_t kOdd = 0x9E3779B97F4A7C15U;  // 2^64 divided by the golden ratio
    std::uint64_t hash = _mix(head ^ _seed, kOdd ^ term.size());
    for (std::size_t offset = 8; offset < term.size(); offset += 8) {
      hash = _mix(hash ^ _head_of(term.substr(offset)), kOdd);
    }
    return static_cast<std::uint32_t>(hash);
  }

  /// Random once a process: indexed code is anybody's, and nobody is to know which words collide.
  static std::uint64_t _process_seed() {
    static constinit ProcessOnce once;
    static constinit std::uint64_t drawn = 0;
    once.call([] {
      std::random_device random;
      drawn = std::uint64_t{random()} << 32U | random();
    });
    return drawn;
  }

  bool _equals(TermNumber number, std::string_view term, std::uint64_t head) const noexcept {
    const Entry& entry = _entries[number];
    return entry.head == head && entry.size == term.size() &&
           (term.size() <= 8 || this->term(number) == term);
  }

  TermNumber _append(std::string_view term, std::uint64_t head) {
    if (_entries.size() == std::numeric_limits<TermNumber>::max()) {
      throw std::length_error("a batch of texts has more than 2^32 - 1 distinct terms");
    }
    _entries.push_back({head, _bytes.size(), term.size()});
    _bytes += term;
    return static_cast<TermNumber>(_entries.size() - 1);
  }

  void _grow() {
    std::vector<Slot> slots(2 * _slots.size());
    const std::size_t mask = slots.size() - 1;
    for (const Slot& slot : _slots) {
      if (slot.number_plus_1 == 0) continue;
      std::size_t index = slot.hash & mask;
      while (slots[index].number_plus_1 != 0) index = (index + 1) & mask;
      slots[index] = slot;
    }
    _slots.swap(slots);
  }

  std::uint64_t _seed = _process_seed();
  std::string _bytes;
  std::vector<Entry> _entries;
  std::vector<Slot> _slots;  ///< A power of two.
};

}  // namespace tovana::embedding
