#include "sentence_transformers/tokenizer/normalizers/precompiled.h"

#include "sentence_transformers/tokenizer/characters.h"
#include "sentence_transformers/tokenizer/normalizers/grapheme_clusters.h"
#include "tovana/base/text.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

constexpr std::size_t kUnit = sizeof(std::uint32_t);
/// A longer cluster is not replaced as a whole.
constexpr std::size_t kShortCluster = 6;

std::uint32_t little_endian(std::string_view bytes) noexcept {
  std::uint32_t number = 0;
  for (std::size_t i = kUnit; i > 0; --i) {
    number = number << 8U | static_cast<unsigned char>(bytes[i - 1]);
  }
  return number;
}

// The parts of a unit of the trie.
std::size_t offset_of(std::uint32_t unit) noexcept {
  return std::size_t{unit >> 10U} << ((unit & 0x200U) >> 6U);
}
std::uint32_t label_of(std::uint32_t unit) noexcept { return unit & 0x800000FFU; }
bool has_value(std::uint32_t unit) noexcept { return (unit & 0x100U) != 0; }
std::size_t value_of(std::uint32_t unit) noexcept { return unit & 0x7FFFFFFFU; }

bool is_continuation(char byte) noexcept {
  return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80;
}

}  // namespace

Precompiled::Precompiled(std::string_view map) {
  const std::size_t size = map.size() < kUnit ? 0 : little_endian(map);
  if (map.size() < kUnit || size > map.size() - kUnit || size % kUnit != 0 || size == 0) {
    throw ValueError("is not a map of characters: its trie is cut off");
  }
  for (std::size_t at = kUnit; at < kUnit + size; at += kUnit) {
    _units.push_back(little_endian(map.substr(at, kUnit)));
  }
  _texts = map.substr(kUnit + size);
  if (!is_well_formed_utf8(_texts)) {
    throw ValueError("is not a map of characters: its texts are not UTF-8");
  }
  for (std::size_t byte = 0; byte < _is_kept.size(); ++byte) {
    const char character = static_cast<char>(byte);
    _is_kept[byte] = character != '\r' && !_shortest_match(std::string_view(&character, 1));
  }
}

std::optional<std::string_view> Precompiled::_shortest_match(std::string_view text) const noexcept {
  std::size_t at = offset_of(_units.front());
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte == 0) break;
    at ^= byte;
    if (at >= _units.size() || label_of(_units[at]) != byte) break;
    const std::uint32_t unit = _units[at];
    at ^= offset_of(unit);
    if (!has_value(unit)) continue;
    if (at >= _units.size()) break;
    const std::size_t begin = value_of(_units[at]);
    if (begin >= _texts.size() || is_continuation(_texts[begin])) break;
    const std::string_view found = std::string_view(_texts).substr(begin);
    return found.substr(0, found.find('\0'));
  }
  return std::nullopt;
}

void Precompiled::_append(std::string_view piece, std::string& normalized) const {
  normalized += _shortest_match(piece).value_or(piece);
}

void Precompiled::normalize(std::string& text) const {
  std::string normalized;
  normalized.reserve(text.size());
  const std::string_view all = text;
  const auto is_plain = [&](std::size_t at) {
    const auto byte = static_cast<unsigned char>(all[at]);
    return byte < 0x80 && _is_kept[byte];
  };
  const auto is_wide = [&](std::size_t at) {
    return at < all.size() && static_cast<unsigned char>(all[at]) >= 0x80;
  };
  for (std::size_t at = 0; at < all.size();) {
    // ASCII joins no cluster but with what is not ASCII behind it.
    std::size_t end = at;
    while (end < all.size() && is_plain(end) && !is_wide(end + 1)) ++end;
    normalized += all.substr(at, end - at);
    at = end;
    if (at == all.size()) break;
    const std::string_view cluster = all.substr(at, cluster_size(all.substr(at)));
    at += cluster.size();
    if (const auto match =
            cluster.size() < kShortCluster ? _shortest_match(cluster) : std::nullopt) {
      normalized += *match;
    } else {
      for_each_character(cluster,
                         [&](char32_t, std::string_view bytes) { _append(bytes, normalized); });
    }
  }
  text = std::move(normalized);
}

}  // namespace tovana::sentence_transformers
