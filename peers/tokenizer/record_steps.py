"""Records what the PyPI package `tokenizers` makes of small texts, step by step, for the unit tests.

    record_steps.py tests/data/tokenizer_steps.jsonl

Each line has a "normalizer" and a "pre_tokenizer" as tokenizer.json has them, a "text" and the "words" it is cut into.
"""

import json
import sys

from tokenizers import Tokenizer


def split(behavior, invert=False, **pattern):
    return {"type": "Split", "pattern": pattern or {"String": "-"}, "behavior": behavior, "invert": invert}


def words_of(expression, behavior="Isolated"):
    return split(behavior, Regex=expression)


def metaspace(scheme, cut=True):
    return {"type": "Metaspace", "replacement": "_", "prepend_scheme": scheme, "split": cut}


def normalizers(*steps):
    return {"type": "Sequence", "normalizers": [{"type": step} if isinstance(step, str) else step for step in steps]}


SPACES = {"type": "WhitespaceSplit"}
ROWS = [
    (None, split("Removed"), "-a--b-"),
    (None, split("MergedWithPrevious"), "-a--b-c"),
    (None, split("MergedWithNext"), "-a--b-"),
    (None, split("Contiguous"), "a--b-"),
    (None, split("Removed", True), "-a--b-"),
    (None, split("MergedWithPrevious", True, String="ab"), "xabaaby"),
    (None, words_of(r"a+?b|[^\S\n]+|(?:cd){2,}|e?+e|\d{2,3}"), "aab \ncdcdcd ee 1234\u06f1"),
    (None, words_of(r"(?i:k|sx)|x(?=y)|(?>a+)a|\p{Lu}\P{Lu}*?z"), "K\u212a \u017fX xyx aa \u00c9tz"),
    (None, words_of(r"[\]a-c^-]+|.\n|\.", "Removed"), "x]-^b\ny.z"),
    (None, words_of(r"(?:ab|a)(?:bc|c){0,2}d|\w+(?!\w|-)|[^\W_]"), "abcd abbccd \u00e9\u0301x-y\u1885z\u00b2-\u00b2_-"),
    (None, {"type": "Digits", "individual_digits": False}, "a12\u00b2b\u0663"),
    (None, {"type": "Digits", "individual_digits": True}, "a12\u00bd"),
    (None, {"type": "Punctuation", "behavior": "Contiguous"}, "a!?b."),
    (None, {"type": "Whitespace"}, "ab,! c\u0301_\u00a01"),
    (None, metaspace("first"), " a  b"),
    (None, {"type": "Sequence", "pretokenizers": [SPACES, metaspace("first")]}, "a b"),
    (None, metaspace("always", False), "a b"),
    (None, {"type": "ByteLevel", "add_prefix_space": True, "use_regex": True, "trim_offsets": True},
     "a'll b\n\n \u00e9\u007f\u00ad"),
    (normalizers("NFD", "StripAccents", "Lowercase"), SPACES, "\u00c9\u0130\u03a3 \u1e9b\u0323 \u0915\u093f"),
    (normalizers("NFC"), SPACES, "\u0915\u093c q\u0307\u0323 e\u0323\u0301 \u1112\u1161\u11ab \u0344 \u212b a\u0315\u0300\u05ae"),
    (normalizers("NFKC"), SPACES, "\ufb01\u33ff\u32ff \uff76\uff9e \u1e9b\u0323"),
    (normalizers("NFKD"), SPACES, "\ud55c\u2460\u01c6"),
    (normalizers({"type": "Strip", "strip_left": True, "strip_right": False}, {"type": "Prepend", "prepend": "_"},
                 {"type": "Replace", "pattern": {"Regex": " {2,}"}, "content": "+"}), SPACES, "\u3000a   b  "),
    (normalizers("Nmt"), SPACES, "a\u0008b\u200bc\u0085"),
]


def main():
    with open(sys.argv[1], "w", encoding="ascii") as output:
        for normalizer, pre_tokenizer, text in ROWS:
            tokenizer = Tokenizer.from_str(json.dumps({
                "version": "1.0", "added_tokens": [], "normalizer": normalizer, "pre_tokenizer": pre_tokenizer,
                "model": {"type": "WordLevel", "vocab": {"?": 0}, "unk_token": "?"}}))
            normalized = tokenizer.normalizer.normalize_str(text) if normalizer else text
            words = [word for word, _ in tokenizer.pre_tokenizer.pre_tokenize_str(normalized)]
            output.write(json.dumps({"normalizer": normalizer, "pre_tokenizer": pre_tokenizer, "text": text, "words": words}))
            output.write("\n")


if __name__ == "__main__":
    main()
