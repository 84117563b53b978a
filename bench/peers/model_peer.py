#!/usr/bin/env python3
"""Compares the local model with others that run the same one, in alternating rounds over the same texts.

    model_peer.py CORPUS MODEL_ROUNDS MODEL CONVERTED RESULTS [OPTION…]

MODEL_ROUNDS is our program, CONVERTED what model_convert.py made of MODEL; RESULTS gets the figures, which
model_report.py makes tables and a picture of. Among the peers is our own package for Python, which has to be
importable. All compute on THREADS threads, in float32 or in the reduced precision that the side's name ends with,
and each is a process of its own. First of all the vectors of float32 must agree with ours, and a reduced precision
that is not to be had on this processor is left out. Then, for each side,

    sets      the time of a call, from texts to unit vectors, for each of the sets of model_texts.py
    busy      the median time of the query on the idle machine, and with a busy process for each CPU beside it
    together  queries a second from 1 to 8 threads that embed one text a call
    start     from the start of the process to its first vector, and the memory that it has had at most
    quality   how near its vectors are to those of sentence-transformers, by model_quality.py, when all times are taken
"""

import argparse
import contextlib
import json
import multiprocessing
import os
import statistics
import sys
import tempfile
import time
from pathlib import Path

import numpy
from model_quality import NEAREST, SEARCHED, Reference, distinct_texts
from model_report import print_part
from model_sides import FULL, OURS, PEERS, REFERENCE, THREADS, Sides, package_versions
from model_texts import text_sets
from rounds import alternate, read_texts
from tokenizers import Tokenizer

QUERY_CALLS = 5  # in a row, in each round
CALLERS = (1, 2, 4, 8)
CALLS_TOGETHER = 160
LEAST_COSINE = 0.9999  # of a vector of float32 to ours
PARTS = ("sets", "busy", "together", "start", "quality")


def log(text):
    print(text, file=sys.stderr, flush=True)


def measured(sides, measure, rounds):
    """For each side the results of `measure` in all rounds, joined."""
    columns = alternate([lambda side=side: measure(side) for side in sides.values()], rounds)
    return {name: [value for round in column for value in round] for name, column in zip(sides, columns)}


@contextlib.contextmanager
def texts_file(texts):
    with tempfile.NamedTemporaryFile("w", encoding="utf-8", suffix=".txt") as file:
        file.write("".join(f"{text}\n" for text in texts))
        file.flush()
        yield file.name


def vectors_of(side, count):
    with tempfile.NamedTemporaryFile() as file:
        (dimension,) = side.ask(f"vectors 0 {count} {file.name}")
        return numpy.fromfile(file.name, "<f4").reshape(count, int(dimension))


def check_agreement(sides, running, count):
    """Ends the program unless all sides of float32 give the same vectors, up to rounding. Leaves out those of a
    reduced precision that give float32's: there they are not reduced."""
    vectors = {name: vectors_of(side, count) for name, side in running.items()}
    ours = vectors[OURS]
    for name, own in vectors.items():
        worst = float((ours * own).sum(axis=1).min())
        log(f"{name}: cosine to ours {worst:.7f} or more, no number more than {abs(ours - own).max():.1e} off")
        if sides.precisions[name] == FULL:
            if not worst > LEAST_COSINE:
                sys.exit(f"model_peer.py: the vectors of {name} are not ours")
        elif numpy.array_equal(own, vectors[sides.in_full(name)]):
            log(f"{name}: left out, for its vectors are those of float32 here")
            sides.leave_out(name)
            del running[name]


def measure_sets(sides, slices, rounds):
    """The time of each call, for each set and side."""
    times = {}
    for name, (first, count) in slices.items():
        calls = QUERY_CALLS if count == 1 else 1
        log(f"{name}: {count} texts")
        times[name] = measured(sides, lambda side: side.ask(f"encode {first} {count} {calls}"), rounds)
    return times


def spin():
    while True:
        pass


@contextlib.contextmanager
def busy_machine():
    spinning = [multiprocessing.Process(target=spin, daemon=True) for _ in os.sched_getaffinity(0)]
    for process in spinning:
        process.start()
    try:
        yield
    finally:
        for process in spinning:
            process.kill()


def measure_busy(sides, rounds):
    """The median time of the query on the idle machine and on the busy one."""
    log("the query on a busy machine")

    def medians():
        times = measured(sides, lambda side: side.ask(f"encode 0 1 {QUERY_CALLS}"), rounds)
        return {name: statistics.median(column) for name, column in times.items()}

    idle = medians()
    with busy_machine():
        busy = medians()
    return {name: [idle[name], busy[name]] for name in sides}


def measure_together(sides, rounds):
    """Queries a second, at best, for each number of threads that ask at once."""
    log("queries from several threads at once")
    rates = {name: [] for name in sides}
    for callers in CALLERS:
        times = measured(sides, lambda side: side.ask(f"together {callers} {CALLS_TOGETHER // callers}"), rounds)
        for name, column in times.items():
            rates[name].append(CALLS_TOGETHER / min(column))
    return rates


def measure_start(sides, rounds):
    """The times to the first vector, and the peak memory, of processes that run one after another."""
    log("process start to the first vector")

    def start(name):
        begin = time.perf_counter()
        with sides.running(name) as side:
            side.ask("encode 0 1 1")
            return time.perf_counter() - begin, side.peak_memory()

    columns = alternate([lambda name=name: start(name) for name in sides.names], rounds)
    return {name: list(zip(*column)) for name, column in zip(sides.names, columns)}


def measure_quality(sides, count):
    """The least cosine and the share of neighbours kept, by the Reference, for each side in turn."""
    names = sorted(sides.names, key=lambda name: name != REFERENCE)
    reference, quality = None, {}
    for name in names:
        log(f"{name}: vectors of {count} texts")
        with sides.running(name) as side:
            vectors = vectors_of(side, count)
        reference = reference or Reference(vectors)
        quality[name] = reference.compare(vectors)
    return {
        "reference": names[0],
        "texts": count,
        "searched": min(count, SEARCHED),
        "nearest": NEAREST,
        "sides": {name: quality[name] for name in sides.names},
    }


def machine():
    lines = Path("/proc/cpuinfo").read_text(encoding="ascii").splitlines()
    models = [line.split(":")[1].strip() for line in lines if line.startswith("model name")]
    memory = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") / 2**30
    return f"{len(os.sched_getaffinity(0))} CPUs ({models[0] if models else os.uname().machine}), {memory:.0f} GiB"


def parse_arguments():
    def some_of(names):
        def parse(text):
            chosen = text.split(",")
            if not set(chosen) <= set(names):
                raise argparse.ArgumentTypeError(f"takes some of {','.join(names)}")
            return chosen

        return parse

    parser = argparse.ArgumentParser(description="Compares the local model with its peers.")
    parser.add_argument("corpus")
    parser.add_argument("program")
    parser.add_argument("model", type=Path)
    parser.add_argument("converted", type=Path)
    parser.add_argument("results", type=Path)
    parser.add_argument("--rounds", type=int, default=10)
    parser.add_argument("--parts", type=some_of(PARTS), default=PARTS, metavar="PART,…")
    parser.add_argument("--sets", type=some_of(("query", "batch32", "mixed256", "long16")), metavar="SET,…")
    parser.add_argument("--without", type=some_of(PEERS), default=[], metavar="PEER,…")
    parser.add_argument(
        "--other", type=Path, metavar="BUILD", help="another build of ours: its model library, or the folder of it all"
    )
    return parser.parse_args()


def main():
    options = parse_arguments()
    tokenizer = Tokenizer.from_file(str(options.model / "tokenizer.json"))
    tokenizer.no_padding()
    tokenizer.no_truncation()
    corpus = read_texts(options.corpus)
    sets = text_sets(corpus, tokenizer)
    slices, texts = {}, []
    for name, of_set in sets.items():
        slices[name] = (len(texts), len(of_set))
        texts += of_set
    assert slices["query"] == (0, 1), "rounds of one query ask for the first text"

    results = {
        "machine": machine(),
        "threads": THREADS,
        "rounds": options.rounds,
        "versions": package_versions(),
        "sizes": {
            name: {"texts": len(of_set), "tokens": sum(len(item.ids) for item in tokenizer.encode_batch(of_set))}
            for name, of_set in sets.items()
        },
        "callers": CALLERS,
    }
    with texts_file(texts) as path:
        sides = Sides(options, path)
        with sides.all_running() as running:
            check_agreement(sides, running, len(texts))
            results["precisions"] = sides.precisions
            chosen = {name: slices[name] for name in options.sets or slices}
            measures = {
                "sets": lambda: measure_sets(running, chosen, options.rounds),
                "busy": lambda: measure_busy(running, options.rounds),
                "together": lambda: measure_together(running, max(1, options.rounds // 2)),
            }
            for part, measure in measures.items():
                if part in options.parts:
                    results[part] = measure()
                    print_part(results, part)
        if "start" in options.parts:
            results["start"] = measure_start(sides, max(1, options.rounds // 2))
            print_part(results, "start")
    if "quality" in options.parts:
        texts = distinct_texts(corpus, tokenizer)
        with texts_file(texts) as path:
            results["quality"] = measure_quality(sides.reading(path), len(texts))
        print_part(results, "quality")
    options.results.write_text(json.dumps(results, indent=1), encoding="utf-8")


if __name__ == "__main__":
    main()
