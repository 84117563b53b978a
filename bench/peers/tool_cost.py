#!/usr/bin/env python3
"""Measures what the tool adds to the component: reading texts, JSON, writing vectors.

    tool_cost.py CORPUS TOOL TFIDF_ROUNDS [MODEL_ROUNDS MODEL]

The tool embeds the corpus, repeated until there are enough texts, and so does the component alone, which
keeps the vectors and does no more; both in new processes, in turn. What the tool takes beyond that is its own
cost, the start of its process included. 1,000,000 texts with the hashing embedder, written to a file, to nothing
and as NumPy's array; with a model, 20,000 texts with it, in the tool's batches.
"""

import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from rounds import Side, read_texts

ROUNDS = 3
BATCH = 256


def write_texts(path, corpus, count):
    """The corpus over and over, in an order in which neighbours have nothing in common."""
    step = next(step for step in range(7919, len(corpus) + 7920) if len(corpus) % step)
    path.write_text("".join(corpus[index * step % len(corpus)] + "\n" for index in range(count)), encoding="utf-8")


def run(command, out):
    """Seconds, the peak of memory in bytes, and the size of the output, of a command that has to succeed."""
    begin = time.perf_counter()
    with open(out, "wb") as stdout:
        process = subprocess.Popen([str(part) for part in command], stdout=stdout)
        _, status, usage = os.wait4(process.pid, 0)
    seconds = time.perf_counter() - begin
    if status != 0:
        sys.exit(f"tool_cost.py: {command[0]} failed")
    return seconds, usage.ru_maxrss * 1024, os.path.getsize(out)


def alone(command, requests):
    """Seconds of all requests together, and the peak of memory, of the component in a process of its own."""
    side = Side(*command)
    seconds = sum(side.ask(request)[0] for request in requests)
    memory = side.peak_memory()
    side.close()
    return seconds, memory


def compare(title, runs, component, texts):
    """`runs` are the tool's: a name, its arguments, and where its output goes."""
    print(f"{title}, {texts:,} texts; minimum of {ROUNDS} rounds")
    columns = [[] for _ in runs]
    times = []
    for _ in range(ROUNDS):
        times.append(component())
        for (_, command, out), column in zip(runs, columns):
            column.append(run(command, out))
    best, memory = map(min, zip(*times))
    print(f"  {'the component alone':<22}{best:>8.2f} s{memory / 1e6:>10,.0f} MB of memory")
    for (name, _, _), column in zip(runs, columns):
        seconds, memory, written = map(min, zip(*column))
        line = f"  {name:<22}{seconds:>8.2f} s{memory / 1e6:>10,.0f} MB of memory"
        line += f", own cost {seconds - best:.2f} s, {(seconds - best) / best:.1%} of the embedding"
        if written > 0:  # /dev/null has no size
            line += f"; {written / 1e6:,.0f} MB out"
        if written > 0 and seconds > best * 1.2:  # else the difference says more about the machine
            line += f", {written / 1e6 / (seconds - best):,.0f} MB/s"
        print(line, flush=True)


def main():
    if len(sys.argv) not in (4, 6):
        sys.exit("usage: tool_cost.py CORPUS TOOL TFIDF_ROUNDS [MODEL_ROUNDS MODEL]")
    corpus = read_texts(sys.argv[1])
    tool, tfidf_rounds, *local = sys.argv[2:]
    with tempfile.TemporaryDirectory(dir=Path(sys.argv[1]).parent) as folder:
        texts, out = Path(folder) / "texts", Path(folder) / "out"
        write_texts(texts, corpus, 1_000_000)
        embed = [tool, "embed", "--input", texts, "--backend"]
        compare(
            "tfidf",
            [
                ("JSON, to nothing", [*embed, "tfidf"], os.devnull),
                ("JSON", [*embed, "tfidf"], out),
                ("NumPy", [*embed, "tfidf", "--format", "npy"], out),
            ],
            lambda: alone([tfidf_rounds, texts], ["batch"]),
            1_000_000,
        )
        if local:
            model_rounds, model = local
            count = 20_000
            write_texts(texts, corpus, count)
            requests = [f"encode {begin} {min(BATCH, count - begin)} 1" for begin in range(0, count, BATCH)]
            compare(
                "local",
                [("JSON", [*embed, "local", "--model", model], out)],
                lambda: alone([model_rounds, model, texts], ["encode 0 1 1", *requests]),
                count,
            )


if __name__ == "__main__":
    main()
