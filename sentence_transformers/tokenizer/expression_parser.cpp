// From the text of an expression to its program.

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "sentence_transformers/tokenizer/expression.h"
#include "tovana/base/utf8.h"
#include "tovana/exceptions/exceptions.h"
#include "tovana/files/model_directory.h"

namespace tovana::sentence_transformers {
namespace {

constexpr std::uint32_t kNoLimit = std::numeric_limits<std::uint32_t>::max();
constexpr std::size_t kLongestProgram = 4096;
constexpr std::uint32_t kMostRepetitions = 1000;
constexpr int kDeepest = 32;

struct Category {
  std::string_view name;
  std::uint16_t properties;
};

constexpr Category kCategories[] = {
    {"L", unicode::kLetter},          {"Lu", unicode::kUpperLetter},
    {"Ll", unicode::kLowerLetter},    {"Lt", unicode::kTitleLetter},
    {"Lm", unicode::kModifierLetter}, {"Lo", unicode::kOtherLetter},
    {"M", unicode::kAnyMark},         {"N", unicode::kNumber},
    {"P", unicode::kAnyPunctuation},  {"S", unicode::kSymbol},
    {"Z", unicode::kSeparator},       {"C", unicode::kOther},
};

bool is_letter(char32_t character) {
  return (character | 0x20U) >= U'a' && (character | 0x20U) <= U'z' && character < 0x80;
}

struct Repetition {
  enum class Way { greedy, lazy, possessive };

  std::uint32_t least;
  std::uint32_t most;
  Way way = Way::greedy;
};

}  // namespace

/// A recursive descent over the pattern, which writes the program as it goes.
class ExpressionParser {
 public:
  ExpressionParser(std::string_view pattern, Expression& expression)
      : _pattern(pattern), _expression(expression) {}

  void parse() {
    const bool may_be_empty = _alternatives();
    if (!_left().empty()) _refuse("has a \")\" too many");
    if (may_be_empty) _refuse("matches an empty text");
    _emit({Op::accept});
  }

 private:
  using Op = Expression::Op;
  using Instruction = Expression::Instruction;

  [[noreturn]] void _refuse(const std::string& fault) const {
    throw ValueError("is an expression that " + fault);
  }
  [[noreturn]] void _refuse_text(std::string_view what) const {
    _refuse("holds " + files::in_quotes(what) + ", which is not supported");
  }

  std::string_view _left() const { return _pattern.substr(_at); }
  bool _looking_at(std::string_view text) const { return _left().starts_with(text); }
  bool _skip(std::string_view text) {
    if (!_looking_at(text)) return false;
    _at += text.size();
    return true;
  }

  char32_t _next() {
    if (_left().empty()) _refuse("ends too soon");
    const utf8::Decoded character = utf8::decode(_left().data(), _left().data() + _left().size());
    _at += character.size;
    return character.code_point;
  }

  std::uint32_t _place() const { return static_cast<std::uint32_t>(_expression._program.size()); }

  std::uint32_t _emit(Instruction instruction) {
    if (_place() >= kLongestProgram) _refuse("is too long");
    _expression._program.push_back(instruction);
    return _place() - 1;
  }
  Instruction& _at_place(std::uint32_t place) { return _expression._program[place]; }

  // Each returns whether what it read matches an empty text.

  bool _alternatives() {
    if (++_depth > kDeepest) _refuse("is nested too deeply");
    bool may_be_empty = false;
    std::vector<std::uint32_t> ends;
    for (;;) {
      // The split before an alternative is put in front of it when another one follows.
      const std::uint32_t begin = _place();
      may_be_empty = _sequence() || may_be_empty;
      if (!_skip("|")) break;
      _insert(begin, {.op = Op::split, .target = begin + 1});
      ends.push_back(_emit({Op::jump}));
      _at_place(begin).other = _place();
    }
    for (const std::uint32_t end : ends) _at_place(end).target = _place();
    --_depth;
    return may_be_empty;
  }

  bool _sequence() {
    bool may_be_empty = true;
    while (!_left().empty() && !_looking_at("|") && !_looking_at(")")) {
      may_be_empty = _piece() && may_be_empty;
    }
    return may_be_empty;
  }

  bool _piece() {
    const std::uint32_t begin = _place();
    const bool may_be_empty = _atom();
    const std::optional<Repetition> repetition = _repetition();
    if (!repetition) return may_be_empty;
    const std::vector<Instruction> atom(_expression._program.begin() + begin,
                                        _expression._program.end());
    if (atom.size() == 1 && atom.front().op == Op::set) {
      _repeat_set(begin, *repetition);
    } else {
      if (may_be_empty) _refuse("repeats what matches an empty text");
      _repeat_group(begin, atom, *repetition);
    }
    if (_repetition()) _refuse("repeats a repetition");
    return repetition->least == 0;
  }

  void _repeat_set(std::uint32_t place, const Repetition& repetition) {
    if (repetition.way == Repetition::Way::lazy) {
      return _repeat_group(place, {_at_place(place)}, repetition);
    }
    Instruction& set = _at_place(place);
    set.op = repetition.way == Repetition::Way::greedy ? Op::repeat : Op::hold;
    set.least = repetition.least;
    set.most = repetition.most;
  }

  /// The atom stands at `begin` already.
  void _repeat_group(std::uint32_t begin, const std::vector<Instruction>& atom,
                     const Repetition& repetition) {
    const bool is_held = repetition.way == Repetition::Way::possessive;
    const bool is_lazy = repetition.way == Repetition::Way::lazy;
    _expression._program.resize(begin);
    const std::uint32_t head = is_held ? _emit({Op::atomic}) : 0;
    for (std::uint32_t i = 0; i < repetition.least; ++i) _copy(atom, begin);
    std::vector<std::uint32_t> splits;
    const auto split = [&] {
      splits.push_back(_emit({.op = Op::split, .target = _place() + 1}));
      return splits.back();
    };
    if (repetition.most == kNoLimit) {
      const std::uint32_t loop = split();
      _copy(atom, begin);
      _emit({.op = Op::jump, .target = loop});
    } else {
      for (std::uint32_t i = repetition.least; i < repetition.most; ++i) {
        split();
        _copy(atom, begin);
      }
    }
    for (const std::uint32_t place : splits) {
      Instruction& instruction = _at_place(place);
      instruction.other = _place();
      if (is_lazy) std::swap(instruction.target, instruction.other);
    }
    if (is_held) {
      _emit({Op::accept});
      _at_place(head).target = _place();
    }
  }

  /// An atom that was written for `origin`, once more.
  void _copy(const std::vector<Instruction>& atom, std::uint32_t origin) {
    const std::uint32_t shift = _place() - origin;
    for (Instruction instruction : atom) {
      _shift(instruction, 0, shift);
      _emit(instruction);
    }
  }

  void _insert(std::uint32_t place, const Instruction& instruction) {
    if (_place() >= kLongestProgram) _refuse("is too long");
    auto& program = _expression._program;
    for (std::uint32_t i = place; i < _place(); ++i) _shift(program[i], place, 1);
    program.insert(program.begin() + place, instruction);
  }

  /// Moves an instruction's aims at `from` and behind it.
  static void _shift(Instruction& instruction, std::uint32_t from, std::uint32_t by) {
    const Op op = instruction.op;
    if (op != Op::split && op != Op::jump && op != Op::look && op != Op::atomic) return;
    if (instruction.target >= from) instruction.target += by;
    if (instruction.other >= from) instruction.other += by;
  }

  std::optional<Repetition> _repetition() {
    Repetition repetition{};
    if (_skip("?")) {
      repetition = {0, 1};
    } else if (_skip("*")) {
      repetition = {0, kNoLimit};
    } else if (_skip("+")) {
      repetition = {1, kNoLimit};
    } else if (_looking_at("{")) {
      repetition = _counted();
      // Behind braces, a "+" repeats the repetition.
      if (_looking_at("+")) _refuse_text("}+");
      if (_looking_at("?")) _refuse_text("}?");
      return repetition;
    } else {
      return std::nullopt;
    }
    if (_skip("?")) repetition.way = Repetition::Way::lazy;
    if (_skip("+")) repetition.way = Repetition::Way::possessive;
    return repetition;
  }

  Repetition _counted() {
    const std::size_t end = _left().find('}');
    const std::string_view all = _left().substr(0, end == std::string_view::npos ? end : end + 1);
    std::string_view counts = all;
    counts.remove_prefix(1);
    const auto number = [&](std::uint32_t otherwise) {
      std::uint32_t result = otherwise;
      const auto [last, error] =
          std::from_chars(counts.data(), counts.data() + counts.size(), result);
      if (error == std::errc()) {
        counts.remove_prefix(static_cast<std::size_t>(last - counts.data()));
        if (result > kMostRepetitions) _refuse_text(all);
      }
      return result;
    };
    const bool has_least = !counts.starts_with(",");
    Repetition repetition{number(0), 0};
    repetition.most = repetition.least;
    if (counts.starts_with(",")) {
      counts.remove_prefix(1);
      repetition.most = number(kNoLimit);
    }
    const bool is_whole = has_least || repetition.most != kNoLimit;
    if (counts != "}" || !is_whole || repetition.least > repetition.most || repetition.most == 0) {
      _refuse_text(all);
    }
    _at += all.size();
    return repetition;
  }

  bool _atom() {
    if (_skip("(")) return _group();
    CharacterSet set;
    if (_skip("[")) {
      _read_set(set);
    } else if (_skip(".")) {
      set.add(U'\n', U'\n');
      set.negate();
    } else if (_skip("\\")) {
      if (_left().starts_with('w') || _left().starts_with('W')) {
        _word(set);
      } else if (const auto character = _escape(set)) {
        _add(set, *character);
      }
    } else {
      constexpr std::string_view kSpecial = "*+?{^$";
      if (kSpecial.find(_left().front()) != std::string_view::npos) {
        _refuse_text(_left().substr(0, 1));
      }
      const char32_t character = _next();
      _refuse_ligature(character);
      _add(set, character);
    }
    _emit_set(std::move(set));
    return false;
  }

  /// `\w` by itself, which has six numbers of Latin-1 that it has not in a set.
  void _word(CharacterSet& set) {
    const bool is_negated = _next() == U'W';
    set.add_form(unicode::kExpressionWord);
    set.add(0xB2, 0xB3);
    set.add(0xB9, 0xB9);
    set.add(0xBC, 0xBE);
    if (is_negated) set.negate();
  }

  /// Two letters that are one character in another case ("ss" is U+00DF) would match that, too.
  void _refuse_ligature(char32_t character) {
    if (!_ignores_case || _at < 2 || _pattern.size() < 2) return;
    std::string pair(_pattern.substr(_at - 2, 2));
    for (char& letter : pair) letter = static_cast<char>(letter | 0x20);
    for (const char* const ligature : {"ss", "st", "ff", "fi", "fl"}) {
      if (pair == ligature && character < 0x80) _refuse_text(ligature);
    }
  }

  void _emit_set(CharacterSet set) {
    _emit({.op = Op::set, .target = static_cast<std::uint32_t>(_expression._sets.size())});
    _expression._sets.push_back(std::move(set));
  }

  bool _group() {
    const bool ignored_case = _ignores_case;
    if (_skip("?=") || _looking_at("?!")) {
      const std::uint32_t look = _emit({.op = Op::look, .negated = _skip("?!")});
      _alternatives();
      _close(look);
      return true;
    }
    if (_skip("?>")) {
      const std::uint32_t atomic = _emit({Op::atomic});
      const bool may_be_empty = _alternatives();
      _close(atomic);
      return may_be_empty;
    }
    if (_skip("?i:")) {
      _ignores_case = true;
    } else if (!_skip("?:") && _looking_at("?")) {
      _refuse_text("(" + std::string(_left().substr(0, 3)));
    }
    const bool may_be_empty = _alternatives();
    if (!_skip(")")) _refuse("lacks a \")\"");
    _ignores_case = ignored_case;
    return may_be_empty;
  }

  void _close(std::uint32_t opened) {
    if (!_skip(")")) _refuse("lacks a \")\"");
    _emit({Op::accept});
    _at_place(opened).target = _place();
  }

  void _read_set(CharacterSet& set) {
    const bool is_negated = _skip("^");
    if (_looking_at("]")) _refuse("has an empty set");
    while (!_skip("]")) {
      if (_looking_at("[") || _looking_at("&&"))
        _refuse("has a set within a set, which is not supported");
      std::optional<char32_t> first;
      if (_skip("\\")) {
        first = _escape(set);
      } else {
        first = _next();
      }
      const bool is_range = _looking_at("-") && !_looking_at("-]");
      if (!is_range) {
        if (first) _add(set, *first);
        continue;
      }
      _skip("-");
      if (!first || _looking_at("\\") || _looking_at("[")) _refuse("has an unclear range");
      const char32_t last = _next();
      if (last < *first) _refuse("has a range that ends before it begins");
      if (_ignores_case) {
        if (last >= 0x80) _refuse("has a range in either case that is not ASCII");
        for (char32_t character = *first; character <= last; ++character) _add(set, character);
      } else {
        set.add(*first, last);
      }
    }
    if (is_negated) set.negate();
  }

  /// One character, in both cases where they do not count.
  void _add(CharacterSet& set, char32_t character) {
    set.add(character, character);
    if (!_ignores_case) return;
    if (character >= 0x80) _refuse("has a character in either case that is not ASCII");
    if (!is_letter(character)) return;
    set.add(character ^ 0x20U, character ^ 0x20U);
    // The two characters beyond ASCII that are letters of it in another case.
    if ((character | 0x20U) == U's') set.add(0x17F, 0x17F);
    if ((character | 0x20U) == U'k') set.add(0x212A, 0x212A);
  }

  /// Adds a class of characters to the set, or returns the one character that is meant.
  std::optional<char32_t> _escape(CharacterSet& set) {
    const char32_t escaped = _next();
    switch (escaped) {
      case U'n':
        return U'\n';
      case U'r':
        return U'\r';
      case U't':
        return U'\t';
      case U'f':
        return U'\f';
      case U'v':
        return U'\v';
      case U's':
      case U'S':
        set.add_space(escaped == U'S');
        return std::nullopt;
      case U'w':
      case U'W':
        set.add_form(unicode::kExpressionWord, escaped == U'W');
        return std::nullopt;
      case U'd':
      case U'D':
        set.add_form(unicode::kDigit, escaped == U'D');
        return std::nullopt;
      case U'p':
      case U'P':
        _category(set, escaped == U'P');
        return std::nullopt;
      default:
        break;
    }
    const bool is_plain = escaped < 0x80 && escaped > U' ' && !is_letter(escaped) &&
                          !(escaped >= U'0' && escaped <= U'9');
    if (!is_plain) _refuse_text("\\" + std::string(_pattern.substr(_at - 1, 1)));
    return escaped;
  }

  void _category(CharacterSet& set, bool is_negated) {
    const std::size_t end = _left().find('}');
    const std::string_view all = _left().substr(0, end);
    const auto* const found =
        std::find_if(std::begin(kCategories), std::end(kCategories), [&](const Category& category) {
          return all.starts_with("{") && all.substr(1) == category.name;
        });
    if (end == std::string_view::npos || found == std::end(kCategories)) {
      _refuse_text("\\p" + std::string(all));
    }
    const bool has_case = found->name.size() > 1;
    if (_ignores_case && has_case) _refuse("has a letter case where cases do not count");
    set.add_form(found->properties, is_negated);
    _at += end + 1;
  }

  std::string_view _pattern;
  Expression& _expression;
  std::size_t _at = 0;
  int _depth = 0;
  bool _ignores_case = false;
};

Expression::Expression(std::string_view pattern) { ExpressionParser(pattern, *this).parse(); }

Expression Expression::literal(std::string_view text) {
  Expression expression;
  const char* const end = text.data() + text.size();
  for (const char* at = text.data(); at != end;) {
    const utf8::Decoded character = utf8::decode(at, end);
    at += character.size;
    CharacterSet set;
    set.add(character.code_point, character.code_point);
    expression._program.push_back(
        {.op = Op::set, .target = static_cast<std::uint32_t>(expression._sets.size())});
    expression._sets.push_back(std::move(set));
  }
  if (text.empty()) throw ValueError("is an empty text");
  expression._program.push_back({Op::accept});
  return expression;
}

}  // namespace tovana::sentence_transformers
