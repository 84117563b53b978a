#!/usr/bin/env python3
"""Makes unicode_tables.cpp and unicode_forms.cpp from unicode_data.tsv; run it after a change to any.

    generate_unicode_tables.py

Two stages: the upper bits of a code point choose a block, the lower bits an entry in it, and the entry is the number of
a record. Blocks and records that are equal are kept once, so what is not special costs nothing.
"""

import pathlib

HERE = pathlib.Path(__file__).resolve().parent
DATA = HERE / "unicode_data.tsv"

BLOCK_BITS = 7
BLOCK_SIZE = 1 << BLOCK_BITS
# In the order of the bits of unicode_tables.h.
PROPERTIES = ["removed", "to_space", "chinese", "white_space", "punctuation", "mark", "word"]
DOTTED_CAPITAL_I = 0x130  # the only character whose lower case is two: unicode_tables.h knows it
# In the order of the bits, and of the numbers, of unicode_forms.h.
FORM_PROPERTIES = [*(f"category_{name}" for name in ("Lu", "Ll", "Lt", "Lm", "Lo", "M", "N", "P", "S", "Z", "C")),
                   "expression_word", "digit", "numeric", "accent"]
CLUSTERS = ["other", "control", "extend", "extend_only", "spacing", "linker", "joiner", "prepend", "pictograph",
            "consonant", "leading", "vowel", "trailing"]
MAPPINGS = ["stripped", "lowered", "canonical", "compatible", "composed"]


def read(path):
    """Of each name the characters, and what they become where the name is a mapping's."""
    data = {}
    for line in path.read_text(encoding="ascii").splitlines():
        if line.startswith("#"):
            continue
        name, first, *rest = line.split("\t")
        first, rest = int(first, 16), tuple(int(code, 16) for code in rest)
        entries = data.setdefault(name, {})
        entries.update({first: rest} if name in MAPPINGS else dict.fromkeys(range(first, rest[0] + 1), ()))
    return data


def bits(data, names, code):
    return sum(1 << bit for bit, name in enumerate(names) if code in data[name])


class Pool:
    """Sequences one behind the other, equal ones once."""

    def __init__(self, results):
        self.codes, self.starts = [], {(): 0}
        for result in results:
            if result not in self.starts:
                self.starts[result] = len(self.codes)
                self.codes.extend(result)
        assert len(self.codes) <= 0x10000


def rows(values):
    lines, line = [], " "
    for value in values:
        if len(line) + len(value) + 2 > 100:
            lines.append(line)
            line = " "
        line += f" {value},"
    return "\n".join([*lines, line])


def array(kind, name, values):
    values = list(values)
    return f"constexpr {kind} {name}[{len(values)}] = {{\n{rows(values)}\n}};\n"


def tables(record_of, kind, prefix):
    """The two stages and the records, where a record is a tuple of numbers."""
    nothing = record_of(None)
    records, blocks, stage = {nothing: 0}, {}, []
    for start in range(0, 0x110000, BLOCK_SIZE):
        block = tuple(records.setdefault(record_of(code), len(records)) for code in range(start, start + BLOCK_SIZE))
        stage.append(blocks.setdefault(block, len(blocks)))
    assert len(records) <= 0x10000
    block_kind = "std::uint8_t" if len(blocks) <= 0x100 else "std::uint16_t"
    return [
        array(block_kind, f"k{prefix}BlockOf", map(str, stage)),
        array("std::uint16_t", f"k{prefix}RecordOf", (str(entry) for block in blocks for entry in block)),
        array(kind, f"k{prefix}Records", ("{" + ",".join(map(str, record)) + "}" for record in records)),
    ]


def write(name, parts):
    body = "\n".join(parts)
    (HERE / f"{name}.cpp").write_text(
        f"""// Made by generate_unicode_tables.py from unicode_data.tsv. Do not edit.
// clang-format off
#include "sentence_transformers/tokenizer/{name}.h"

namespace tovana::sentence_transformers::unicode {{

{body}
}}  // namespace tovana::sentence_transformers::unicode
""",
        encoding="ascii",
    )


def code_points(name, codes):
    return array("char32_t", name, (f"0x{code:X}" for code in codes))


def write_bert(data):
    stripped, lowered = data["stripped"], data["lowered"]
    assert [code for code, result in lowered.items() if len(result) != 1] == [DOTTED_CAPITAL_I]
    pool = Pool(stripped.values())

    def record(code):
        result, lower = stripped.get(code, ()), lowered.get(code, (code,))[0]
        return bits(data, PROPERTIES, code), len(result), pool.starts[result], (lower - code if code else 0)

    write("unicode_tables", [*tables(record, "CharacterRecord", ""), code_points("kStripped", pool.codes)])


def write_forms(data):
    canonical, compatible = data["canonical"], data["compatible"]
    pool = Pool([*canonical.values(), *compatible.values()])
    classes = {code: int(name.removeprefix("class_"))
               for name, codes in data.items() if name.startswith("class_") for code in codes}
    clusters = {code: CLUSTERS.index(name.removeprefix("cluster_"))
                for name, codes in data.items() if name.startswith("cluster_") for code in codes}

    def record(code):
        first = canonical.get(code, ())
        second = compatible.get(code, first)
        return (bits(data, FORM_PROPERTIES, code), clusters.get(code, 0), classes.get(code, 0), len(first), len(second),
                pool.starts[first], pool.starts[second])

    pairs = sorted((first, second, code) for code, (first, second) in data["composed"].items())
    write("unicode_forms", [
        *tables(record, "FormRecord", "Form"),
        code_points("kDecomposed", pool.codes),
        array("Composition", "kCompositions", ("{" + ",".join(f"0x{code:X}" for code in pair) + "}" for pair in pairs)),
        f"const std::size_t kCompositionCount = {len(pairs)};\n",
    ])


def main():
    data = read(DATA)
    write_bert(data)
    write_forms(data)


if __name__ == "__main__":
    main()
