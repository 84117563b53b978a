#!/usr/bin/env python3
"""Holds the tool's OpenAI-compatible backend against a server that others wrote: infinity-emb with the
real all-MiniLM-L6-v2. Asked for by hand only; neither scripts/test nor CI runs it.

    scripts/peers endpoint [TOOL]

TOOL is the built tovana-embed, by default the one of scripts/run. Needs Python 3.9 to 3.12 with its venv
module. The first run installs 1.3 GB from PyPI into build/peers/infinity in about two minutes: the server and
PyTorch 2.13.0, without a GPU's libraries where pip finds such a build (else gigabytes more). The model is the
one of scripts/setup --model. Afterwards it takes about a minute on an idle machine, most of it the server's two
starts. Nothing but loopback is used then. The server's output is in build/peers/server.log.

Prints what the tool says in every failure, so that a person can judge the words; exits with 1 when a
check failed.
"""

import contextlib
import json
import math
import os
import random
import socket
import subprocess
import sys
import time
import urllib.request
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
PLACE = ROOT / "build" / "peers"
VENV = PLACE / "infinity"
TORCH = "torch==2.13.0"
# The server asks for little of its libraries; these versions are known to work together.
SERVER = [
    TORCH, "infinity-emb[torch,server]==0.0.78", "sentence-transformers==3.4.1", "transformers==4.57.6",
    "huggingface-hub==0.36.2", "numpy==1.26.4", "fastapi==0.165.0", "starlette==1.10.0", "uvicorn==0.32.1",
    "prometheus-fastapi-instrumentator==8.1.0", "pydantic==2.14.3", "click==8.1.8", "typer==0.12.5",
]  # fmt: skip

MODEL = "all-MiniLM-L6-v2"
MODEL_FOLDER = ROOT / "models" / MODEL
DIMENSION = 384
QUEUE_SIZE = 300  # texts waiting in the server beyond which it answers 429
LARGEST_BATCH = 2048  # the server's own limit on the texts of a request
EX_UNAVAILABLE = 69  # the tool's status when the backend's call failed


def install():
    if (VENV / "complete").exists():
        return
    print(f"installing the server into {VENV}", flush=True)
    subprocess.run([sys.executable, "-m", "venv", "--clear", VENV], check=True)
    with open(PLACE / "install.log", "wb") as log:
        for packages in (["--no-deps", TORCH], SERVER):
            command = [VENV / "bin" / "pip", "install", "--prefer-binary", *packages]
            if subprocess.run(command, stdout=log, stderr=subprocess.STDOUT).returncode != 0:
                sys.exit(f"real_endpoint: pip failed, see {log.name}")
    (VENV / "complete").touch()


class Server:
    """The real model, and beside it a trivial one: a server of one model answers to any name."""

    def __init__(self):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            self._port = free.getsockname()[1]
        self.origin = f"http://127.0.0.1:{self._port}"
        self.url = self.origin + "/v1"
        self._process = None

    def start(self):
        command = [VENV / "bin" / "infinity_emb", "v2", "--host", "127.0.0.1", "--port", self._port]
        command += ["--url-prefix", "/v1", "--device", "cpu"]
        command += ["--no-compile", "--no-bettertransformer", "--no-model-warmup"]
        for name, engine in ((MODEL, "torch"), ("trivial", "debugengine")):
            command += ["--model-id", MODEL_FOLDER, "--served-model-name", name, "--engine", engine]
        settings = {"HF_HUB_OFFLINE": "1", "DO_NOT_TRACK": "1", "INFINITY_QUEUE_SIZE": str(QUEUE_SIZE)}
        settings["OMP_WAIT_POLICY"] = "passive"  # spinning threads starve each other on a busy machine
        with open(PLACE / "server.log", "ab") as log:
            self._process = subprocess.Popen(
                [str(part) for part in command], env=os.environ | settings, stdout=log, stderr=subprocess.STDOUT
            )
        give_up = time.monotonic() + 300
        while True:
            with contextlib.suppress(OSError):
                self.waiting_texts()
                return
            if self._process.poll() is not None or time.monotonic() > give_up:
                sys.exit(f"real_endpoint: the server does not start, see {PLACE / 'server.log'}")
            time.sleep(0.1)

    def waiting_texts(self):
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        with opener.open(self.url + "/models", timeout=60) as reply:
            models = json.load(reply)["data"]
        return next(model["stats"]["queue_absolute"] for model in models if model["id"] == MODEL)

    def kill(self):
        if self._process is not None:
            self._process.kill()
            self._process.wait()


class Call:
    """One run of the tool, begun at once; `vectors` and `said` wait for its end."""

    def __init__(self, tool, url, texts, *options, model=MODEL):
        command = [tool, "embed", "--backend", "openai", "--base-url", url, "--model", model]
        command += ["--jsonl", "--log-level", "info", *options]
        self._process = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, encoding="utf-8"
        )
        self._process.stdin.write("".join(json.dumps({"text": text}) + "\n" for text in texts))
        self._process.stdin.flush()
        self._process.stdin.close()
        self._process.stdin = None
        self._ended = None

    def is_running(self):
        return self._process.poll() is None

    def end(self):
        if self._ended is None:
            self._ended = self._process.communicate()
        return self._ended

    @property
    def vectors(self):
        output, said = self.end()
        assert self._process.returncode == 0, said
        return [json.loads(line)["vector"] for line in output.splitlines()]

    def fails_with(self, *words):
        """One warning in the log and one line of the tool's own, each with all the words; no vectors."""
        output, said = self.end()
        print("    " + said.strip().replace("\n", "\n    "))
        assert self._process.returncode == EX_UNAVAILABLE, f"status {self._process.returncode}"
        assert output == "", "vectors in spite of the failure"
        lines = said.splitlines()
        assert len(lines) == 2 and " warning " in lines[0] and lines[1].startswith("tovana-embed: "), "other lines"
        for word in words:
            assert all(word in line for line in lines), f"not said: {word}"


def cosine(a, b):
    return sum(x * y for x, y in zip(a, b)) / (math.hypot(*a) * math.hypot(*b))


def expect_same(ours, expected):
    assert len(ours) == len(expected), f"{len(ours)} vectors for {len(expected)}"
    worst = min(map(cosine, ours, expected))
    assert worst > 0.99999, f"cosine {worst}"


TEXTS = [
    "open a file and read its lines",
    "connect to a server over a socket",
    "sort a list of numbers",
    "parse a date and time",
    "the quick brown fox jumps over the lazy dog, ten times in a row and without ever growing tired of it",
    "größte Straße, naïve café, 日本語のテキスト, עברית, 🎉",
    "a\u0000b \\ \" \u2028 \t",
    "",
]


def check_vectors(tool, server):
    together = Call(tool, server.url, TEXTS).vectors
    for vector in together:
        assert len(vector) == DIMENSION and abs(math.hypot(*vector) - 1) < 1e-5
    assert len(set(map(tuple, together))) == len(TEXTS), "two texts have the same vector"
    expect_same([Call(tool, server.url, [text]).vectors[0] for text in TEXTS], together)
    order = random.Random(1).sample(range(len(TEXTS)), len(TEXTS))
    shuffled = Call(tool, server.url, [TEXTS[place] for place in order]).vectors
    expect_same(shuffled, [together[place] for place in order])
    queries = ["load text from disk", "TCP network connection", "put integers into ascending order", "calendar"]
    for place, query in enumerate(Call(tool, server.url, queries).vectors):
        nearest = max(range(len(TEXTS)), key=lambda other: cosine(query, together[other]))
        assert nearest == place, f"'{queries[place]}' is nearest to '{TEXTS[nearest]}'"


def check_reference(tool, server):
    with open(ROOT / "tests/data/minilm_reference.jsonl", encoding="utf-8") as file:
        cases = [json.loads(line) for line in file]
    vectors = Call(tool, server.url, [case["text"] for case in cases], "--batch-size", "32").vectors
    expect_same(vectors, [case["embedding"] for case in cases])


def check_batches(tool, server):
    texts = [f"item {number}" for number in range(1000)]
    vectors = Call(tool, server.url, texts, "--batch-size", "1000").vectors
    expect_same(Call(tool, server.url, texts).vectors, vectors)
    expect_same(Call(tool, server.url, texts[500:532]).vectors, vectors[500:532])


def check_refusals(tool, server):
    Call(tool, server.url, ["x"], model="nobody").fails_with("HTTP 400", "Engine for model name `nobody` not found")
    Call(tool, server.origin, ["x"]).fails_with("HTTP 404", "check the URL and the model name")
    too_many = ["x"] * (LARGEST_BATCH + 1)
    Call(tool, server.url, too_many, "--batch-size", str(len(too_many))).fails_with("HTTP 422", "at most 2048 items")
    Call(tool, server.url, ["x" * 122881]).fails_with("HTTP 422", "at most 122880 characters")
    Call(tool, server.url.replace("http:", "https:"), ["x"]).fails_with("does the server speak https on this port?")


def check_overload_and_death(tool, server):
    # Minutes of work in one request, so that both failures happen in its middle.
    long_texts = [f"{number} " + "a text of two hundred and more words " * 30 for number in range(LARGEST_BATCH)]
    batch = Call(tool, server.url, long_texts, "--batch-size", str(LARGEST_BATCH))
    while server.waiting_texts() <= QUEUE_SIZE:
        assert batch.is_running(), "the large batch ended early"
    Call(tool, server.url, ["x"]).fails_with("after 3 attempts", "HTTP 429", "currently overloaded")
    server.kill()
    batch.fails_with("after 3 attempts", "Connection refused")
    server.start()
    assert len(Call(tool, server.url, TEXTS).vectors) == len(TEXTS)


def main():
    tool = sys.argv[1] if len(sys.argv) == 2 else str(ROOT / "build/release/apps/tovana-embed/tovana-embed")
    if len(sys.argv) > 2 or not os.access(tool, os.X_OK):
        sys.exit("usage: scripts/peers endpoint [TOOL], after scripts/run has built the tool")
    PLACE.mkdir(parents=True, exist_ok=True)
    install()
    server = Server()
    failed = 0
    try:
        server.start()
        for check in (check_vectors, check_reference, check_batches, check_refusals, check_overload_and_death):
            began = time.monotonic()
            try:
                check(tool, server)
                print(f"{check.__name__}: passed ({time.monotonic() - began:.1f} s)", flush=True)
            except AssertionError as problem:
                failed += 1
                print(f"{check.__name__}: FAILED: {problem}", flush=True)
    finally:
        server.kill()
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
