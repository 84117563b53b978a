"""What the tool says and does about its engine: loading, failing, falling back, and the settings."""

import os
import pathlib
import re
import shutil
import signal
import sqlite3

import pytest
from rig import TOOL, expect_error, finish, run, start


class Machine:
    """A machine of the tool's own: what is installed, and what its settings say."""

    def __init__(self, folder):
        self.folder = folder
        self.tool = shutil.copy(TOOL, folder)  # where the model library is not beside it
        shutil.copy(os.environ["HANGING_MODEL_LIBRARY"], folder / "endless.so")  # whose loading never ends

    def options(self, library):
        """`library` is what the model library is: none, one whose load never ends, or one that is gone."""
        env = {"XDG_CONFIG_HOME": str(self.folder / "configuration")}
        if library != "none":
            env["TOVANA_MODEL_LIBRARY"] = str(self.folder / library)
        return {"tool": self.tool, "env": env}

    def run(self, library, *command):
        return run(*command, **self.options(library))

    def write(self, name, text):
        path = self.folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
        return str(path)


@pytest.fixture
def machine(tmp_path):
    return Machine(tmp_path)


def test_says_what_it_is_doing(machine):
    failure = f"ModelLibraryError: TOVANA_MODEL_LIBRARY={machine.folder}/gone.so: there is no such file"
    for library, options, status, said in [
            ("endless.so", "", 75, "is still loading (S s so far)"),
            ("endless.so", "--no-wait", 75, "is still loading (S s so far)"),
            ("gone.so", "--wait", 69, f"could not be loaded: {failure}"),
            ("none", "--wait", 0, "is ready (tfidf); sentence-transformers is not installed"),
            ("gone.so", "--backend tfidf", 0, "is ready (tfidf)")]:
        result = machine.run(library, "status", *options.split())
        line = re.sub(r"\d+ s so far", "S s so far", result.out.decode())
        assert (result.status, line, result.err) == (status, f"The embedding model {said}\n", "")
    settings = machine.write("configuration/tovana/settings.toml", "")
    machine_options = machine.options("none")
    machine_options["env"]["HF_HUB_CACHE"] = str(machine.folder / "cache")
    assert run("status", "--wait", "--json", **machine_options).records() == [
        {"state": "ready", "backend": "tfidf", "detail": "sentence-transformers is not installed", "runtime": None,
         "kernels": None, "library": None, "precision": None, "model_folder": None,
         "cache": str(machine.folder / "cache"), "settings": settings}]
    expect_error(machine.run("none", "status", "--wait", "--no-wait"), 64, "--no-wait")


def test_an_exit_status_says_whether_trying_again_helps(machine):
    for library, option, status, said in [
            ("endless.so", "--no-wait", 75, "is still loading"), ("endless.so", "--wait-s=0.1", 75, "is still loading"),
            ("endless.so", "--deadline=0.1", 69, "the deadline of 0.1 s has passed"),
            ("none", "--prompt=query", 69, "the backend tfidf has no prompts; only local models have; install lib"),
            ("gone.so", "--model=m", 69, "gone.so: there is no such file; --backend tfidf needs no model")]:
        expect_error(machine.run(library, "embed", "a", option), status, said)


def test_ends_a_wait_for_the_model_on_ctrl_c(machine):
    waiting = start("embed", "a", "--output", str(machine.folder / "out"), **machine.options("endless.so"))
    while "endless.so" not in pathlib.Path(f"/proc/{waiting.pid}/maps").read_text():
        assert waiting.poll() is None
    waiting.send_signal(signal.SIGINT)
    assert finish(waiting) == (130, b"", "")
    assert not (machine.folder / "out").exists()


def test_falls_back_aloud(machine):
    for wish in "--backend=local", "--model=a-model", "--precision=bfloat16":
        result = machine.run("none", "embed", "ab", wish)
        assert result.status == 0 and result.out.startswith(b'{"text":"ab","vector":[')
        assert result.err.startswith(
            "tovana-embed: sentence-transformers is not installed, so the vectors are those of tfidf; ")
        assert result.err.count("\n") == 1
    assert machine.run("none", "embed", "ab").err == ""  # nothing better was asked for


def test_follows_the_settings(machine):
    tfidf = b"The embedding model is ready (tfidf)\n"
    machine.write("configuration/tovana/settings.toml", "[daemon]\nembedding_backend = 'tfidf'")
    assert machine.run("gone.so", "status") == (0, tfidf, "")
    other = machine.write("other.toml", "[daemon]\nembedding_backend = 'openai'\n")
    result = machine.run("gone.so", "status", "--settings", other)
    assert result.status == 0 and "no base_url configured, so the vectors are those of tfidf; " in result.err
    assert result.out == tfidf.replace(b"\n", b"; OpenAI backend requested but no base_url configured\n")
    misspelt = machine.write("other.toml", "[daemon]\nembedding_backend = 'tfdif'\n")
    assert f'{misspelt}: no embedding_backend is called "tfdif"' in machine.run("none", "status", "--settings", misspelt).err
    for line, said in [("embedding_backend = 1", ":2: daemon.embedding_backend must be a text"),
                       ("embedding_backend = 'openai'\n[generation]\nbase_url = 'http://'",
                        ": generation.base_url is no complete URL")]:
        machine.write("other.toml", f"[daemon]\n{line}\n")
        expect_error(machine.run("none", "status", "--settings", other), 65, other + said)
    missing = str(machine.folder / "missing.toml")
    expect_error(machine.run("none", "status", "--settings", missing), 66, missing)


def test_tells_whether_stored_vectors_compare(machine, monkeypatch):
    monkeypatch.chdir(machine.folder)
    path = "daemon.db"
    daemon = sqlite3.connect(machine.folder / path, isolation_level=None)
    expect_error(machine.run("none", "migrate-check", "x"), 66, "x: no such database")
    expect_error(machine.run("none", "migrate-check", path), 65, "no such table: symbol_embeddings")
    daemon.execute("CREATE TABLE symbol_embeddings (model_name)")
    assert machine.run("endless.so", "migrate-check", path) == (
        0, b"no stored vectors, nothing to embed again\n", "")
    daemon.execute("INSERT INTO symbol_embeddings VALUES ('tfidf')")
    assert machine.run("none", "migrate-check", path) == (0, b"the stored vectors are those of tfidf\n", "")
    expect_error(machine.run("endless.so", "migrate-check", path, "--no-wait"), 75, "is still loading")
    openai = ["--backend", "openai", "--base-url", "http://127.0.0.1:9"]
    changed = b"not those of openai:text-embedding-3-small: they have to be embedded again\n"
    assert machine.run("gone.so", "migrate-check", path, *openai) == (1, b"the stored vectors are " + changed, "")
    daemon.execute("BEGIN EXCLUSIVE")
    asking = start("migrate-check", path, "--backend", "tfidf", **machine.options("none"))
    while path not in os.popen(f"ls -l /proc/{asking.pid}/fd").read():
        assert asking.poll() is None, "did not wait for the lock"
    daemon.execute("COMMIT")
    assert finish(asking) == (0, b"the stored vectors are those of tfidf\n", "")
