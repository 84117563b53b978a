"""The texts that the local model is compared on: real descriptions, chosen by their number of tokens."""

TITLES = {
    "query": "A query",
    "batch32": "A batch",
    "mixed256": "Texts of very different lengths",
    "long16": "Long texts",
}


def set_title(name, texts, tokens):
    count = f"{texts:,} texts, " if texts > 1 else ""
    return f"{TITLES[name]}: {count}{tokens:,} tokens"


class Corpus:
    """Descriptions, and how many tokens each is to a model."""

    def __init__(self, texts, tokenizer):
        self._texts = texts
        self._tokens = [len(encoding.ids) for encoding in tokenizer.encode_batch(texts)]

    def description(self, part, tokens):
        """The first one with so many tokens behind that part (0 to 1) of the corpus."""
        indexes = range(int(part * len(self._texts)), len(self._texts))
        return self._texts[next(index for index in indexes if self._tokens[index] == tokens)]

    def passage(self, part, tokens):
        """Descriptions that follow one another, as many as are no more than so many tokens."""
        first = end = int(part * len(self._texts))
        left = tokens - 2  # the marks at both ends, which each description's own number holds too
        while left >= self._tokens[end] - 2:
            left -= self._tokens[end] - 2
            end += 1
        return " ".join(self._texts[first:end])


def text_sets(texts, tokenizer):
    """Names and texts. The tokenizer neither pads nor truncates."""
    corpus = Corpus(texts, tokenizer)

    def spread(function, count, shortest, longest):
        """So many texts from all over the corpus, their lengths in no order."""
        steps = [index * 7 % count for index in range(count)]  # no count here is a multiple of 7
        return [
            function(index / count * 0.9, round(shortest + (longest - shortest) * step / (count - 1)))
            for index, step in enumerate(steps)
        ]

    step = len(texts) // 208
    return {
        "query": ["wait until the model is loaded before the first query"],
        "batch32": spread(corpus.description, 32, 14, 45),
        "mixed256": texts[: 208 * step : step] + spread(corpus.passage, 48, 76, 190),
        "long16": spread(corpus.passage, 16, 200, 256),
    }
