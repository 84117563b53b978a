#!/usr/bin/env python3
"""Compares the local model with sentence-transformers on encoders of several families and of real sizes, in
alternating rounds over the same texts: a query, and 32 texts in one call.

    family_peer.py CORPUS MODEL_ROUNDS MODEL FOLDER [ROUNDS]

MODEL_ROUNDS is our program, FOLDER gets the models: of random weights, in a vocabulary of 30,522 words with the
tokenizer of MODEL, for time hangs on sizes alone. Both compute in float32 on two threads; first of all their
vectors must agree.
"""

import contextlib
import json
import shutil
import statistics
import sys
import tempfile
from pathlib import Path

import numpy
from model_texts import text_sets
from rounds import Side, alternate, read_texts
from tokenizers import Tokenizer

THREADS = 2
CALLS = {"query": 5, "batch32": 1}  # in a row, in each round
MODELS = {
    "MiniLM, 12 x 384": ("Bert", {"hidden_size": 384, "intermediate_size": 1536}),
    "DistilRoBERTa, 6 x 768": ("Roberta", {"num_hidden_layers": 6, "max_position_embeddings": 514, "type_vocab_size": 1}),
    "NomicBERT, 12 x 768": ("NomicBert", {"max_position_embeddings": 8192}),
    "ModernBERT, 22 x 768": ("ModernBert", {name + "_token_id": 0 for name in ("pad", "cls", "sep", "bos", "eos")}),
}


class Ours(Side):
    environment = {"OMP_NUM_THREADS": str(THREADS), "EMBED_THREADS": str(THREADS), "TOVANA_EMBED_PRECISION": "float32"}


def make_model(family, members, source, folder):
    import torch
    import transformers
    from sentence_transformers import SentenceTransformer, models

    torch.manual_seed(1)
    config = getattr(transformers, family + "Config")(vocab_size=30522, **members)
    with tempfile.TemporaryDirectory() as encoder:
        getattr(transformers, family + "Model")(config).save_pretrained(encoder)
        shutil.copy(source / "tokenizer.json", encoder)
        settings = {"tokenizer_class": "PreTrainedTokenizerFast", "model_max_length": 256}
        settings |= {"pad_token": "[PAD]", "cls_token": "[CLS]", "sep_token": "[SEP]", "unk_token": "[UNK]"}
        (Path(encoder) / "tokenizer_config.json").write_text(json.dumps(settings))
        transformer = models.Transformer(encoder, max_seq_length=256)
        pooling = models.Pooling(transformer.get_word_embedding_dimension())
        SentenceTransformer(modules=[transformer, pooling], device="cpu").save(str(folder), create_model_card=False)


def vectors_of(side, count):
    with tempfile.NamedTemporaryFile() as file:
        (width,) = side.ask(f"vectors 0 {count} {file.name}")
        rows = numpy.fromfile(file.name, numpy.float32).reshape(count, int(width))
    return rows / numpy.linalg.norm(rows, axis=1, keepdims=True)


def compare(title, ours, peer, sets, rounds):
    count = sum(map(len, sets.values()))
    difference = float(numpy.abs(vectors_of(ours, count) - vectors_of(peer, count)).max())
    if not difference < 1e-5:
        sys.exit(f"{title}: a vector's numbers differ by {difference}")
    first = 0
    for name, calls in CALLS.items():
        request = f"encode {first} {len(sets[name])} {calls}"
        first += len(sets[name])
        times = alternate([lambda side=side: side.ask(request) for side in (ours, peer)], rounds)
        mine, theirs = ([1000 * second for round_ in side for second in round_] for side in times)
        cells = [f"{min(side):.1f} / {statistics.median(side):.1f}" for side in (mine, theirs)]
        print(f"| {title} | {name} | {cells[0]} | {cells[1]} | {min(mine) / min(theirs):.2f} |", flush=True)


def main():
    corpus, program, source, folder = sys.argv[1:5]
    rounds = int(sys.argv[5]) if len(sys.argv) > 5 else 10
    tokenizer = Tokenizer.from_file(str(Path(source) / "tokenizer.json"))
    tokenizer.no_padding()
    tokenizer.no_truncation()
    sets = {name: texts for name, texts in text_sets(read_texts(corpus), tokenizer).items() if name in CALLS}
    texts = Path(folder) / "texts.txt"
    texts.parent.mkdir(parents=True, exist_ok=True)
    texts.write_text("\n".join(sum(sets.values(), [])) + "\n", encoding="utf-8")
    print("| encoder | texts | tovana, ms (minimum / median) | sentence-transformers | ratio of minima |\n|---|---|---|---|---|")
    for title, (family, members) in MODELS.items():
        model = Path(folder) / family
        if not model.exists():
            make_model(family, members, Path(source), model)
        worker = Path(__file__).with_name("model_worker.py")
        command = (sys.executable, worker, "sentence-transformers", "float32", model, model, texts, THREADS)
        with contextlib.closing(Ours(program, model, texts)) as ours, contextlib.closing(Side(*command)) as peer:
            compare(title, ours, peer, sets, rounds)


main()
