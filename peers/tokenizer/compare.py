"""Compares token ids with those of the PyPI packages `tokenizers` and `transformers` on random texts.

    compare.py ENCODE_LINES MODEL_DIRECTORY TINY_MODELS [TEXTS [SEED]]

The real model and each of the trained tokenizers of other kinds get TEXTS texts (20,000), each of the variants of the
model's configuration and of the tiny models' a tenth.
Ends with status 1 after the first ten texts whose ids differ.
"""

import json
import pathlib
import random
import shutil
import subprocess
import sys
import tempfile

from tokenizers import normalizers
from transformers import AutoTokenizer

from make_tokenizers import make_tokenizers

SURROGATES = range(0xD800, 0xE000)
TOKENIZER_FILES = ["tokenizer.json", "tokenizer_config.json", "vocab.txt", "special_tokens_map.json", "config.json"]
# Ranges that matter more than their share of all characters.
ALPHABETS = [
    range(0x20, 0x7F),
    range(0x00, 0x100),
    range(0x100, 0x600),
    range(0x900, 0xD00),
    range(0x1AB0, 0x1B00),
    range(0x1E00, 0x2070),
    range(0x3000, 0x3100),
    range(0x4E00, 0x4F00),
    range(0xAC00, 0xAD00),
    range(0xFE00, 0x10000),
    range(0x1F300, 0x1F650),
    range(0x0, 0x110000),
]
SNIPPETS = ["[CLS]", "[SEP]", "[MASK]", "[PAD]", "[UNK]", "[mask]", "<s>", "</s>", "<mask>", "<MASK>", "<pad>", "<unk>",
            "<UNK>", "<ma\u0301sk>", "<foo>", "<FOO>", "##ing", "__init__", "\u0130", "\u03a3", "\u1e9e", "a" * 99,
            "b" * 101, "\u00e9" * 100, " ", "\t", "\u000b", "\u0085", "\u00a0", "\u200b", "\u200d", "\u0301", "\ufffd"]
# What other kinds of tokenizers might trip over.
OTHER_SNIPPETS = ["<bos>", "<eos>", "<|endoftext|>", "<think>", "</think>", "<s>NOTUSED", "<unk>NOTUSED", "|||IP_ADDRESS|||",
                  "<0x0A>", "\uff1cs\uff1e", "\u2581", "\u2581\u2581", "  ", "    ", "\t\t", "\n", "\n\n", "\r\n", " \n ",
                  "'s", "'LL", "'\u017f", "'\u212a", "don't", "1234567", "\u0663\u00b2\u00bd", "\u3386\u033f", "\u00a9\u200d\u00ae",
                  "\u0915\u094d\u0924\u0301", "\u1112\u1161\u11ab", "\uac00\u11a8", "\u1161\u0308", "\u0600a", "\u0600 ",
                  "\u0958", "\u212b", "\ufb01", "\u32ff", "\u0344", "q\u0307\u0323", "\u1e9b\u0323", "\U0001f468\u200d\U0001f469",
                  "\U0001f1e9\U0001f1ea\u0301", "\U0001d15e", "\u30ac", "\uff76\uff9e", "\ua7f2", "\u0e33", "foo", "[X]", "__", "--"]


def random_text(source, words, snippets=SNIPPETS):
    parts = []
    for _ in range(source.randrange(0, 12)):
        kind = source.random()
        if kind < 0.4:
            word = source.choice(words)
            parts.append(source.choice([word, word.upper(), word.title(), word.removeprefix("##")]))
        elif kind < 0.65:
            parts.append(source.choice(snippets))
        else:
            alphabet = source.choice(ALPHABETS)
            codes = [code for code in source.choices(alphabet, k=source.randrange(1, 9)) if code not in SURROGATES]
            parts.append("".join(map(chr, codes)))
        if source.random() < 0.5:
            parts.append(" ")
    return "".join(parts)


def edited(name, change):
    """A change of one JSON file: `change` gets its content, empty where there is none."""
    def apply(directory):
        path = directory / name
        content = json.loads(path.read_text()) if path.exists() else {}
        change(content)
        path.write_text(json.dumps(content))
    return apply


def token(content, **flags):
    defaults = {"lstrip": False, "rstrip": False, "single_word": False, "normalized": False, "special": True}
    return {"content": content, **defaults, **flags}


def add_to_json(tokens):
    def change(content):
        size = len(content["model"]["vocab"])
        content["added_tokens"] += [{"id": size + i, **entry} for i, entry in enumerate(tokens)]
    return edited("tokenizer.json", change)


def set_config(**values):
    return edited("tokenizer_config.json", lambda content: content.update(values))


def as_it_is(**normalizer):
    def change(content):
        content["normalizer"].update(normalizer)
        content["model"]["max_input_chars_per_word"] = 20
    return [set_config(tokenizer_class="PreTrainedTokenizerFast"), edited("tokenizer.json", change)]


def remove(name):
    return lambda directory: (directory / name).unlink()


ADDED = [token("<foo>", normalized=True, special=False), token("[X]", single_word=True), token("[XY]", rstrip=True),
         token("<bar>", lstrip=True, normalized=True), token("foo", single_word=True, special=False),
         token("na\u00efve", normalized=True, special=False)]
VARIANTS = {
    "cased": [set_config(do_lower_case=False)],
    "cased, accents stripped": [set_config(do_lower_case=False, strip_accents=True)],
    "uncased, accents kept": [set_config(strip_accents=False)],
    "no chinese": [set_config(tokenize_chinese_chars=False)],
    "added tokens": [add_to_json(ADDED)],
    "added tokens, cased": [add_to_json(ADDED), set_config(do_lower_case=False)],
    "added tokens, accents kept": [add_to_json(ADDED), set_config(strip_accents=False)],
    "added_tokens_decoder": [set_config(added_tokens_decoder={
        str(400000 + i): entry for i, entry in enumerate(ADDED)} | {"0": token("<mask>", normalized=True)})],
    "other special tokens": [set_config(cls_token="the", sep_token="<new>", additional_special_tokens=["<foo>", "of"])],
    "special_tokens_map": [edited("special_tokens_map.json", lambda content: content.update(
        mask_token=token("<mask>", lstrip=True, normalized=True), unk_token="[UNK]", extra=None))],
    "as it is": as_it_is(),
    "as it is, nothing cleaned": as_it_is(clean_text=False, handle_chinese_chars=False, strip_accents=False),
    "as it is, no case": as_it_is(clean_text=False, lowercase=False, strip_accents=True),
    "as it is, added": [*as_it_is(), add_to_json(ADDED), set_config(additional_special_tokens=["<new>"])],
}


def our_ids(program, directory, texts, lowercase_first):
    lines = "".join(json.dumps(text) + "\n" for text in texts)
    result = subprocess.run([program, directory, "64", "1" if lowercase_first else "0"], input=lines, check=True,
                            stdout=subprocess.PIPE, text=True)
    return [json.loads(line) for line in result.stdout.splitlines()]


def compare(name, program, directory, texts, lowercase_first=False):
    tokenizer = AutoTokenizer.from_pretrained(directory)
    if lowercase_first:  # as sentence-transformers does for do_lower_case
        backend = tokenizer.backend_tokenizer
        backend.normalizer = normalizers.Sequence([normalizers.Lowercase(), backend.normalizer])
    ours = our_ids(program, directory, texts, lowercase_first)
    # Without a text for the ends there would be none in a batch; max_length counts them.
    theirs = tokenizer(texts, truncation=True, max_length=64)["input_ids"]
    assert len(ours) == len(theirs) == len(texts)
    differing = [case for case in zip(texts, ours, theirs) if case[1] != case[2]]
    print(f"{name}: {len(texts)} texts, {len(differing)} differ", flush=True)
    for text, got, wanted in differing[:10]:
        print(f"  {json.dumps(text)}\n    ours   {got}\n    theirs {wanted}")
    return not differing


def texts_for(source, folder, count):
    """Texts of a tokenizer's own tokens, and of much else."""
    vocabulary = json.loads((folder / "tokenizer.json").read_text())["model"]["vocab"]
    words = [entry if isinstance(entry, str) else entry[0] for entry in vocabulary]
    return [random_text(source, words, SNIPPETS + OTHER_SNIPPETS) for _ in range(count)]


def main():
    program, model, tiny = sys.argv[1], pathlib.Path(sys.argv[2]), pathlib.Path(sys.argv[3])
    count = int(sys.argv[4]) if len(sys.argv) > 4 else 20_000
    seed = int(sys.argv[5]) if len(sys.argv) > 5 else random.randrange(1 << 32)
    print(f"seed {seed}")
    source = random.Random(seed)
    words = list(json.loads((model / "tokenizer.json").read_text())["model"]["vocab"])
    texts = [random_text(source, words) for _ in range(count)]
    few = texts[: count // 10]
    equal = [compare(model.name, program, model, texts)]
    for original in (model, tiny / "tiny_bert_cls", tiny / "tiny_mpnet_mean"):
        vocabulary = json.loads((original / "tokenizer.json").read_text())["model"]["vocab"]
        for name, changes in {"unchanged": [], **VARIANTS, "vocab.txt": [remove("tokenizer.json")]}.items():
            with tempfile.TemporaryDirectory() as directory:
                copy = pathlib.Path(directory)
                for file in TOKENIZER_FILES:
                    if (original / file).exists():
                        shutil.copyfile(original / file, copy / file)
                (copy / "vocab.txt").write_text("".join(f"{entry}\n" for entry in vocabulary), encoding="utf-8")
                for change in changes:
                    change(copy)
                equal.append(compare(f"{original.name}, {name}", program, copy, few))
                if name in ("unchanged", "cased", "added tokens, cased"):
                    equal.append(compare(f"{original.name}, {name}, do_lower_case", program, copy, few, True))
    with tempfile.TemporaryDirectory() as directory:
        for name, folder in make_tokenizers(pathlib.Path(directory)):
            equal.append(compare(name, program, folder, texts_for(source, folder, count)))
    for folder in sorted(tiny.iterdir()):
        if folder.name != "tiny_bert_f16":  # The same as the first.
            equal.append(compare(folder.name, program, folder, texts_for(source, folder, count // 10)))
    sys.exit(0 if all(equal) else 1)


if __name__ == "__main__":
    main()
