"""Makes tokenizers of every kind, trained on this tree's own texts, for compare.py."""

import base64
import json
import pathlib

from tokenizers import (AddedToken, Regex, Tokenizer, decoders, models, normalizers, pre_tokenizers, processors,
                        trainers)

ROOT = pathlib.Path(__file__).resolve().parents[2]
SIZE = 4000
GPT4_WORDS = (r"(?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\r\n\p{L}\p{N}]?\p{L}+|\p{N}{1,3}| ?[^\s\p{L}\p{N}]+[\r\n]*|\s*[\r\n]+"
              r"|\s+(?!\S)|\s+")
CASED_WORDS = r"[\p{Lu}\p{Lt}\p{M}]*+[\p{Ll}\p{Lm}\p{Lo}]+?|(?>\d{2,4})|[^\W\d]+|(?:--)+|[a-c\-_.]{2,}|\S"


def corpus():
    for pattern in ("*.md", "docs/*.md", "tovana/**/*.h", "tovana/**/*.cpp", "tests/data/tiny_models/*/reference.jsonl"):
        for path in sorted(ROOT.glob(pattern)):
            for line in path.read_text(encoding="utf-8").splitlines():
                yield json.loads(line)["text"] if pattern.endswith("jsonl") else line


def charsmap():
    """The map of characters of a model in the tree."""
    content = json.loads((ROOT / "tests/data/tiny_models/tiny_xlmr_mean/tokenizer.json").read_text())
    return base64.b64decode(content["normalizer"]["precompiled_charsmap"])


def byte_pairs(special, **options):
    tokenizer = Tokenizer(models.BPE(**options))
    tokenizer.pre_tokenizer = pre_tokenizers.ByteLevel(add_prefix_space=False)
    tokenizer.decoder = decoders.ByteLevel()
    tokenizer.train_from_iterator(corpus(), trainers.BpeTrainer(
        vocab_size=SIZE, special_tokens=special, show_progress=False,
        initial_alphabet=pre_tokenizers.ByteLevel.alphabet()))
    return tokenizer


def around(tokenizer, before, behind):
    single = " ".join([*before, "$A", *behind])
    names = {*before, *behind}
    tokenizer.post_processor = processors.TemplateProcessing(
        single=single, special_tokens=[(name, tokenizer.token_to_id(name)) for name in names])
    return tokenizer


def roberta():
    tokenizer = byte_pairs(["<s>", "<pad>", "</s>", "<unk>", "<mask>"])
    tokenizer.add_special_tokens([AddedToken("<mask>", lstrip=True)])
    tokenizer.post_processor = processors.RobertaProcessing(("</s>", 2), ("<s>", 0))
    return tokenizer


def modernbert():
    tokenizer = byte_pairs([])
    tokenizer.normalizer = normalizers.NFC()
    tokenizer.add_tokens([AddedToken(" " * count, normalized=True) for count in (8, 4, 3, 2)])
    tokenizer.add_tokens([AddedToken("|||IP_ADDRESS|||", normalized=True), AddedToken("na\u00efve", normalized=True)])
    tokenizer.add_special_tokens(["[UNK]", "[CLS]", "[SEP]", "[PAD]", AddedToken("[MASK]", lstrip=True)])
    return around(tokenizer, ["[CLS]"], ["[SEP]"])


def qwen2():
    tokenizer = byte_pairs([])
    tokenizer.normalizer = normalizers.NFC()
    tokenizer.add_special_tokens(["<|endoftext|>", "<|im_start|>"])
    tokenizer.add_tokens(["<think>"])
    return around(tokenizer, [], ["<|endoftext|>"])


def gemma():
    special = ["<pad>", "<eos>", "<bos>", "<unk>", "<mask>"]
    tokenizer = Tokenizer(models.BPE(unk_token="<unk>", fuse_unk=True, byte_fallback=True))
    tokenizer.normalizer = normalizers.Replace(" ", "\u2581")
    # Words of half a line: whole lines take hours to train on.
    tokenizer.pre_tokenizer = pre_tokenizers.Split(Regex(".{1,40}"), "isolated")
    tokenizer.train_from_iterator(corpus(), trainers.BpeTrainer(
        vocab_size=SIZE, special_tokens=special + [f"<0x{byte:02X}>" for byte in range(256)], show_progress=False,
        limit_alphabet=300))
    content = json.loads(tokenizer.to_str())
    content["added_tokens"] = [token for token in content["added_tokens"] if token["content"] in special]
    tokenizer = Tokenizer.from_str(json.dumps(content))
    tokenizer.pre_tokenizer = pre_tokenizers.Split(" ", "merged_with_previous")
    return around(tokenizer, ["<bos>"], ["<eos>"])


def unigram(special, **options):
    tokenizer = Tokenizer(models.Unigram())
    tokenizer.normalizer = normalizers.Precompiled(charsmap())
    tokenizer.pre_tokenizer = pre_tokenizers.Sequence(
        [pre_tokenizers.WhitespaceSplit(), pre_tokenizers.Metaspace(prepend_scheme="always")])
    tokenizer.train_from_iterator(corpus(), trainers.UnigramTrainer(
        vocab_size=SIZE, special_tokens=special, unk_token="<unk>", show_progress=False))
    content = json.loads(tokenizer.to_str())
    content["model"].update(options)
    return Tokenizer.from_str(json.dumps(content))


def xlm_roberta():
    tokenizer = unigram(["<s>", "<pad>", "</s>", "<unk>"])
    tokenizer.add_special_tokens([AddedToken("<mask>", lstrip=True)])
    content = json.loads(around(tokenizer, ["<s>"], ["</s>"]).to_str())
    content["model"]["vocab"].append(["<mask>", 0.0])
    return Tokenizer.from_str(json.dumps(content))


def old_metaspace():
    """Spelled as by versions of some years ago."""
    content = json.loads(xlm_roberta().to_str())
    old = {"type": "Metaspace", "replacement": "\u2581", "str_rep": "\u2581", "add_prefix_space": True}
    content["pre_tokenizer"]["pretokenizers"][1] = old
    content["decoder"] = old
    content["normalizer"] = {"type": "Sequence", "normalizers": [content["normalizer"], {
        "type": "Replace", "pattern": {"Regex": " {2,}"}, "content": " "}]}
    del content["model"]["byte_fallback"]
    return content


def camembert():
    content = json.loads(unigram(["<s>NOTUSED", "<pad>", "</s>NOTUSED", "<unk>", "<unk>NOTUSED", "<s>", "</s>"]).to_str())
    vocabulary = [[token, -100 if token == "<unk>NOTUSED" else score] for token, score in content["model"]["vocab"]]
    content["model"]["vocab"] = [*vocabulary, ["<mask>", 0.0]]
    content["added_tokens"] = [token for token in content["added_tokens"] if "NOT" not in token["content"]]
    tokenizer = Tokenizer.from_str(json.dumps(content))
    tokenizer.add_special_tokens([AddedToken("<mask>", lstrip=True)])
    return around(tokenizer, ["<s>"], ["</s>"])


def steps(normalizer, pre_tokenizer, model, trainer):
    """Any steps, taken as they are."""
    tokenizer = Tokenizer(model)
    tokenizer.normalizer, tokenizer.pre_tokenizer = normalizer, pre_tokenizer
    tokenizer.train_from_iterator(corpus(), trainer(
        vocab_size=SIZE, special_tokens=["<s>", "<pad>", "</s>", "<unk>"], show_progress=False))
    tokenizer.add_tokens([AddedToken("foo", single_word=True, normalized=True), AddedToken("[X]", rstrip=True)])
    return around(tokenizer, ["<s>"], ["</s>"])


def plain_steps():
    n, p = normalizers, pre_tokenizers
    split = [p.Split(Regex(r"\s+"), "removed"), p.Digits(individual_digits=False)]
    yield "NFKC, words", steps(
        n.Sequence([n.NFKC(), n.Lowercase(), n.Strip()]), p.Sequence([p.Whitespace(), p.Digits(individual_digits=True)]),
        models.BPE(unk_token="<unk>", continuing_subword_prefix="@@", end_of_word_suffix="</w>"),
        lambda **options: trainers.BpeTrainer(continuing_subword_prefix="@@", end_of_word_suffix="</w>", **options))
    yield "NFKD, no accents", steps(
        n.Sequence([n.NFKD(), n.StripAccents(), n.Nmt()]), p.Sequence([*split, p.Punctuation("merged_with_next")]),
        models.BPE(unk_token="<unk>", fuse_unk=True), trainers.BpeTrainer)
    yield "NFD, WordPiece", steps(
        n.Sequence([n.NFD(), n.Prepend("_"), n.Replace(Regex("(?i:s|k)+|o(?=[a-z])"), "o")]), p.BertPreTokenizer(),
        models.WordPiece(unk_token="<unk>"), trainers.WordPieceTrainer)
    yield "of other words", steps(
        None, p.Sequence([p.Split(Regex(CASED_WORDS), "isolated"), p.ByteLevel(use_regex=False)]),
        models.BPE(ignore_merges=True), trainers.BpeTrainer)
    yield "GPT-4's words", steps(
        None, p.Sequence([p.Split(Regex(GPT4_WORDS), "removed", invert=True), p.ByteLevel(True, use_regex=False)]),
        models.BPE(), trainers.BpeTrainer)
    for behavior in ("merged_with_previous", "merged_with_next", "contiguous"):
        for invert in (False, True):
            yield f"{behavior}, {invert}", steps(
                None, p.Sequence([p.Metaspace(prepend_scheme="first", split=invert),
                                  p.Split(Regex("[-aeiou]"), behavior, invert)]), models.BPE(), trainers.BpeTrainer)


def write(folder, tokenizer, **config):
    folder.mkdir()
    content = tokenizer if isinstance(tokenizer, dict) else json.loads(tokenizer.to_str())
    (folder / "tokenizer.json").write_text(json.dumps(content))
    (folder / "tokenizer_config.json").write_text(json.dumps(config))
    (folder / "config.json").write_text(json.dumps({"model_type": "bert"}))
    return folder


def make_tokenizers(parent):
    """Folders by what their tokenizers are."""
    trusted = {"tokenizer_class": "PreTrainedTokenizerFast", "pad_token": "<pad>"}
    wanted = {
        "RobertaTokenizer": (roberta(), {}),
        "RobertaTokenizer, prefix space": (roberta(), {"tokenizer_class": "RobertaTokenizer", "add_prefix_space": True}),
        "ModernBERT": (modernbert(), {**trusted, "pad_token": "[PAD]"}),
        "Qwen2Tokenizer": (qwen2(), {"padding_side": "left"}),
        "GemmaTokenizer": (gemma(), {}),
        "XLMRobertaTokenizer": (xlm_roberta(), {}),
        "XLMRobertaTokenizer, no prefix space": (
            xlm_roberta(), {"tokenizer_class": "XLMRobertaTokenizer", "add_prefix_space": False}),
        "old Metaspace": (old_metaspace(), trusted),
        "Unigram with bytes": (
            around(unigram(["<s>", "<pad>", "</s>", "<unk>", *(f"<0x{byte:02X}>" for byte in range(256))],
                           byte_fallback=True), ["<s>"], ["</s>"]), trusted),
        "CamembertTokenizer": (camembert(), {}),
        "CamembertTokenizer, its own extra tokens": (
            camembert(), {"tokenizer_class": "CamembertTokenizer", "additional_special_tokens": ["<x>", "</s>NOTUSED"]}),
        **{name: (tokenizer, trusted) for name, tokenizer in plain_steps()},
    }
    for number, (name, (tokenizer, config)) in enumerate(wanted.items()):
        yield name, write(parent / str(number), tokenizer, **{"tokenizer_class": name, **config})
