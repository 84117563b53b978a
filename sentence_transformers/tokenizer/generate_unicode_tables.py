#!/usr/bin/env python3
"""Makes unicode_tables.cpp from unicode_data.tsv; run it after a change to either.

    generate_unicode_tables.py

Two stages: the upper bits of a code point choose a block, the lower bits an entry in it, and the entry is the number of
a record. Blocks and records that are equal are kept once, so what is not special costs nothing.
"""

import pathlib

HERE = pathlib.Path(__file__).resolve().parent
DATA = HERE / "unicode_data.tsv"
OUTPUT = HERE / "unicode_tables.cpp"

BLOCK_BITS = 7
BLOCK_SIZE = 1 << BLOCK_BITS
# In the order of the bits of unicode_tables.h.
PROPERTIES = ["removed", "to_space", "chinese", "white_space", "punctuation", "mark", "word"]
DOTTED_CAPITAL_I = 0x130  # the only character whose lower case is two: unicode_tables.h knows it


def read(path):
    properties, stripped, lowered = {}, {}, {}
    for line in path.read_text(encoding="ascii").splitlines():
        if line.startswith("#"):
            continue
        name, first, *rest = line.split("\t")
        first, rest = int(first, 16), [int(code, 16) for code in rest]
        if name == "stripped":
            stripped[first] = tuple(rest)
        elif name == "lowered":
            lowered[first] = tuple(rest)
        else:
            bit = 1 << PROPERTIES.index(name)
            for code in range(first, rest[0] + 1):
                properties[code] = properties.get(code, 0) | bit
    return properties, stripped, lowered


def main():
    properties, stripped, lowered = read(DATA)
    assert [code for code, result in lowered.items() if len(result) != 1] == [DOTTED_CAPITAL_I]

    pool, starts = [], {}
    for result in stripped.values():
        if result not in starts:
            starts[result] = len(pool)
            pool.extend(result)

    records, blocks, stage = {(0, 0, 0, 0): 0}, {}, []
    for start in range(0, 0x110000, BLOCK_SIZE):
        block = []
        for code in range(start, start + BLOCK_SIZE):
            result = stripped.get(code, ())
            offset = lowered.get(code, (code,))[0] - code
            record = (properties.get(code, 0), len(result), starts.get(result, 0), offset)
            block.append(records.setdefault(record, len(records)))
        stage.append(blocks.setdefault(tuple(block), len(blocks)))
    assert len(blocks) <= 0x100 and len(records) <= 0x10000 and len(pool) <= 0x10000

    def rows(values):
        lines, line = [], " "
        for value in values:
            if len(line) + len(value) + 2 > 100:
                lines.append(line)
                line = " "
            line += f" {value},"
        return "\n".join([*lines, line])

    OUTPUT.write_text(
        f"""// Made by generate_unicode_tables.py from unicode_data.tsv. Do not edit.
// clang-format off
#include "sentence_transformers/tokenizer/unicode_tables.h"

namespace tovana::sentence_transformers::unicode {{

constexpr std::uint8_t kBlockOf[{len(stage)}] = {{
{rows(map(str, stage))}
}};

constexpr std::uint16_t kRecordOf[{len(blocks) * BLOCK_SIZE}] = {{
{rows(str(entry) for block in blocks for entry in block)}
}};

constexpr CharacterRecord kRecords[{len(records)}] = {{
{rows("{" + ",".join(map(str, record)) + "}" for record in records)}
}};

constexpr char32_t kStripped[{len(pool)}] = {{
{rows(f"0x{code:X}" for code in pool)}
}};

}}  // namespace tovana::sentence_transformers::unicode
""",
        encoding="ascii",
    )


if __name__ == "__main__":
    main()
