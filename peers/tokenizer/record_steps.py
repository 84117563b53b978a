"""Records what the PyPI packages `tokenizers` and `transformers` make of small texts, for the unit tests.

    record_steps.py tests/data/tokenizer_steps.jsonl tests/data/tokenizer_classes.jsonl

In the second file a line has the contents of a model's files, a "text" and its "ids". In the first each line has a "normalizer" and a "pre_tokenizer" as tokenizer.json has them, a "text" and the "words" it is cut into.
"""

import base64
import json
import pathlib
import struct
import sys
import tempfile

from tokenizers import Tokenizer
from transformers import AutoTokenizer


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
    (None, words_of(r"a+?b|[^\S\n]+|(?:cd){2,}|e?+e|\d{2,3}"), "aab \ncdcdcd ee e 1234\u06f1"),
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
     " a'll b\n\n \u00e9\u007f\u00ad"),
    (normalizers("NFD", "StripAccents", "Lowercase"), SPACES, "\u00c9\u0130\u03a3 \u1e9b\u0323 \u0915\u093f"),
    (normalizers("NFC"), SPACES, "\u0915\u093c q\u0307\u0323 e\u0323\u0301 \u1112\u1161\u11ab \u0344 \u212b a\u0315\u0300\u05ae a\u0346\u0300"),
    (normalizers("NFKC"), SPACES, "\ufb01\u33ff\u32ff \uff76\uff9e \u1e9b\u0323"),
    (normalizers("NFKD"), SPACES, "\ud55c\u2460\u01c6"),
    (normalizers({"type": "Strip", "strip_left": True, "strip_right": False}, {"type": "Prepend", "prepend": "_"},
                 {"type": "Replace", "pattern": {"Regex": " {2,}"}, "content": "+"}), SPACES, "\u3000a   b  "),
    (normalizers("Nmt"), SPACES, "a\u0008b\u200bc\u0085"),
]


def map_of_bytes():
    """A map of characters in which each byte is a key for "x"."""
    units = [256 << 10] + [0] * 511
    for byte in range(1, 256):
        units[256 ^ byte], units[byte] = 256 << 10 | 1 << 8 | byte, 1 << 31
    trie = struct.pack("<512I", *units)
    return base64.b64encode(struct.pack("<I", len(trie)) + trie + b"x\0").decode()


def added(number, content, normalized):
    return {"id": number, "content": content, "normalized": normalized, "special": False, "single_word": False,
            "lstrip": False, "rstrip": False}


ENDS = {"type": "RobertaProcessing", "cls": ["<s>", 0], "sep": ["</s>", 2], "trim_offsets": True, "add_prefix_space": False}
SPECIAL = ["<s>", "<pad>", "</s>", "<unk>"]
TRUSTED = {"tokenizer_class": "PreTrainedTokenizerFast", "pad_token": "<pad>"}


def unigram(*tokens, special=SPECIAL, **members):
    vocabulary = [[token, 0.0] for token in special] + [[token, score] for token, score in tokens]
    return {"type": "Unigram", "unk_id": special.index("<unk>"), "vocab": vocabulary, **members}


def byte_pairs(*tokens, merges=(), **members):
    vocabulary = {token: number for number, token in enumerate([*SPECIAL, *tokens])}
    return {"type": "BPE", "vocab": vocabulary, "merges": list(merges), **members}


WORDS = unigram(("\u2581", -3.0), ("a", -3.0), ("b", -3.0), ("ab", -6.0), ("aba", -9.0), ("\u2581a", -5.0), ("<mask>", 0.0))
MANY_WORDS = unigram(("\u2581", -3.0), ("a", -3.0), ("<mask>", 0.0), special=["<s>NOTUSED", "<pad>", "</s>", "x", "<s>", "<unk>"])
PAIRS = byte_pairs("a", "b", "\u0120", "\u0120a", "ab", merges=["\u0120 a", "a b"])
XLM = {"tokenizer_class": "XLMRobertaTokenizer"}
BYTES = {"type": "Precompiled", "precompiled_charsmap": map_of_bytes()}
FIRST = {"type": "Metaspace", "replacement": "\u2581", "prepend_scheme": "first", "split": True}
CLASSES = [
    ({"model": WORDS}, XLM, "xlm-roberta", "ab aba a?? <mask>\u00e9a <s>b"),
    ({"model": WORDS}, {**XLM, "add_prefix_space": False}, "xlm-roberta", "ab  <unk>?a"),
    ({"model": unigram(("x", -1.0), ("xxx", -1.0), ("xx", -1.0), ("\u2581", -9.0)), "normalizer": BYTES}, XLM, "gte",
     "\u00a9\u200d\u00ae\u0301 \u0915\u094d\u0924\u0301 \u1112\u1161\u0308 \u0600a \u00e9\u0301"),
    ({"model": WORDS, "pre_tokenizer": FIRST, "added_tokens": [
        added(10, "ab", True), added(11, "<n>", False)]},
     TRUSTED, "bert", "aba ab a<n>a"),
    ({"model": unigram(("a", 1.0), ("ay", -8.0), ("ab", -8.0), ("bcd", -1.0), ("c", -8.0))}, TRUSTED, "bert", "ayxbcd"),
    ({"model": unigram(("ab", -50.0), ("bcd", -1.0))}, TRUSTED, "bert", "abcd"),
    ({"model": {**PAIRS, "vocab": {**PAIRS["vocab"], "zz": 40}}, "added_tokens": [
        added(40, "zz", False), added(41, "<n>", False)]}, TRUSTED, "bert", "zz<n>a"),
    ({"model": unigram(("a", -1.0), ("<0xC3>", 0.0), ("<0xA9>", 0.0), byte_fallback=True)}, TRUSTED, "bert", "a\u00e9\u00e8\u00e9a"),
    ({"model": MANY_WORDS}, {"tokenizer_class": "CamembertTokenizer"}, "camembert", "a ?a</s>NOTUSEDa <mask><s>NOTUSED"),
    ({"model": MANY_WORDS}, {"tokenizer_class": "CamembertTokenizer", "additional_special_tokens": ["??"]}, "camembert",
     "a ??a</s>NOTUSED"),
    ({"model": PAIRS}, {"tokenizer_class": "RobertaTokenizer", "add_prefix_space": True}, "roberta", "ab abc a"),
    ({"model": PAIRS}, {"tokenizer_class": "RobertaTokenizer"}, "modernbert", "ab a"),
    ({"model": byte_pairs("a", "b", "c@", unk_token="<unk>", end_of_word_suffix="@")}, TRUSTED, "bert",
     "a??bc"),
    ({"model": byte_pairs("a", "b@", unk_token="<unk>", fuse_unk=True, end_of_word_suffix="@", byte_fallback=True)}, TRUSTED,
     "bert", "a??ab"),
]


def write_classes(path):
    with open(path, "w", encoding="ascii") as output, tempfile.TemporaryDirectory() as folder:
        for steps, config, model, text in CLASSES:
            vocabulary = steps["model"]["vocab"]
            tokens = [entry if isinstance(entry, str) else entry[0] for entry in vocabulary]
            ends = {**ENDS, "cls": ["<s>", tokens.index("<s>")], "sep": ["</s>", tokens.index("</s>")]}
            files = {"tokenizer.json": {"version": "1.0", "added_tokens": [], "post_processor": ends, **steps},
                     "tokenizer_config.json": config, "config.json": {"model_type": model}}
            if model == "modernbert":
                files["tokenizer_config.json"] = {**config, "pad_token": "<pad>"}
            for name, content in files.items():
                (pathlib.Path(folder) / name).write_text(json.dumps(content))
            ids = AutoTokenizer.from_pretrained(folder)(text)["input_ids"]
            output.write(json.dumps({**files, "text": text, "ids": ids}) + "\n")


def main():
    write_classes(sys.argv[2])
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
