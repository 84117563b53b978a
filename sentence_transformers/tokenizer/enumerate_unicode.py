"""Asks the PyPI package `tokenizers` what its normalizers and pre-tokenizers do with every character, and
writes the answers to unicode_data.tsv, from which generate_unicode_tables.py makes the C++ tables.

    enumerate_unicode.py OUTPUT

The library carries Unicode data of several ages: BERT's general categories of about Unicode 8, decompositions of
about 12, lower-casing, expressions and grapheme clusters of 16 and newer. Models were trained behind it, so its answers
are what counts, not those of a newer database. Half a minute.
"""

import struct
import sys
import unicodedata

import tokenizers
from tokenizers import AddedToken, Regex, Tokenizer, models, normalizers, pre_tokenizers

SURROGATES = range(0xD800, 0xE000)
HANGUL_SYLLABLES = range(0xAC00, 0xD7A4)  # decomposed by arithmetic


def bert(**wanted):
    options = {"clean_text": False, "handle_chinese_chars": False, "strip_accents": False, "lowercase": False}
    return normalizers.BertNormalizer(**{**options, **wanted}).normalize_str


def ranges(members):
    """The runs of consecutive numbers in an ascending sequence, as [first, last] pairs."""
    runs = []
    for member in members:
        if runs and runs[-1][1] == member - 1:
            runs[-1][1] = member
        else:
            runs.append([member, member])
    return runs


def matching(expression, characters):
    """The characters that an expression matches, each by itself."""
    everything, found = "".join(map(chr, characters)), set()
    remove = normalizers.Replace(Regex(expression), "").normalize_str
    for start in range(0, len(everything), 4096):
        part = everything[start:start + 4096]
        found |= set(part) - set(remove(part))
    return [code for code in characters if chr(code) in found]


def combining_classes(characters, decompose):
    """The classes that are not 0: two marks change places when the first has the higher one. One character of each
    class is taken from Python's own data; what those call the classes does not matter."""
    def swaps(first, second):
        return first != second and decompose(f"a{first}{second}") == f"a{second}{first}"

    lowest, highest = "\u0334", "\u0345"
    marks = [chr(code) for code in characters if decompose(chr(code)) == chr(code)]
    marks = [mark for mark in marks if swaps(highest, mark) or swaps(mark, lowest) or mark in (lowest, highest)]
    known = {}
    for mark in marks:
        known.setdefault(unicodedata.combining(mark), mark)
    known.pop(0, None)
    classes = {}
    for mark in marks:
        found = [number for number, other in known.items() if not swaps(mark, other) and not swaps(other, mark)]
        assert len(found) == 1, hex(ord(mark))
        classes[ord(mark)] = found[0]
    return classes


def composed(characters, canonical, compose):
    """The pairs of characters that become one."""
    for code in characters:
        parts = canonical[code]
        if parts != chr(code) and compose(parts) == chr(code) and code not in HANGUL_SYLLABLES:
            first, second = compose(parts[:-1]), parts[-1]
            assert len(first) == 1 and compose(first + second) == chr(code), hex(code)
            yield code, first, second


def clusters(characters):
    """What each character does to the boundaries of grapheme clusters. A character map of all bytes to "X" replaces a
    cluster of less than 6 bytes by one X, and each character of a longer one."""
    units = [0] * 2048
    units[0] = 256 << 10
    for byte in range(1, 256):
        units[256 ^ byte] = (256 ^ byte ^ (1024 + byte)) << 10 | 1 << 8 | byte
        units[1024 + byte] = 1 << 31
    trie = struct.pack(f"<{len(units)}I", *units)
    normalize = normalizers.Precompiled(struct.pack("<I", len(trie)) + trie + b"X\0").normalize_str

    def size(text):
        return len(normalize(text))

    letter, mark, virama, pictograph, joiner = "\u0924", "\u0301", "\u094d", "\u00a9", "\u200d"
    syllable, trailing, vowel, leading = "\uac00", "\u11a8", "\u1161", "\u1100"
    for code in characters:
        one = chr(code)
        if code == 0 or size(one + "\u0308\u0903") == 2:
            yield code, "control"
        elif one == joiner:
            yield code, "joiner"
        elif size("a" + one) == 1:
            if size(letter + one + letter + mark) == 4:
                yield code, "linker"
            elif size(letter + virama + one + letter + mark) == 5:
                yield code, "extend"
            elif size(pictograph + one + joiner + pictograph + mark) == 5:
                yield code, "extend_only"
            else:
                yield code, "spacing"
        elif size(one + "a") == 1:
            yield code, "prepend"
        elif size(pictograph + joiner + one) == 3:
            yield code, "pictograph"
        elif size(one + virama + letter + mark) == 4:
            yield code, "consonant"
        elif size(one + leading + mark) == 3:
            yield code, "leading"
        elif size(one + trailing + mark) == 3 and code not in HANGUL_SYLLABLES:
            yield code, "vowel" if size(one + vowel + mark) == 3 else "trailing"


CATEGORIES = ["Lu", "Ll", "Lt", "Lm", "Lo", "M", "N", "P", "S", "Z", "C"]


def write_ranges(output, properties):
    for name, members in properties.items():
        for first, last in ranges(members):
            output.write(f"{name}\t{first:X}\t{last:X}\n")


def write_forms(output, characters):
    """What all steps but BERT's have to know."""
    separated = pre_tokenizers.Digits(individual_digits=True).pre_tokenize_str
    without_marks = normalizers.StripAccents().normalize_str
    properties = {f"category_{name}": matching(rf"\p{{{name}}}", characters) for name in CATEGORIES}
    properties["expression_word"] = matching(r"[\w]", characters)  # By itself it has six numbers more.
    properties["digit"] = matching(r"\d", characters)
    properties["numeric"] = [code for code in characters if len(separated(f"a{chr(code)}b")) > 1]
    properties["accent"] = [code for code in characters if without_marks(chr(code)) == ""]
    decompose, compatible = normalizers.NFD().normalize_str, normalizers.NFKD().normalize_str
    for code, number in sorted(combining_classes(characters, decompose).items()):
        properties.setdefault(f"class_{number}", []).append(code)
    for code, name in clusters(characters):
        properties.setdefault(f"cluster_{name}", []).append(code)
    write_ranges(output, properties)

    canonical = {code: decompose(chr(code)) for code in characters}
    for code in characters:
        both = canonical[code], compatible(chr(code))
        for name, result, same in (("canonical", both[0], chr(code)), ("compatible", both[1], both[0])):
            if result != same and code not in HANGUL_SYLLABLES:
                output.write("\t".join([name, f"{code:X}", *(f"{ord(c):X}" for c in result)]) + "\n")
    for code, first, second in composed(characters, canonical, normalizers.NFC().normalize_str):
        output.write(f"composed\t{code:X}\t{ord(first):X}\t{ord(second):X}\n")


def main():
    characters = [code for code in range(0x110000) if code not in SURROGATES]
    cleaned = {code: bert(clean_text=True)(chr(code)) for code in characters}
    padded = bert(handle_chinese_chars=True)
    stripped = bert(strip_accents=True)
    lowered = bert(lowercase=True)
    words = pre_tokenizers.BertPreTokenizer().pre_tokenize_str

    # A token of single words matches beside anything but a word character.
    single_word = Tokenizer(models.WordPiece({"[UNK]": 0}, unk_token="[UNK]"))
    single_word.add_tokens([AddedToken("[X]", single_word=True, normalized=False)])
    properties = {
        "removed": [code for code in characters if cleaned[code] == ""],
        "to_space": [code for code in characters if cleaned[code] == " "],
        "chinese": [code for code in characters if padded(chr(code)) == f" {chr(code)} "],
        "white_space": [code for code in characters if words(f"a{chr(code)}b") == [("a", (0, 1)), ("b", (2, 3))]],
        "punctuation": [code for code in characters if len(words(f"a{chr(code)}b")) == 3],
        "mark": [code for code in characters if stripped(chr(code)) == ""],
        "word": [code for code in characters if "[X]" not in single_word.encode(f"[X]{chr(code)}").tokens],
    }
    with open(sys.argv[1], "w", encoding="ascii") as output:
        output.write(f"# Made by enumerate_unicode.py from tokenizers {tokenizers.__version__}.\n")
        output.write("# PROPERTY first last, or MAPPING character result...; hexadecimal.\n")
        write_ranges(output, properties)
        for name, mapping in (("stripped", stripped), ("lowered", lowered)):
            for code in characters:
                result = mapping(chr(code))
                if result not in ("", chr(code)) and code not in HANGUL_SYLLABLES:
                    output.write("\t".join([name, f"{code:X}", *(f"{ord(c):X}" for c in result)]) + "\n")
        write_forms(output, characters)


if __name__ == "__main__":
    main()
