"""`tovana-embed search`: which texts it prints, in which order and form."""

from plain_tfidf import embed
from rig import tfidf

TEXTS = ["read the configuration file", "open a socket", "", "read\tfile \x1b[31m", "write file", "read file"]
INPUT = "".join(text + "\n" for text in TEXTS)


def test_prints_the_texts_like_the_query_best_first():
    (query,), vectors = embed(["readFile"], 4096), embed(TEXTS, 4096)
    expected = ""
    for index in (5, 3, 0):
        score = sum(a * b for a, b in zip(query, vectors[index]))
        expected += f"{score:.4f}\t" + TEXTS[index].replace("\x1b", "\\x1b") + "\n"
    assert tfidf("search", "readFile", "--top", "3", given=INPUT).out.decode() == expected


def test_says_when_nothing_is_like_the_query():
    for query, given in [("", INPUT), (" ,; ", INPUT), ("zebra", INPUT), ("word", "")]:
        result = tfidf("search", query, given=given)
        assert (result.status, result.out, result.err.count("\n")) == (0, b"", 1)


def test_json_tells_the_line_or_the_whole_record_as_it_is():
    result = tfidf("search", "socket", "--json", given="file\n\nsocket \0\n")
    assert (result.out, result.err) == (b'{"score":1,"line":3,"text":"socket \\u0000"}\n', "")
    given = '{"text":"file"}\n{"line": 7,"text":"socket\\n\\u0000","score":9,"vector":[]}\n'
    result = tfidf("search", "socket", "--jsonl", "--json", given=given)
    assert (result.out, result.err) == (b'{"score":1,"line": 7,"text":"socket\\n\\u0000","vector":[]}\n', "")
