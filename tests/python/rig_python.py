"""What the tests of the package share: engines of the tiny model, and scripts in a Python of their own."""

import json
import os
import signal
import subprocess
import sys

from rig import PATIENCE_S, TINY_MODEL, Server, answer_openai  # noqa: F401

LOCAL = {"backend": "local", "model_name": TINY_MODEL}
TFIDF = {"backend": "tfidf", "dimension": 8}
REFERENCES = [json.loads(line) for line in (TINY_MODEL / "reference.jsonl").read_text().splitlines()]
TEXTS = [reference["text"] for reference in REFERENCES]
WORK = 100_000 * [20 * "a text of some words "]  # takes the tiny model many seconds


def run(script, *arguments):
    """Runs a script, which has to end well and say nothing on stderr; what it printed."""
    result = subprocess.run([sys.executable, "-c", script, *map(str, arguments)], capture_output=True, text=True,
                            timeout=PATIENCE_S, check=False)
    assert (result.returncode, result.stderr) == (0, ""), result.stderr
    return result.stdout


def press_ctrl_c():
    os.kill(os.getpid(), signal.SIGINT)
