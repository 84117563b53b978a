"""`tovana-embed pull`, with a hub on loopback."""

import os
import pty
import shutil
import signal
import subprocess
import threading
import time

import pytest
from rig import TOOL, Hub, expect_error, finish, run, start

HEADER = b'{"a":{"dtype":"U8","shape":[2999927],"data_offsets":[0,2999927]}}'
FILES = {"config.json": b'{"model_type":"bert"}', "tokenizer.json": b'{"model":{}}',
         "model.safetensors": len(HEADER).to_bytes(8, "little") + HEADER + b"w" * 2_999_927}


@pytest.fixture
def hub():
    with Hub("sentence-transformers/tiny", dict(FILES)) as hub:
        yield hub


@pytest.fixture
def env(hub, tmp_path):
    return {"HF_ENDPOINT": hub.url, "HF_HUB_CACHE": str(tmp_path / "hub"),
            "TOVANA_MODEL_LIBRARY": os.environ["FAKE_MODEL_LIBRARY"]}


def test_fetches_once_and_prints_the_folder(hub, env, tmp_path):
    fetched = run("pull", "tiny", env=env)
    folder = f"{env['HF_HUB_CACHE']}/models--sentence-transformers--tiny/snapshots/{hub.COMMIT}\n"
    assert (fetched.status, fetched.out.decode()) == (0, folder), fetched.err
    assert fetched.err.startswith("fetching the model sentence-transformers/tiny\n")
    assert "\r" not in fetched.err and " of " not in fetched.err
    assert "  config.json: 21 bytes\n" in fetched.err and "  model.safetensors: 3.0 MB\n" in fetched.err
    requests = len(hub.requests)
    leftover = tmp_path / "hub/models--sentence-transformers--tiny/blobs/x.00000001.incomplete"
    leftover.touch()
    os.utime(leftover, (0, 0))
    for command in (["pull", "tiny"], ["pull", "--offline", "tiny"]):
        assert run(*command, env=env) == (0, folder.encode(), "tovana-embed: tiny can be loaded (fake, none)\n")
    assert len(hub.requests) == requests and not leftover.exists()
    status = ["status", "--wait", "--backend", "local", "--model", "tiny", "--precision", "bfloat16"]
    ready = run(*status, "--json", env=env).records()[0]
    assert (ready["runtime"], ready["kernels"], ready["precision"]) == ("fake", "none", "bfloat16")
    assert run(*status, env=env).out == b"The embedding model is ready (local:tiny); computed in bfloat16 (fake, none)\n"
    assert "TOVANA_EMBED_PRECISION is 'half'" in run("embed", "a", "--model", "tiny", env={
        **env, "TOVANA_EMBED_PRECISION": "half"}).err


def test_has_the_model_library_check_the_model_where_there_is_one(env, tmp_path):
    folder = tmp_path / "fail ModelFilesError"  # what the fake library has to be told to fail
    folder.mkdir()
    for name, content in FILES.items():
        (folder / name).write_bytes(content)
    command, tool = ["pull", str(folder)], shutil.copy(TOOL, tmp_path)  # where no library is beside it
    expect_error(run(*command, env=env), 65, "does not work")
    expect_error(run(*command, env={"TOVANA_MODEL_LIBRARY": "/gone.so"}), 69,
                 f"{folder}, but nothing can tell whether it loads: TOVANA_MODEL_LIBRARY=/gone.so: there is no")
    assert run(*command, tool=tool) == (0, f"{folder}\n".encode(), "")


@pytest.mark.parametrize("command, status, said", [
    ("--offline tiny", 69, "is not in the cache"),
    ("nobody/nothing", 69, "the model nobody/nothing does not exist"),
    ("tiny --revision=", 64, "revision"),
    ("tiny", 74, "cannot be written to"),
])
def test_says_in_one_line_why_it_cannot(env, tmp_path, command, status, said):
    if status == 74:
        (tmp_path / "hub").write_text("in the way")
    result = run("pull", *command.split(), env=env)
    expect_error(result._replace(err=result.err.splitlines(keepends=True)[-1]), status, said)


def unfinished(folder):
    for path in folder.rglob("*.incomplete"):
        try:
            yield path.stat()
        except FileNotFoundError:  # it has got its name meanwhile
            pass


@pytest.mark.parametrize("end, status", [(signal.SIGINT, 130), (signal.SIGKILL, -signal.SIGKILL)])
def test_one_that_is_ended_links_nothing_and_the_next_resumes(hub, env, tmp_path, end, status):
    sent = threading.Event()

    def send_a_third(request, content):
        request.wfile.write(b"HTTP/1.1 200 OK\r\nContent-Length: 3000000\r\n\r\n" + content[:1_000_000])
        sent.set()
        request.stall()

    hub.send_weights = send_a_third
    process = start("pull", "tiny", env=env)
    assert sent.wait(60)
    while end == signal.SIGINT and b"127.0.0.1 sends nothing, " not in (line := process.stderr.readline()):
        assert line
    while not any(file.st_size > 500_000 for file in unfinished(tmp_path)):
        assert process.poll() is None
    process.send_signal(end)
    assert finish(process).status == status
    times = [file.st_mtime for file in unfinished(tmp_path) if file.st_size > 500_000]
    assert len(times) == 1 and (times == [0]) == (end == signal.SIGINT)  # given up in order
    assert not any(tmp_path.rglob("snapshots"))
    hub.send_weights = hub.send
    assert run("pull", "tiny", env=env).status == 0
    assert any("/store/" in request and "Range: bytes=" in request for request in hub.requests)


def test_draws_a_bar_on_a_terminal(hub, env):
    def send_slowly(request, content):
        request.wfile.write(b"HTTP/1.1 200 OK\r\nContent-Length: 3000000\r\n\r\n")
        for first in range(0, len(content), 500_000):
            request.wfile.write(content[first:first + 500_000])
            time.sleep(0.11)  # the bar is drawn ten times a second

    hub.send_weights = send_slowly
    ours, its = pty.openpty()
    process = subprocess.Popen([TOOL, "pull", "tiny"], env=env, stdin=its, stdout=its, stderr=its)
    os.close(its)
    shown = b""
    try:
        while chunk := os.read(ours, 4096):
            shown += chunk
    except OSError:  # how a terminal ends
        os.close(ours)
    assert process.wait(60) == 0
    for part in (b"\r[####", b" of 3.0 MB, ", b" MB/s, 0:", b" left", b"\r\x1b[K\r"):
        assert part in shown
