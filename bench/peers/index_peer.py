#!/usr/bin/env python3
"""Measures the tool's index: bringing it up to date, beside `embed`, and searching it, beside NumPy and sqlite-vec.

    index_peer.py CORPUS TOOL MODEL FOLDER [ROUNDS [TEXTS [VECTORS]]]

The corpus, repeated with changes, is TEXTS (100,000) different records; they are embedded once, and indexed once. Then
ROUNDS (5) times each, the least time counting: the index with nothing changed, with 100 texts changed, and a search from
the start of its process to its answer. That is searched as well among VECTORS (1,000,000) made-up vectors, in files
that are made in FOLDER, 5 GB of it, and removed. The peers are given the query's vector, and search the same vectors, in
a process that has been started and again in one that has searched before; all have to find the same ten.
"""

import json
import shutil
import sqlite3
import subprocess
import sys
import time
from pathlib import Path

import numpy
import sqlite_vec

from rounds import read_texts

QUERY = "read a configuration file and check it"
TOP = 10
CHANGED = 100
BLOCK = 256


def write_records(path, corpus, count, state):
    """With `state`, the number of the state that it is, in each of 100 texts."""
    different = list(dict.fromkeys(corpus))
    step = count // CHANGED
    with open(path, "w", encoding="utf-8") as file:
        for number in range(count):
            copy, place = divmod(number, len(different))
            text = different[place] + (f" in version {copy}" if copy else "")
            if state and number % step == 0:
                text += f", changed {state}"
            record = {"id": f"file{number // 50}.py:{number}", "kind": "function", "line": number % 5000, "text": text}
            file.write(json.dumps(record) + "\n")


def seconds(command):
    """From the start of its process to its end, and what it prints."""
    begin = time.perf_counter()
    result = subprocess.run([str(part) for part in command], stdout=subprocess.PIPE, check=True)
    return time.perf_counter() - begin, result.stdout.decode()


def fill_with_made_up(path, vectors):
    """In place of what the index holds; its tables are in apps/tovana-embed/index_format.h."""
    connection = sqlite3.connect(path)
    with connection:
        connection.execute("DELETE FROM records")
        connection.execute("DELETE FROM vectors")
        for first in range(0, len(vectors), BLOCK):
            block = numpy.full((BLOCK, vectors.shape[1]), numpy.nan, dtype=numpy.float32)
            block[: len(vectors[first : first + BLOCK])] = vectors[first : first + BLOCK]
            connection.execute("INSERT INTO vectors VALUES (?, ?)", (first // BLOCK, block.tobytes()))
        rows = ((n, n.to_bytes(16, "little"), b"", n.to_bytes(16, "little"), n, str(n)) for n in range(len(vectors)))
        connection.executemany("INSERT INTO records VALUES (?, ?, ?, ?, ?, ?, NULL)", rows)
    connection.close()


def fill_sqlite_vec(path, vectors):
    connection = open_sqlite_vec(path)
    with connection:
        kind = f"float[{vectors.shape[1]}] distance_metric=cosine"
        connection.execute(f"CREATE VIRTUAL TABLE vectors USING vec0(embedding {kind})")
        rows = ((number, vector.tobytes()) for number, vector in enumerate(vectors))
        connection.executemany("INSERT INTO vectors (rowid, embedding) VALUES (?, ?)", rows)
    connection.close()


def open_sqlite_vec(path):
    connection = sqlite3.connect(path)
    connection.enable_load_extension(True)
    sqlite_vec.load(connection)
    return connection


def search_numpy(path, query):
    scores = numpy.load(path, mmap_mode="r") @ query
    best = numpy.argpartition(-scores, TOP)[:TOP]
    return best[numpy.argsort(-scores[best])].tolist()


def search_sqlite_vec(path, query):
    connection = open_sqlite_vec(path)
    found = connection.execute(
        "SELECT rowid FROM vectors WHERE embedding MATCH ? AND k = ? ORDER BY distance", (query.tobytes(), TOP)
    ).fetchall()
    connection.close()
    return [number for (number,) in found]


PEERS = {"NumPy": search_numpy, "sqlite-vec": search_sqlite_vec}


def run_peer(name, path, query_path):
    """Prints what it finds, and the seconds that it takes the first time and again."""
    query = numpy.load(query_path)
    for _ in range(2):
        begin = time.perf_counter()
        found = PEERS[name](path, query)
        print(time.perf_counter() - begin, found)


def search_rounds(tool, engine, folder, vectors, rounds):
    """The least seconds by name: of the tool, and of each peer the first time and again."""
    index, array, database, query = (folder / name for name in ("made_up", "vectors.npy", "vec.db", "query.npy"))
    # The query's own text, so that the index has the model's name and the query's dimension.
    (folder / "query").write_text(QUERY + "\n")
    seconds([tool, "index", index, "--rebuild", "--input", folder / "query", *engine])
    fill_with_made_up(index, vectors)
    numpy.save(array, vectors)
    fill_sqlite_vec(database, vectors)
    seconds([tool, "embed", QUERY, "--format", "npy", "--dtype", "float32", "--output", query, *engine])
    numpy.save(query, numpy.load(query)[0])
    least = {}

    def keep(name, value):
        least[name] = min(value, least.get(name, value))

    expected = None
    for number in range(rounds + 1):
        took, printed = seconds([tool, "search", QUERY, "--index", index, "--top", TOP, "--json", *engine])
        found = {"tovana": [int(json.loads(line)["text"]) for line in printed.splitlines()]}
        if number > 0:
            keep("tovana", took)
        for name, path in (("NumPy", array), ("sqlite-vec", database)):
            _, printed = seconds([sys.executable, __file__, "--peer", name, path, query])
            for which, line in zip(("", ", again"), printed.splitlines()):
                took, _, rest = line.partition(" ")
                found[name + which] = json.loads(rest)
                if number > 0:
                    keep(name + which, float(took))
        expected = expected or found["tovana"]
        if any(each != expected for each in found.values()):
            sys.exit(f"index_peer.py: they do not find the same: {found}")
    for path in (index, array, database):
        path.unlink()
    return least


def main():
    if len(sys.argv) == 5 and sys.argv[1] == "--peer":
        return run_peer(*sys.argv[2:])
    if not 5 <= len(sys.argv) <= 8:
        sys.exit(__doc__)
    corpus, tool, model, folder = sys.argv[1:5]
    rounds, count, made_up = (*map(int, sys.argv[5:]), *(5, 100_000, 1_000_000)[len(sys.argv) - 5 :])
    engine = ["--backend", "local", "--model", model]
    folder = Path(folder)
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    states = [folder / f"records{state}" for state in range(3)]
    for state, path in enumerate(states):
        write_records(path, read_texts(corpus), count, state)

    def update(path):
        took, printed = seconds([tool, "index", folder / "index", "--jsonl", "--input", path, *engine])
        return took, printed.strip()

    print(f"NumPy {numpy.__version__}, sqlite-vec {sqlite_vec.__version__}, {rounds} rounds, seconds", flush=True)
    out = ["--format", "npy", "--dtype", "float32", "--output", folder / "out.npy"]
    took, _ = seconds([tool, "embed", "--jsonl", "--input", states[0], *out, *engine])
    print(f"embed of {count} texts: {took:.1f}", flush=True)
    took, printed = update(states[0])
    print(f"index, the first time: {took:.1f} ({printed})", flush=True)
    unchanged, _ = min(update(states[0]) for _ in range(rounds))
    print(f"index, nothing changed: {unchanged:.3f}", flush=True)
    changed, printed = min(update(states[1 + number % 2]) for number in range(rounds))
    print(f"index, {CHANGED} texts changed: {changed:.3f} ({printed})", flush=True)
    asked = [tool, "search", QUERY, "--index", folder / "index", "--top", TOP, *engine]
    print(f"search of these {count}: {min(seconds(asked) for _ in range(rounds))[0]:.3f}", flush=True)
    draw = numpy.random.default_rng(1)
    dimension = numpy.load(folder / "out.npy", mmap_mode="r").shape[1]
    vectors = draw.standard_normal((made_up, dimension), dtype=numpy.float32)
    vectors /= numpy.linalg.norm(vectors, axis=1, keepdims=True)
    for size in (count, made_up):
        for name, least in search_rounds(tool, engine, folder, vectors[:size], rounds).items():
            print(f"search of {size} made-up vectors, {name}: {least:.3f}", flush=True)
    shutil.rmtree(folder)


if __name__ == "__main__":
    main()
