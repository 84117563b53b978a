"""Runs the tool, and plays the servers that it talks to."""

import hashlib
import json
import os
import pathlib
import signal
import subprocess
import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from typing import NamedTuple

TOOL = os.environ["TOVANA_EMBED"]
PATIENCE_S = 60
TINY_MODEL = pathlib.Path(__file__).parents[1] / "data/tiny_models/tiny_bert_cls"
PIPE_CAPACITY = 65536  # how much a pipe holds before a write to it blocks

# What the tool inherits, whatever the tests run under: handlers of our own become the default ones.
signal.signal(signal.SIGINT, signal.default_int_handler)
for number in (signal.SIGTERM, signal.SIGHUP):
    signal.signal(number, signal.SIG_DFL)


class Result(NamedTuple):
    status: int  # for a signal, its number negated
    out: bytes
    err: str

    def records(self):
        assert (self.status, self.err) == (0, ""), self.err
        return [json.loads(line) for line in self.out.splitlines()]


def start(*command, tool=TOOL, env=None, stdin=subprocess.PIPE, stdout=subprocess.PIPE):
    """The tool, in an environment of nothing but `env`; without a hub in that, it may ask none."""
    env = {"HF_HUB_OFFLINE": "1", **(env or {})} if "HF_ENDPOINT" not in (env or {}) else env
    return subprocess.Popen([tool, *command], env=env, stdin=stdin, stdout=stdout, stderr=subprocess.PIPE)


def finish(process, given=None):
    """Writes all its input, and reads what it prints until it ends."""
    try:
        out, err = process.communicate(given, timeout=PATIENCE_S)
    finally:
        process.kill()
    return Result(process.returncode, out or b"", err.decode())


def run(*command, given=b"", **options):
    return finish(start(*command, **options), given.encode() if isinstance(given, str) else given)


def tfidf(command, *arguments, **options):
    return run(command, "--backend", "tfidf", *arguments, **options)


def expect_error(result, status, said):
    """What every error has to be: nothing among the results, one line, and that line the tool's."""
    assert (result.status, result.out) == (status, b""), result
    assert result.err.startswith("tovana-embed: ") and said in result.err, result.err
    assert result.err.index("\n") == len(result.err) - 1, result.err


class Server:
    """An HTTP/1.1 server on a loopback port that the kernel chooses. `script(request)` answers."""

    def __init__(self, script):
        self.requests = []  # of each the first line and the headers
        self.connections = 0
        self.ended = threading.Event()

        class Request(BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"
            log_message = lambda *_: None

            def setup(request):
                super().setup()
                self.connections += 1

            def answer(request):
                request.body = request.rfile.read(int(request.headers.get("Content-Length", 0)))
                self.requests.append(f"{request.requestline}\n{request.headers}")
                script(request)

            do_GET = do_HEAD = do_POST = answer

            def reply(request, status, body=b"", headers=()):
                request.send_response(status)
                for name, value in {"Content-Length": len(body), **dict(headers)}.items():
                    request.send_header(name, str(value))
                request.end_headers()
                request.wfile.write(b"" if request.command == "HEAD" else body)

            def stall(request):
                self.ended.wait(PATIENCE_S)

        self._server = ThreadingHTTPServer(("127.0.0.1", 0), Request)
        self._server.daemon_threads = True
        self._server.handle_error = lambda *_: None  # clients go as they please
        self.url = f"http://127.0.0.1:{self._server.server_port}"

    def __enter__(self):
        threading.Thread(target=self._server.serve_forever, args=(0.01,), daemon=True).start()
        return self

    def __exit__(self, *_):
        self.ended.set()
        self._server.shutdown()
        self._server.server_close()


def answer_openai(request):
    """An OpenAI-compatible endpoint: vectors that tell the length of the text, last text first."""
    texts = json.loads(request.body)["input"]
    data = [{"index": i, "embedding": [len(text), 0.5]} for i, text in enumerate(texts)]
    request.reply(200, json.dumps({"data": data[::-1]}).encode())


def tiny_model():
    """The files of a model, as a hub has them."""
    return {str(path.relative_to(TINY_MODEL)): path.read_bytes() for path in TINY_MODEL.rglob("*") if path.is_file()}


class Hub(Server):
    """A model hub with one repository, and one that is busy for long. Its weights are sent by `send_weights(request, content)`."""

    COMMIT = "c" * 40

    def __init__(self, repository, files):
        super().__init__(self._answer)
        self.repository, self.files = repository, files
        self.send_weights = self.send
        self.entries = [self._entry(name, content) for name, content in files.items()]  # as listed
        self.ids = {entry["path"]: entry.get("lfs", entry)["oid"] for entry in self.entries}

    @staticmethod
    def _entry(name, content):
        entry = {"type": "file", "path": name, "size": len(content),
                 "oid": hashlib.sha1(b"blob %d\0" % len(content) + content).hexdigest()}
        if name.endswith(".safetensors"):
            entry["lfs"] = {"oid": hashlib.sha256(content).hexdigest(), "size": len(content)}
        return entry

    @staticmethod
    def send(request, content):
        first = int(request.headers.get("Range", "bytes=0-").removeprefix("bytes=").strip("-"))
        extent = f"bytes {first}-{len(content) - 1}/{len(content)}"
        request.reply(206 if first else 200, content[first:], {"Content-Range": extent})

    def _answer(self, request):
        path = request.path.partition("?")[0]
        info = f"/api/models/{self.repository}"
        resolve = f"/{self.repository}/resolve/{self.COMMIT}/"
        name = path.removeprefix(resolve)
        if path == f"{info}/revision/main":
            request.reply(200, json.dumps({"id": self.repository, "sha": self.COMMIT}).encode())
        elif path.startswith(f"{info}/tree/"):
            request.reply(200, json.dumps(self.entries).encode())
        elif path.startswith("/store/"):
            self.send_weights(request, self.files[path.removeprefix("/store/")])
        elif path.endswith("/busy/revision/main"):
            request.reply(429, headers={"Retry-After": 1000})
        elif not path.startswith(resolve):
            request.reply(401, headers={"X-Error-Code": "RepoNotFound"})
        elif name not in self.files:
            request.reply(404, headers={"X-Error-Code": "EntryNotFound", "X-Repo-Commit": self.COMMIT})
        else:
            large = name.endswith(".safetensors")
            request.reply(302 if large else 200, b"" if large else self.files[name],
                          {"X-Repo-Commit": self.COMMIT, "ETag": f'"{self.ids[name]}"',
                           "X-Linked-Etag": f'"{self.ids[name]}"', "X-Linked-Size": len(self.files[name]),
                           **({"Location": f"{self.url}/store/{name}?Signature=s3cret"} if large else {})})
