#!/usr/bin/env python3
"""Compares the hashing embedder with scikit-learn's, in alternating rounds over the same texts.

    tfidf_peer.py CORPUS TFIDF_ROUNDS [ROUNDS]

Both make 256 float64 numbers a text, signed hashing weighted by inverse document frequency and scaled
to unit length, on one thread. scikit-learn's tokenizer is the simpler one: it splits at what is no word
character, knows no camelCase and stems nothing. "batch" embeds all texts in one call, "single" one text a
call; what either side has made is freed outside the measured time.
"""

import os

for variable in ("OMP_NUM_THREADS", "OPENBLAS_NUM_THREADS", "MKL_NUM_THREADS"):
    os.environ[variable] = "1"  # read when numpy is loaded

import statistics
import subprocess
import sys
import time

import sklearn
from sklearn.feature_extraction.text import HashingVectorizer, TfidfTransformer
from sklearn.pipeline import make_pipeline

SINGLE_CALLS = 200


class Ours:
    name = "tovana"

    def __init__(self, program, corpus):
        self._process = subprocess.Popen(
            [program, corpus], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1
        )

    def seconds(self, request):
        self._process.stdin.write(request + "\n")
        answer = self._process.stdout.readline()
        if not answer:
            sys.exit(f"tfidf_peer.py: our side ended with status {self._process.wait()}")
        return float(answer)

    def batch(self):
        return self.seconds("batch")

    def single(self):
        return self.seconds(f"single {SINGLE_CALLS}")


class ScikitLearn:
    name = f"scikit-learn {sklearn.__version__}"

    def __init__(self, texts):
        self._texts = texts
        self._pipeline = make_pipeline(
            HashingVectorizer(n_features=256, alternate_sign=True, norm=None), TfidfTransformer()
        )

    def embed(self, texts):
        return self._pipeline.fit_transform(texts).toarray()

    def batch(self):
        begin = time.perf_counter()
        kept = self.embed(self._texts)
        end = time.perf_counter()
        assert kept.shape == (len(self._texts), 256)
        return end - begin

    def single(self):
        begin = time.perf_counter()
        kept = [self.embed([text]) for text in self._texts[:SINGLE_CALLS]]
        end = time.perf_counter()
        assert len(kept) == SINGLE_CALLS
        return end - begin


def compare(sides, measure, texts, rounds):
    times = {side: [] for side in sides}
    for number in range(rounds + 1):
        # Whoever goes first finds the caches as the other left them, so they take turns at it.
        for side in sides if number % 2 else reversed(sides):
            taken = getattr(side, measure)()
            if number > 0:  # the first round only warms up
                times[side].append(taken / texts * 1e6)
    figures = {side: (min(times[side]), statistics.median(times[side])) for side in sides}
    for side in sides:
        minimum, median = figures[side]
        print(f"{measure:<8}{side.name:<22}{minimum:>12.3f}{median:>12.3f}")
    ours, theirs = (figures[side] for side in sides)
    print(f"{measure:<8}{'times faster':<22}{theirs[0] / ours[0]:>12.1f}{theirs[1] / ours[1]:>12.1f}")


def main():
    if len(sys.argv) not in (3, 4):
        sys.exit("usage: tfidf_peer.py CORPUS TFIDF_ROUNDS [ROUNDS]")
    corpus, program = sys.argv[1:3]
    rounds = int(sys.argv[3]) if len(sys.argv) == 4 else 20
    with open(corpus, encoding="utf-8", newline="\n") as file:
        texts = file.read().rstrip("\n").split("\n")
    sides = (Ours(program, corpus), ScikitLearn(texts))
    print(f"microseconds a text, {rounds} rounds{'minimum':>14}{'median':>12}")
    compare(sides, "batch", len(texts), rounds)
    compare(sides, "single", min(SINGLE_CALLS, len(texts)), rounds)


if __name__ == "__main__":
    main()
