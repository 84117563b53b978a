#include "sentence_transformers/tokenizer/expression.h"

#include "tovana/base/utf8.h"
#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {

Expression::Search::Search(const Expression& expression, std::string_view text)
    : _expression(expression), _text(text) {
  constexpr std::size_t kStepsForByte = 512;
  constexpr std::size_t kSteps = 4096;
  _steps_left = kSteps + text.size() * kStepsForByte;
}

std::optional<Expression::Match> Expression::Search::next() {
  while (_at < _text.size()) {
    const char* const begin = _text.data() + _at;
    if (const char* const end = _match(0, begin)) {
      const std::size_t start = _at;
      _at = static_cast<std::size_t>(end - _text.data());
      return Match{start, _at};
    }
    _at += utf8::decode(begin, _text.data() + _text.size()).size;
  }
  return std::nullopt;
}

void Expression::Search::_spend(std::size_t steps) {
  if (steps > _steps_left) {
    throw ValueError("an expression of the tokenizer takes too long to match a text of " +
                     std::to_string(_text.size()) + " bytes");
  }
  _steps_left -= steps;
}

bool Expression::Search::_take(const CharacterSet& set, const char** at) const {
  const char* const end = _text.data() + _text.size();
  if (*at == end) return false;
  const utf8::Decoded character = utf8::decode(*at, end);
  if (!set.contains(character.code_point)) return false;
  *at += character.size;
  return true;
}

const char* Expression::Search::_run(const Instruction& repeat, const char* at,
                                     const char** least) {
  const CharacterSet& set = _expression._sets[repeat.target];
  std::uint32_t count = 0;
  *least = repeat.least == 0 ? at : nullptr;
  while (count < repeat.most && _take(set, &at)) {
    if (++count == repeat.least) *least = at;
  }
  _spend(count);
  return at;
}

/// Where a match that begins at `at` ends; null when there is none.
const char* Expression::Search::_match(std::uint32_t instruction, const char* at) {
  const std::size_t floor = _choices.size();  // What lies below belongs to others.
  for (;;) {
    _spend(1);
    const Instruction& next = _expression._program[instruction];
    bool goes_on = true;
    switch (next.op) {
      case Op::set:
        goes_on = _take(_expression._sets[next.target], &at);
        ++instruction;
        break;
      case Op::repeat:
      case Op::hold: {
        const char* least = nullptr;
        at = _run(next, at, &least);
        goes_on = least != nullptr;
        ++instruction;
        if (goes_on && next.op == Op::repeat && least != at) {
          _choices.push_back({instruction, at, least});
        }
        break;
      }
      case Op::split:
        _choices.push_back({next.other, at, nullptr});
        instruction = next.target;
        break;
      case Op::jump:
        instruction = next.target;
        break;
      case Op::look:
        goes_on = (_match(instruction + 1, at) == nullptr) == next.negated;
        instruction = next.target;
        break;
      case Op::atomic:
        if (const char* const end = _match(instruction + 1, at)) {
          at = end;
        } else {
          goes_on = false;
        }
        instruction = next.target;
        break;
      case Op::accept:
        _choices.resize(floor);
        return at;
    }
    if (goes_on) continue;
    if (_choices.size() == floor) return nullptr;
    Choice& choice = _choices.back();
    instruction = choice.instruction;
    if (choice.least == nullptr) {
      at = choice.at;
      _choices.pop_back();
      continue;
    }
    choice.at -= utf8::decode_last(std::string_view(choice.least, choice.at)).size;
    at = choice.at;
    if (at == choice.least) _choices.pop_back();
  }
}

}  // namespace tovana::sentence_transformers
