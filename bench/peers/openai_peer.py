#!/usr/bin/env python3
"""Compares our client of an OpenAI-compatible endpoint with OpenAI's own, in alternating rounds.

    openai_peer.py CORPUS ENDPOINT_ROUNDS [ROUNDS]

A server on loopback, a process of its own, answers every call with a reply made beforehand: 2048 random
unit vectors of 1536 float32 numbers. Measured is what the client's process computes (user and system) from
the call to the vectors, and the time on the wall, which holds the server's sending too. What either
side has made is freed outside the measured time.

The reply comes in three forms, all without blanks:

    long    the numbers as a server written in Python prints them, each float32 with all the digits of the
            double that it was converted to
    short   with the fewest digits that give the same float32
    base64  what OpenAI's client asks for unless it is told not to; ours never does, so that it stands alone

"simdjson alone" is its DOM parser, new each time, over the same reply in memory: what reading the reply
costs when there is no network, no vectors and nothing to free.
"""

import base64
import json
import multiprocessing
import os
import resource
import socketserver
import statistics
import time

import numpy
import openai
from rounds import Side, alternate, corpus_program_rounds, read_texts

TEXTS = 2048
DIMENSION = 1536
MODEL = "text-embedding-3-small"


def make_replies():
    vectors = numpy.random.default_rng(20240229).standard_normal((TEXTS, DIMENSION))
    vectors = (vectors / numpy.linalg.norm(vectors, axis=1, keepdims=True)).astype("<f4")
    embeddings = {
        "long": lambda vector: json.dumps(vector.tolist(), separators=(",", ":")),
        "short": lambda vector: "[" + ",".join(vector.astype(str)) + "]",
        "base64": lambda vector: '"' + base64.b64encode(vector.tobytes()).decode() + '"',
    }
    for form, embedding in embeddings.items():
        data = ",".join(
            f'{{"object":"embedding","index":{index},"embedding":{embedding(vector)}}}'
            for index, vector in enumerate(vectors)
        )
        usage = f'{{"prompt_tokens":{TEXTS},"total_tokens":{TEXTS}}}'
        yield form, f'{{"object":"list","data":[{data}],"model":"{MODEL}","usage":{usage}}}'.encode()


class Server(socketserver.ThreadingTCPServer):
    """Answers POST /FORM/embeddings with the reply of that form; keeps connections alive."""

    daemon_threads = True

    def __init__(self):
        super().__init__(("127.0.0.1", 0), Connection)
        self.replies = dict(make_replies())


class Connection(socketserver.StreamRequestHandler):
    def handle(self):
        while request := self.rfile.readline():
            length = 0
            while line := self.rfile.readline().strip():
                name, _, value = line.partition(b":")
                if name.lower() == b"content-length":
                    length = int(value)
            texts = json.loads(self.rfile.read(length))["input"]
            assert len(texts) == TEXTS, f"{len(texts)} texts"
            reply = self.server.replies[request.decode().split("/")[1]]
            head = f"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: {len(reply)}\r\n\r\n"
            self.connection.sendall(head.encode())
            self.connection.sendall(reply)


def serve(ready):
    server = Server()
    ready.send((server.server_address[1], {form: len(reply) for form, reply in server.replies.items()}))
    server.serve_forever()


class OpenAI:
    name = f"openai {openai.__version__}"

    def __init__(self, texts, url, encoding):
        self._texts = texts
        self._client = openai.OpenAI(base_url=url, api_key="unused", max_retries=0)
        self._encoding = {"encoding_format": encoding} if encoding else {}

    def embed(self):
        cpu, wall = time.process_time(), time.perf_counter()
        kept = self._client.embeddings.create(model=MODEL, input=self._texts, **self._encoding)
        taken = time.process_time() - cpu, time.perf_counter() - wall
        assert len(kept.data) == TEXTS and len(kept.data[-1].embedding) == DIMENSION
        return taken


def print_times(name, times):
    """Prints minimum and median of the CPU time and of the time on the wall; returns the CPU time's."""
    figures = [f(column) * 1e3 for column in zip(*times) for f in (min, statistics.median)]
    print(f"  {name:<24}" + "".join(f"{figure:>11.1f}" for figure in figures))
    return figures[:2]


def print_ratio(name, dividend, divisor):
    print(f"  {name:<24}" + "".join(f"{a / b:>11.2f}" for a, b in zip(dividend, divisor)))


def compare(form, url, ours, texts, rounds):
    client = OpenAI(texts, url, "float")
    our_times, their_times, parse_times, parts = alternate(
        [
            lambda: ours.ask(f"embed {url}"),
            client.embed,
            lambda: ours.ask(f"parse {url}"),
            lambda: ours.ask(f"parts {url}"),
        ],
        rounds,
    )
    ours_cpu = print_times("tovana", our_times)
    theirs_cpu = print_times(client.name, their_times)
    parse_cpu = print_times("simdjson alone", parse_times)
    print_ratio("openai / tovana", theirs_cpu, ours_cpu)
    print_ratio("tovana / simdjson alone", ours_cpu, parse_cpu)
    medians = [statistics.median(part) * 1e3 for part in zip(*parts)]
    print("  tovana's CPU time: receive {:.1f}, parse {:.1f}, vectors {:.1f}, free {:.1f}".format(*medians))


def main():
    corpus, program, rounds = corpus_program_rounds(10)
    texts = read_texts(corpus)[:TEXTS]
    os.environ["NO_PROXY"] = "127.0.0.1"

    ready, child_ready = multiprocessing.Pipe()
    multiprocessing.Process(target=serve, args=(child_ready,), daemon=True).start()
    port, sizes = ready.recv()
    ours = Side(program, corpus, TEXTS)

    print(f"{TEXTS} texts x {DIMENSION} numbers, {rounds} rounds; milliseconds")
    print(f"  {'':<24}{'CPU: min':>11}{'median':>11}{'wall: min':>11}{'median':>11}")
    for form in ("long", "short"):
        print(f"{form}, {sizes[form] / 1e6:.1f} MB")
        compare(form, f"http://127.0.0.1:{port}/{form}", ours, texts, rounds)
    print(f"base64, {sizes['base64'] / 1e6:.1f} MB")
    client = OpenAI(texts, f"http://127.0.0.1:{port}/base64", None)
    print_times(client.name, *alternate([client.embed], rounds))


if __name__ == "__main__":
    main()
