#!/usr/bin/env python3
"""Compares the local model with Python's sentence-transformers, in alternating rounds over the same texts.

    model_peer.py CORPUS MODEL MODEL_ROUNDS [ROUNDS]

Both run the same model on THREADS intra-op threads and give unit vectors in float32. Four sets: a query of
one text, 32 texts, 256 texts of very different lengths, and 16 long ones.
"""

import os

THREADS = 2
os.environ["OMP_NUM_THREADS"] = str(THREADS)  # read when torch is loaded
os.environ["HF_HUB_OFFLINE"] = "1"

import statistics
import sys
import tempfile
import time

import sentence_transformers
import torch
from rounds import OurSide, alternate


def text_sets(corpus):
    """Names and texts, each text a line."""
    by_length = sorted(corpus, key=len)
    mixed = [corpus[index * len(corpus) // 224] for index in range(224)]
    long = [" ".join(corpus[begin : begin + 24]) for begin in range(0, 48 * 24, 24)]
    return {
        "query": ["how is the header of a file parsed"],
        "batch32": by_length[len(by_length) // 2 :][:32],
        "mixed256": mixed + [text[:600] for text in long[:32]],
        "long16": long[32:48],
    }


class Ours(OurSide):
    name = "tovana"

    def encode(self, first, texts):
        return self.ask(f"encode {first} {len(texts)}")[0]


class SentenceTransformers:
    name = f"sentence-transformers {sentence_transformers.__version__}"

    def __init__(self, model):
        torch.set_num_threads(THREADS)
        self._model = sentence_transformers.SentenceTransformer(model, device="cpu")

    def encode(self, first, texts):
        begin = time.perf_counter()
        vectors = self._model.encode(texts, normalize_embeddings=True, show_progress_bar=False)
        end = time.perf_counter()
        assert len(vectors) == len(texts)
        return end - begin


def compare(name, first, texts, sides, rounds):
    times = alternate([lambda side=side: side.encode(first, texts) for side in sides], rounds)
    figures = [(min(column) * 1e3, statistics.median(column) * 1e3) for column in times]
    for side, (minimum, median) in zip(sides, figures):
        print(f"{name:<10}{side.name:<30}{minimum:>12.2f}{median:>12.2f}", flush=True)
    ours, theirs = figures
    print(f"{name:<10}{'times faster':<30}{theirs[0] / ours[0]:>12.2f}{theirs[1] / ours[1]:>12.2f}", flush=True)


def main():
    if len(sys.argv) not in (4, 5):
        sys.exit("usage: model_peer.py CORPUS MODEL MODEL_ROUNDS [ROUNDS]")
    corpus, model, program = sys.argv[1:4]
    rounds = int(sys.argv[4]) if len(sys.argv) == 5 else 20
    with open(corpus, encoding="utf-8", newline="\n") as file:
        sets = text_sets(file.read().rstrip("\n").split("\n"))
    with tempfile.NamedTemporaryFile("w", encoding="utf-8", suffix=".txt") as texts_file:
        for texts in sets.values():
            texts_file.write("".join(f"{text}\n" for text in texts))
        texts_file.flush()
        sides = (Ours(program, model, texts_file.name, THREADS), SentenceTransformers(model))
        print(f"{f'milliseconds a call, {rounds} rounds':<40}{'minimum':>12}{'median':>12}", flush=True)
        first = 0
        for name, texts in sets.items():
            compare(name, first, texts, sides, rounds * 5 if name == "query" else rounds)
            first += len(texts)


if __name__ == "__main__":
    main()
