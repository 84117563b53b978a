"""How near the vectors of a side are to the reference's: on distinct real descriptions, the least cosine, and
how many of the ten nearest neighbours stay."""

import numpy

TEXTS = 10_000
SEARCHED = 9_000  # of them; each is a query among the others
NEAREST = 10
MAX_TOKENS = 256


def distinct_texts(texts, tokenizer):
    """TEXTS descriptions from all over the corpus, or as many as there are, none of which is the same tokens
    as another to the model: equal vectors would share a place among the nearest. The tokenizer neither pads
    nor truncates."""
    ids = (tuple(encoding.ids[: MAX_TOKENS - 1]) for encoding in tokenizer.encode_batch(texts))
    distinct = list({tokens: text for tokens, text in zip(ids, texts)}.values())
    count = min(TEXTS, len(distinct))
    return [distinct[index * len(distinct) // count] for index in range(count)]


class Reference:
    """Vectors that others are held to."""

    def __init__(self, vectors):
        self._vectors = _units(vectors)
        self._nearest = _nearest(self._vectors[:SEARCHED])

    def compare(self, vectors):
        """The least cosine of a vector to the reference's of the same text, and the share of the nearest
        neighbours, over all queries, that are the reference's too."""
        vectors = _units(vectors)
        least = float(numpy.einsum("ij,ij->i", vectors, self._vectors).min())
        kept = sum(map(len, map(set.intersection, self._nearest, _nearest(vectors[:SEARCHED]))))
        return least, kept / (NEAREST * len(self._nearest))


def _units(vectors):
    vectors = vectors.astype(numpy.float64)
    return vectors / numpy.linalg.norm(vectors, axis=1, keepdims=True)


def _nearest(vectors, queries=1000):
    """For each vector the set of its nearest among the others, so many queries at a time."""
    nearest = []
    for first in range(0, len(vectors), queries):
        cosines = vectors[first : first + queries] @ vectors.T
        own = numpy.arange(len(cosines))
        cosines[own, first + own] = -numpy.inf
        nearest += map(set, numpy.argpartition(-cosines, NEAREST, axis=1)[:, :NEAREST].tolist())
    return nearest
