#!/usr/bin/env python3
"""Compares the local model with others that run the same one, in alternating rounds over the same texts.

    model_peer.py CORPUS MODEL_ROUNDS MODEL CONVERTED RESULTS [OPTION…]

MODEL_ROUNDS is our program, CONVERTED what model_convert.py made of MODEL; RESULTS gets the figures, which
model_report.py makes tables and a picture of. Among the peers is our own package for Python, which has to be
importable. All compute in float32 on THREADS threads, and each is a process of its own. First of all their vectors
must agree with ours. Then, for each side,

    sets      the time of a call, from texts to unit vectors, for each of the sets of model_texts.py
    busy      the median time of the query on the idle machine, and with a busy process for each CPU beside it
    together  queries a second from 1 to 8 threads that embed one text a call
    start     from the start of the process to its first vector, and the memory that it has had at most
"""

import argparse
import contextlib
import importlib.metadata
import json
import multiprocessing
import os
import statistics
import sys
import tempfile
import time
from pathlib import Path

import numpy
from model_report import print_part
from model_texts import text_sets
from rounds import Side, alternate, read_texts
from tokenizers import Tokenizer

THREADS = 2
QUERY_CALLS = 5  # in a row, in each round
CALLERS = (1, 2, 4, 8)
CALLS_TOGETHER = 160
OUR_PACKAGE = "tovana, Python"
PEERS = {
    OUR_PACKAGE: "tovana_embedding",
    "sentence-transformers": "sentence-transformers",
    "ONNX Runtime": "onnxruntime",
    "OpenVINO": "openvino",
    "CTranslate2": "ctranslate2",
}
PARTS = ("sets", "busy", "together", "start")


class Ours(Side):
    environment = {"OMP_NUM_THREADS": str(THREADS), "EMBED_THREADS": str(THREADS)}


class OurOtherBuild(Ours):
    def __init__(self, library, *command):
        self.environment = {**Ours.environment, "TOVANA_MODEL_LIBRARY": str(library.resolve())}
        super().__init__(*command)


class Sides:
    """How to start each side, by name; ours comes first."""

    def __init__(self, options, texts):
        worker = Path(__file__).with_name("model_worker.py")
        ours = (options.program, options.model, texts)
        self._starts = {"tovana": lambda: Ours(*ours)}
        if options.other:
            self._starts["tovana, other"] = lambda: OurOtherBuild(options.other, *ours)
        for name, package in PEERS.items():
            if name not in options.without:
                command = (sys.executable, worker, package, options.model, options.converted, texts, THREADS)
                self._starts[name] = lambda command=command: Side(*command)
        self.names = list(self._starts)

    @contextlib.contextmanager
    def running(self, name):
        side = self._starts[name]()
        try:
            yield side
        finally:
            side.close()

    @contextlib.contextmanager
    def all_running(self):
        with contextlib.ExitStack() as stack:
            yield {name: stack.enter_context(self.running(name)) for name in self.names}


def log(text):
    print(text, file=sys.stderr, flush=True)


def measured(sides, measure, rounds):
    """For each side the results of `measure` in all rounds, joined."""
    columns = alternate([lambda side=side: measure(side) for side in sides.values()], rounds)
    return {name: [value for round in column for value in round] for name, column in zip(sides, columns)}


def check_agreement(sides, texts):
    """Ends the program unless all sides give the same vectors, up to rounding."""
    ours = None
    with tempfile.NamedTemporaryFile() as file:
        for name, side in sides.items():
            (dimension,) = side.ask(f"vectors 0 {texts} {file.name}")
            vectors = numpy.fromfile(file.name, "<f4").reshape(texts, int(dimension))
            ours = vectors if ours is None else ours
            worst = float((ours * vectors).sum(axis=1).min())
            log(f"{name}: cosine to ours {worst:.7f} or more, no number more than {abs(ours - vectors).max():.1e} off")
            if not worst > 0.9999:
                sys.exit(f"model_peer.py: the vectors of {name} are not ours")


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
    parser.add_argument("--other", type=Path, metavar="LIBRARY", help="another build of our model library")
    return parser.parse_args()


def main():
    options = parse_arguments()
    tokenizer = Tokenizer.from_file(str(options.model / "tokenizer.json"))
    tokenizer.no_padding()
    tokenizer.no_truncation()
    sets = text_sets(read_texts(options.corpus), tokenizer)
    slices, texts = {}, []
    for name, of_set in sets.items():
        slices[name] = (len(texts), len(of_set))
        texts += of_set
    assert slices["query"] == (0, 1), "rounds of one query ask for the first text"

    results = {
        "machine": machine(),
        "threads": THREADS,
        "rounds": options.rounds,
        "versions": {name: importlib.metadata.version(package) for name, package in PEERS.items() if name != OUR_PACKAGE},
        "sizes": {
            name: {"texts": len(of_set), "tokens": sum(len(item.ids) for item in tokenizer.encode_batch(of_set))}
            for name, of_set in sets.items()
        },
        "callers": CALLERS,
    }
    with tempfile.NamedTemporaryFile("w", encoding="utf-8", suffix=".txt") as file:
        file.write("".join(f"{text}\n" for text in texts))
        file.flush()
        sides = Sides(options, file.name)
        with sides.all_running() as running:
            check_agreement(running, len(texts))
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
    options.results.write_text(json.dumps(results, indent=1), encoding="utf-8")


if __name__ == "__main__":
    main()
