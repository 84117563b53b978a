#include "sentence_transformers/tokenizer/normalizers/grapheme_clusters.h"

#include "sentence_transformers/tokenizer/unicode_forms.h"
#include "sentence_transformers/tokenizer/unicode_tables.h"
#include "tovana/base/utf8.h"

namespace tovana::sentence_transformers {
namespace {

using unicode::Cluster;

/// Whether a syllable of Hangul ends in a vowel, or a jamo behind which another may stand.
enum class Hangul { none, leading, vowel, trailing, open_syllable, closed_syllable };

Hangul hangul_of(char32_t code_point, Cluster cluster) noexcept {
  constexpr char32_t kTrailings = 28;
  if (code_point >= unicode::kFirstHangulSyllable && code_point <= unicode::kLastHangulSyllable) {
    const bool is_open = (code_point - unicode::kFirstHangulSyllable) % kTrailings == 0;
    return is_open ? Hangul::open_syllable : Hangul::closed_syllable;
  }
  if (cluster == Cluster::leading) return Hangul::leading;
  if (cluster == Cluster::vowel) return Hangul::vowel;
  return cluster == Cluster::trailing ? Hangul::trailing : Hangul::none;
}

bool are_one_syllable(Hangul before, Hangul next) noexcept {
  switch (before) {
    case Hangul::leading:
      return next != Hangul::none && next != Hangul::trailing;
    case Hangul::vowel:
    case Hangul::open_syllable:
      return next == Hangul::vowel || next == Hangul::trailing;
    case Hangul::trailing:
    case Hangul::closed_syllable:
      return next == Hangul::trailing;
    case Hangul::none:
      break;
  }
  return false;
}

/// What the characters so far say of the next one.
class Boundaries {
 public:
  Boundaries(char32_t code_point, Cluster cluster) noexcept { _take(code_point, cluster); }

  /// Whether a character goes on with the cluster; it is taken to do so.
  bool joins(char32_t code_point, Cluster cluster) noexcept {
    const bool one = _is_one(code_point, cluster);
    _take(code_point, cluster);
    return one;
  }

 private:
  bool _is_one(char32_t code_point, Cluster next) const noexcept {
    if (_before == Cluster::control || next == Cluster::control) {
      return _last == U'\r' && code_point == U'\n';
    }
    switch (next) {
      case Cluster::extend:
      case Cluster::extend_only:
      case Cluster::spacing:
      case Cluster::linker:
      case Cluster::joiner:
        return true;
      case Cluster::pictograph:
        if (_joined_pictograph) return true;
        break;
      case Cluster::consonant:
        if (_linked_consonant) return true;
        break;
      default:
        break;
    }
    return _before == Cluster::prepend ||
           are_one_syllable(hangul_of(_last, _before), hangul_of(code_point, next));
  }

  void _take(char32_t code_point, Cluster cluster) noexcept {
    const bool extends =
        cluster == Cluster::extend || cluster == Cluster::linker || cluster == Cluster::extend_only;
    // A pictograph, marks, a joiner: then another one belongs to it.
    _joined_pictograph = cluster == Cluster::joiner && _pictograph;
    _pictograph = cluster == Cluster::pictograph || (_pictograph && extends);
    // A consonant and marks, one of them a linker: then another one belongs to it.
    const bool in_conjunct =
        cluster == Cluster::extend || cluster == Cluster::linker || cluster == Cluster::joiner;
    _linked_consonant =
        (_linked_consonant && in_conjunct) || (_consonant && cluster == Cluster::linker);
    _consonant = cluster == Cluster::consonant || (_consonant && in_conjunct);
    _before = cluster;
    _last = code_point;
  }

  Cluster _before = Cluster::other;
  char32_t _last = 0;
  bool _pictograph = false;
  bool _joined_pictograph = false;
  bool _consonant = false;
  bool _linked_consonant = false;
};

}  // namespace

std::size_t cluster_size(std::string_view text) noexcept {
  const char* const end = text.data() + text.size();
  const char* at = text.data();
  utf8::Decoded character = utf8::decode(at, end);
  Boundaries boundaries(character.code_point, unicode::form_of(character.code_point).cluster());
  for (at += character.size; at != end; at += character.size) {
    character = utf8::decode(at, end);
    if (!boundaries.joins(character.code_point, unicode::form_of(character.code_point).cluster())) {
      break;
    }
  }
  return static_cast<std::size_t>(at - text.data());
}

}  // namespace tovana::sentence_transformers
