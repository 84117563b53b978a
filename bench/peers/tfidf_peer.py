#!/usr/bin/env python3
"""Compares the hashing embedder with scikit-learn's, in alternating rounds over the same texts.

    tfidf_peer.py CORPUS TFIDF_ROUNDS [ROUNDS]

Both make 256 float64 numbers a text, signed hashing weighted by inverse document frequency and scaled
to unit length, on one thread. scikit-learn's tokenizer is the simpler one: it splits at what is no word
character, knows no camelCase and stems nothing. "batch" embeds all texts in one call, "single" one text a
call; what either side has made is freed outside the measured time.

Ours runs twice: as it is, and with glibc's allocator asking for huge pages, which numpy does for its arrays
by itself. The vectors of a whole corpus are tens of megabytes of fresh memory, and what they cost in page
faults is most of the difference.
"""

import os

for variable in ("OMP_NUM_THREADS", "OPENBLAS_NUM_THREADS", "MKL_NUM_THREADS"):
    os.environ[variable] = "1"  # read when numpy is loaded

import statistics
import time

import sklearn
from rounds import Side, alternate, corpus_program_rounds, read_texts
from sklearn.feature_extraction.text import HashingVectorizer, TfidfTransformer
from sklearn.pipeline import make_pipeline

SINGLE_CALLS = 200


class Ours(Side):
    name = "tovana"

    def batch(self):
        return self.ask("batch")[0]

    def single(self):
        return self.ask(f"single {SINGLE_CALLS}")[0]


class OursOnHugePages(Ours):
    name = "tovana, huge pages"
    environment = {"GLIBC_TUNABLES": "glibc.malloc.hugetlb=1"}


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
    times = alternate([getattr(side, measure) for side in sides], rounds)
    times = {side: [taken / texts * 1e6 for taken in column] for side, column in zip(sides, times)}
    figures = {side: (min(times[side]), statistics.median(times[side])) for side in sides}
    for side in sides:
        minimum, median = figures[side]
        print(f"{measure:<8}{side.name:<22}{minimum:>16.3f}{median:>12.3f}")
    *ours, peer = sides
    for side in ours:
        ratios = [theirs / own for own, theirs in zip(figures[side], figures[peer])]
        print(f"{measure:<8}{side.name + ', times faster':<32}{ratios[0]:>6.1f}{ratios[1]:>12.1f}")


def main():
    corpus, program, rounds = corpus_program_rounds(20)
    texts = read_texts(corpus)
    sides = (Ours(program, corpus), OursOnHugePages(program, corpus), ScikitLearn(texts))
    print(f"microseconds a text, {rounds} rounds{'minimum':>18}{'median':>12}")
    compare(sides, "batch", len(texts), rounds)
    compare(sides, "single", min(SINGLE_CALLS, len(texts)), rounds)


if __name__ == "__main__":
    main()
