"""How processes begin and end with the package in them, each in a Python of its own."""

import pathlib
import subprocess

import pytest
import tovana_embedding
from rig_python import LOCAL, run

# Threads that compute, wait, log and call back, none of which is waited for, while the interpreter ends.
EXIT_AMID_CALLS = """
import logging, sys, threading
import tovana_embedding
logging.getLogger("tovana_embedding").setLevel(logging.DEBUG)
logging.getLogger("tovana_embedding").addHandler(logging.NullHandler())
engine = tovana_embedding.acquire({"backend": "local", "model_name": sys.argv[1]})
started = threading.Barrier(5)
def compute():
    started.wait()
    while True:
        engine.embed(["some words", "others"], should_stop=lambda: sum(range(1000)) < 0)
def load():
    started.wait()
    while True:
        with tovana_embedding.EmbeddingEngine({"backend": "local", "model_name": sys.argv[1]}) as fresh:
            fresh.wait_ready()
for work in (compute, compute, load, load):
    threading.Thread(target=work, daemon=True).start()
started.wait()
engine.wait_ready()
for _ in range(int(sys.argv[2])):
    import os
    if not (child := os.fork()):
        engine.embed(["some words"])
        break
    if status := os.waitpid(child, 0)[1]:
        raise SystemExit(status)
"""


@pytest.mark.parametrize("children", [0, 3])
def test_exits_amid_calls(children):
    for _ in range(5):
        run(EXIT_AMID_CALLS, LOCAL["model_name"], children)


# What is called while the interpreter ends comes back to it.
def test_serves_the_thread_that_exits():
    assert run("""
import atexit
import weakref
class Held: pass
held = Held()
def embed(when):
    print(when, engine.embed(["a"]).shape)
weakref.finalize(held, embed, "at exit")  # registered, and so called, before and after the package's own
import tovana_embedding
engine = tovana_embedding.EmbeddingEngine({"backend": "tfidf"})
atexit.register(embed, "first")
""") == "first (1, 256)\nat exit (1, 256)\n"


def test_imports_nothing_heavy():
    loaded = run("import sys, numpy; before = set(sys.modules)\nimport tovana_embedding\n"
                 "print(*{name.partition('.')[0] for name in set(sys.modules) - before})").split()
    assert set(loaded) <= {"tovana_embedding", "logging", "threading", "string", "traceback", "_string", "atexit", "importlib",
                           "__future__", "_colorize"}, loaded


def test_exports_its_entry_alone():
    module = pathlib.Path(tovana_embedding._core.__file__)
    listed = subprocess.run(["nm", "-D", "--defined-only", module], capture_output=True, text=True, check=True)
    assert [line.split()[-1] for line in listed.stdout.splitlines()] == ["PyInit__core"]
