"""What both comparisons on Ray stand on: the texts, the tool's vectors, processes that Ray started."""

import json
import os
import random
import re
import subprocess
import tempfile
import time
from pathlib import Path

import numpy as np

ROOT = Path(__file__).resolve().parents[2]
MODEL_FOLDER = ROOT / "models" / "all-MiniLM-L6-v2"
PATIENCE_S = 300


def make_texts(count, seed=1):
    """Different texts of 4 to 60 words, as the documents of this tree have them."""
    words = re.findall(r"\w+", " ".join(path.read_text(encoding="utf-8") for path in sorted(ROOT.glob("docs/*.md"))))
    source = random.Random(seed)
    return [f"{number} " + " ".join(source.choices(words, k=source.randint(4, 60))) for number in range(count)]


class Tool:
    """The command-line tool, begun at once on some texts; `took_s` and `vectors` wait for its end."""

    def __init__(self, program, texts, *options, **variables):
        command = [program, "embed", "--jsonl", "--log-level", "warning", *map(str, options)]
        self._output, self._said = tempfile.TemporaryFile(), tempfile.TemporaryFile()
        with tempfile.TemporaryFile() as given:
            given.write("".join(json.dumps({"text": text}) + "\n" for text in texts).encode())
            given.seek(0)
            self._began = time.monotonic()
            self._process = subprocess.Popen(
                command, stdin=given, stdout=self._output, stderr=self._said, env=os.environ | variables
            )

    def took_s(self):
        status = self._process.wait(PATIENCE_S)
        took_s = time.monotonic() - self._began
        assert status == 0, self.said
        return took_s

    @property
    def said(self):
        self._said.seek(0)
        return self._said.read().decode().strip()

    def vectors(self):
        """In float32, `[texts x dimension]`."""
        self.took_s()
        self._output.seek(0)
        return np.array([json.loads(line)["vector"] for line in self._output], np.float32)


def pids(title):
    """The processes whose title begins so, as Ray names its actors."""
    found = []
    for folder in Path("/proc").glob("[0-9]*"):
        try:
            if (folder / "cmdline").read_bytes().decode(errors="replace").startswith(title):
                found.append(int(folder.name))
        except OSError:
            pass
    return sorted(found)


def cpu_s(pid):
    fields = Path(f"/proc/{pid}/stat").read_text().rpartition(") ")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def wait_until(condition, what, every_s=0.05):
    give_up = time.monotonic() + PATIENCE_S
    while not condition():
        assert time.monotonic() < give_up, f"waited in vain: {what}"
        time.sleep(every_s)


def run_checks(checks):
    """Runs them one after another; how many failed."""
    failed = 0
    for check in checks:
        began = time.monotonic()
        try:
            check()
            print(f"{check.__name__}: passed ({time.monotonic() - began:.1f} s)", flush=True)
        except AssertionError as problem:
            failed += 1
            print(f"{check.__name__}: FAILED: {problem}", flush=True)
    return failed
