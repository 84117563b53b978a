"""Measures what requests in flight at once bring: texts a second with one and with several, and the most memory.

Usage: concurrency_rounds.py TOVANA_EMBED [ROUNDS [TEXTS [IN_FLIGHT]]]
An endpoint on loopback takes a tenth of a second for each request, of 256 texts, and answers with vectors of 384
numbers that were made beforehand. Each round embeds the same texts with one request in flight and with IN_FLIGHT
(8), from a pipe to /dev/null; the two take turns at going first.
"""

import asyncio
import json
import os
import random
import statistics
import subprocess
import sys
import threading
import time

SECONDS_A_REQUEST = 0.1
TEXTS_A_REQUEST = 256
NUMBERS_A_TEXT = 384


def made_reply():
    draw = random.Random(1)
    vectors = [[draw.uniform(-1, 1) for _ in range(NUMBERS_A_TEXT)] for _ in range(TEXTS_A_REQUEST)]
    body = json.dumps({"embeddings": vectors}).encode()
    return b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: %d\r\n\r\n" % len(body) + body


class Endpoint:
    """Runs on a thread of its own until the process ends."""

    def __init__(self):
        self.connections = 0
        self._reply = made_reply()
        listening = threading.Event()

        async def serve():
            server = await asyncio.start_server(self._answer, "127.0.0.1", 0)
            self.url = f"http://127.0.0.1:{server.sockets[0].getsockname()[1]}"
            listening.set()
            await server.serve_forever()

        threading.Thread(target=asyncio.run, args=(serve(),), daemon=True).start()
        listening.wait()

    async def _answer(self, reader, writer):
        self.connections += 1
        try:
            while True:
                head = await reader.readuntil(b"\r\n\r\n")
                size = int(head.lower().partition(b"content-length:")[2].partition(b"\r\n")[0])
                done = time.monotonic() + SECONDS_A_REQUEST
                await reader.readexactly(size)
                await asyncio.sleep(done - time.monotonic())
                writer.write(self._reply)
                await writer.drain()
        except (asyncio.IncompleteReadError, ConnectionError):
            writer.close()


def embed(tool, endpoint, in_flight, texts):
    """Seconds, the most memory in bytes, and how many connections were made."""
    before = endpoint.connections
    command = [tool, "embed", "--backend", "api", "--api-url", endpoint.url, "--concurrency", str(in_flight)]
    start = time.monotonic()
    process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
    for first in range(0, texts, TEXTS_A_REQUEST):
        numbers = range(first, first + TEXTS_A_REQUEST)
        process.stdin.write(b"".join(b"the text number %d of a run\n" % number for number in numbers))
    process.stdin.close()
    _, status, usage = os.wait4(process.pid, 0)
    if status != 0:
        sys.exit(f"{tool} ended with wait status {status}")
    return time.monotonic() - start, usage.ru_maxrss * 1024, endpoint.connections - before


def main():
    tool = sys.argv[1]
    rounds, texts, several = (int(given) for given in (sys.argv[2:] + ["3", "30720", "8"][len(sys.argv) - 2:]))
    texts -= texts % TEXTS_A_REQUEST
    endpoint = Endpoint()
    seconds, memory, connections = {1: [], several: []}, {1: 0, several: 0}, {1: 0, several: 0}
    for number in range(rounds):
        for in_flight in (1, several) if number % 2 == 0 else (several, 1):
            took, peak, made = embed(tool, endpoint, in_flight, texts)
            seconds[in_flight].append(took)
            memory[in_flight] = max(memory[in_flight], peak)
            connections[in_flight] = max(connections[in_flight], made)
    for in_flight, took in seconds.items():
        low, middle = min(took), statistics.median(took)
        print(f"{in_flight:3} in flight  {low:6.2f} / {middle:6.2f} s   "
              f"{texts / low:8.0f} / {texts / middle:8.0f} texts/s (best / median)   "
              f"most memory {memory[in_flight] / 1e6:5.1f} MB   {connections[in_flight]} connections")
    print(f"{several} in flight beside one: {min(seconds[1]) / min(seconds[several]):.2f} / "
          f"{statistics.median(seconds[1]) / statistics.median(seconds[several]):.2f} times the texts a second")


main()
