#!/usr/bin/env python3
"""Holds deploy/ray/serve_openai.py, on a Ray of its own with two replicas, against the local model: through OpenAI's
client and through the tool's openai backend, with what clients do wrong, and with a replica that is killed.

    scripts/peers serve [TOOL]

Needs the model of scripts/setup --model. Takes some three minutes, most of them embedding 20,000 texts three times; stops
by itself after fifteen. What it measures wants an idle machine of at least two processors. The server's output is in
build/peers/ray-serve.log. Exits with 1 when a check failed.
"""

import base64
import contextlib
import http.client
import json
import os
import resource
import signal
import subprocess
import sys
from pathlib import Path

import numpy as np
import openai
from rig import MODEL_FOLDER, ROOT, Tool, cpu_s, make_texts, pids, run_checks, wait_until

sys.path.append(str(ROOT / "tests/python"))
from openai_requests import KEY, REFUSALS, TINY  # noqa: E402

LOG = ROOT / "build" / "peers" / "ray-serve.log"
PORT = 8000  # of a network of its own
MODEL = "all-MiniLM-L6-v2"
TINY_FOLDER = ROOT / "tests/data/tiny_models/tiny_bert_cls"
COUNT = 20_000
LEAST_SHARE = 0.85
URL = f"http://127.0.0.1:{PORT}/v1"
THROUGH_SERVER = ["--backend", "openai", "--base-url", URL, "--model", MODEL, "--concurrency", 8]
LOCALLY = ["--backend", "local", "--model", MODEL_FOLDER]
REPLICA = f"ray::ServeReplica:openai:model-{MODEL}"
API = "ray::ServeReplica:openai:Api"
TOOLS = "the tool"

TEXTS = [
    "open a file and read its lines", "größte Straße, naïve café, 日本語のテキスト, עברית, 🎉", "a\0b \\ \" \u2028 \t", "",
    "one word after another " * 300,
]  # fmt: skip


def ask(method, path, body, key):
    """The status and the body of an answer."""
    connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=60)
    headers = {} if key is None else {"Authorization": f"Bearer {key}".encode()}
    with contextlib.closing(connection):
        connection.request(method, f"/v1/{path}", body if isinstance(body, bytes) else json.dumps(body), headers)
        answer = connection.getresponse()
        return answer.status, answer.read()


class Server:
    def __init__(self):
        place = Path(os.environ["RAY_TMPDIR"])
        (place / "key").write_text(KEY)
        models = [
            {"id": MODEL, "source": str(MODEL_FOLDER), "min_replicas": 2, "max_replicas": 2},
            {"id": TINY, "source": str(TINY_FOLDER), "num_cpus": 0},
        ]
        (place / "settings.yaml").write_text(json.dumps({"models": models, "key_file": str(place / "key")}))
        command = [sys.executable, ROOT / "deploy/ray/serve_openai.py", place / "settings.yaml", "--port", str(PORT)]
        with open(LOG, "wb") as log:
            self._process = subprocess.Popen(command, stdout=log, stderr=subprocess.STDOUT)
        wait_until(self._is_ready, "the server's start", 0.5)

    def _is_ready(self):
        assert self._process.poll() is None, f"the server ended, see {LOG}"
        with contextlib.suppress(OSError):
            return all(ask("POST", "embeddings", {"model": m, "input": "x"}, KEY)[0] == 200 for m in (MODEL, TINY))
        return False

    def stop(self):
        self._process.send_signal(signal.SIGINT)
        self._process.wait(60)


class Comparison:
    def __init__(self, tool):
        self._tool = tool
        self._texts = make_texts(COUNT)
        self._locally = None

    def check_clients(self):
        client = openai.OpenAI(base_url=URL, api_key=KEY, max_retries=0)
        assert [model.id for model in client.models.list()] == [MODEL, TINY]
        assert client.models.retrieve(TINY).id == TINY
        ours = Tool(self._tool, TEXTS, *LOCALLY).vectors()
        for encoding_format in ("float", "base64", openai.omit):
            reply = client.embeddings.create(model=MODEL, input=TEXTS, encoding_format=encoding_format)
            assert [item.index for item in reply.data] == list(range(len(TEXTS)))
            _expect_same([_floats(item.embedding) for item in reply.data], ours)
        alone = client.embeddings.create(model=MODEL, input=TEXTS[0])
        _expect_same([alone.data[0].embedding], ours[:1])
        assert alone.usage.prompt_tokens == alone.usage.total_tokens == 9, alone.usage  # [CLS], seven words, [SEP]

    def check_refusals(self):
        for asked, (status, code, param) in REFUSALS:
            got, body = ask(*asked)
            about = f"{asked[:2]} {str(asked[2])[:60]}: {got} {body[:200]!r}"
            error = json.loads(body)["error"]
            assert (got, error["code"], error["param"]) == (status, code, param), about
            assert error["type"] == "invalid_request_error" and error["message"] and "Traceback" not in body.decode(), about
            print(f"    {got} {error['message']}")
        logs = list(Path(os.environ["RAY_TMPDIR"]).glob("ray/session_latest/logs/serve/replica_openai_Api_*.log"))
        assert logs, "no log of the replica"
        for log in [LOG, *logs]:
            assert "Traceback" not in log.read_text(errors="replace"), f"a traceback in {log}"

    def check_throughput(self):
        halves = self._texts[: COUNT // 2], self._texts[COUNT // 2 :]
        before = self._spent()
        tools = [Tool(self._tool, half, *LOCALLY, TOVANA_EMBED_THREADS="1") for half in halves]
        ours_s = max(tool.took_s() for tool in tools)
        spent = self._spent()
        print(f"    seconds of processor, two tools: {spent[TOOLS] - before[TOOLS]:.1f}")
        call = self._through_server()
        served_s = call.took_s()
        print(
            f"    {COUNT} texts: two tools {COUNT / ours_s:.0f} texts/s, two replicas {COUNT / served_s:.0f} texts/s, "
            f"{ours_s / served_s:.3f} of it"
        )
        for who, seconds in self._spent().items():
            print(f"    seconds of processor, {who}: {seconds - spent[who]:.1f}")
        self._locally = np.concatenate([tool.vectors() for tool in tools])
        _expect_equal(call.vectors(), self._locally)
        assert ours_s / served_s >= LEAST_SHARE, f"less than {LEAST_SHARE} of it"

    def check_killed_replica(self):
        replicas = pids(REPLICA)
        assert len(replicas) == 2, replicas
        spent = cpu_s(replicas[0])
        call = self._through_server()
        wait_until(lambda: cpu_s(replicas[0]) > spent + 3, "work of the replica")
        os.kill(replicas[0], signal.SIGKILL)
        served = call.vectors()
        print(f"    the tool said: {call.said or 'nothing'}")
        _expect_equal(served, self._locally)
        wait_until(lambda: len(set(pids(REPLICA)) - {replicas[0]}) == 2, "a new replica")

    def _spent(self):
        """Of the processors: by those that embed, those in between, and the tools."""
        tools = resource.getrusage(resource.RUSAGE_CHILDREN)
        spent = {TOOLS: tools.ru_utime + tools.ru_stime}
        for who, title in (("replicas", REPLICA), ("requests and replies", API), ("proxy", "ray::ProxyActor")):
            spent[who] = sum(map(cpu_s, pids(title)))
        return spent

    def _through_server(self):
        return Tool(self._tool, self._texts, *THROUGH_SERVER, BRUNE_LLM_EMBEDDING_API_KEY=KEY)


def _floats(embedding):
    """What the client gives: what came, but for base64 that it asked for by itself."""
    return np.frombuffer(base64.b64decode(embedding), "<f4") if isinstance(embedding, str) else embedding


def _expect_same(vectors, expected):
    worst = np.abs(np.array(vectors) - expected).max()
    assert worst <= 2e-6, f"differs by {worst}"


def _expect_equal(vectors, expected):
    assert vectors.shape == expected.shape, f"{vectors.shape} in place of {expected.shape}"
    different = np.flatnonzero((vectors != expected).any(axis=1))
    assert not len(different), f"{len(different)} other vectors, the first one of text {different[0]}"


def main():
    server = Server()
    try:
        comparison = Comparison(sys.argv[1])
        checks = ("clients", "refusals", "throughput", "killed_replica")
        failed = run_checks([getattr(comparison, f"check_{name}") for name in checks])
    finally:
        server.stop()
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
