#!/usr/bin/env python3
"""Holds deploy/ray/embed_data.py to its promise, on a Ray of its own: 100,000 rows of Parquet, the job killed and started
again, then one of its actors killed; in the end each id is there once, with the local model's vector.

    scripts/peers data [TOOL]

Takes some two minutes; stops by itself after fifteen. The jobs' output is in build/peers/ray-data.log. Exits with 1 when
a check failed.
"""

import os
import signal
import subprocess
import sys
import time
from pathlib import Path

import numpy as np
import pyarrow as pa
import pyarrow.parquet as pq
from rig import PATIENCE_S, ROOT, Tool, make_texts, pids, run_checks, wait_until

LOG = ROOT / "build" / "peers" / "ray-data.log"
MODEL_FOLDER = ROOT / "tests/data/tiny_models/tiny_bert_cls"
COUNT = 100_000
FILES = 3
ROWS_PER_BLOCK = 1000
COMPARED = 2000
ACTOR = "ray::MapWorker(MapBatches(Embedder)"
WORKERS = ("ray::MapWorker", "ray::Write", "ray::IDLE")


class Job:
    """The program, begun at once."""

    def __init__(self, place):
        command = [sys.executable, ROOT / "deploy/ray/embed_data.py", "--model", MODEL_FOLDER, "--actors", "2"]
        command += ["--rows-per-block", str(ROWS_PER_BLOCK), "--checkpoint", place / "checkpoint"]
        with open(LOG, "ab") as log:
            self._process = subprocess.Popen(
                [*command, place / "input", place / "output"], stdout=log, stderr=subprocess.STDOUT
            )

    def kill(self):
        assert self._process.poll() is None, "the job had ended already"
        self._process.kill()
        self._process.wait()
        wait_until(lambda: not any(map(pids, WORKERS)), "the end of what the job had started")

    def end(self):
        assert self._process.wait(PATIENCE_S) == 0, f"the job failed, see {LOG}"


class Comparison:
    def __init__(self, tool):
        self._tool = tool
        self._place = Path(os.environ["RAY_TMPDIR"]) / "data"
        self._texts = make_texts(COUNT)
        self._ids = [f"row {number}" for number in range(COUNT)]
        (self._place / "input").mkdir(parents=True)
        for part in range(FILES):
            rows = {"id": self._ids[part::FILES], "text": self._texts[part::FILES]}
            pq.write_table(pa.table(rows), self._place / "input" / f"{part}.parquet")

    def check_killed_job(self):
        job = Job(self._place)
        wait_until(lambda: self._files() >= 10, "the first files", 0.01)
        job.kill()
        print(f"    killed with {self._files()} files written")

    def check_killed_actor(self):
        before = self._files()
        began = time.monotonic()
        job = Job(self._place)
        wait_until(lambda: self._files() >= before + 10, "more files", 0.01)
        actors = pids(ACTOR)
        assert actors, "no actor"
        os.kill(actors[0], signal.SIGKILL)
        print(f"    one of {len(actors)} actors killed with {self._files()} files written")
        job.end()
        print(f"    the rest took {time.monotonic() - began:.1f} s")

    def check_rows(self):
        rows = pq.read_table(self._place / "output")
        assert rows.num_rows == COUNT, f"{rows.num_rows} rows"
        assert sorted(rows["id"].to_pylist()) == sorted(self._ids), "not each id once"
        rows = rows.take(np.random.default_rng(1).permutation(COUNT)[:COMPARED])
        numbers = [int(row.removeprefix("row ")) for row in rows["id"].to_pylist()]
        texts = [self._texts[number] for number in numbers]
        assert rows["text"].to_pylist() == texts, "texts of other rows"
        ours = Tool(self._tool, texts, "--backend", "local", "--model", MODEL_FOLDER).vectors()
        assert (np.array(rows["vector"].to_pylist(), np.float32) == ours).all(), "other vectors"

    def check_ended_job(self):
        before = self._files()
        Job(self._place).end()
        assert self._files() == before, "a job that had ended wrote again"

    def _files(self):
        return len(list((self._place / "output").glob("*.parquet")))


def main():
    LOG.unlink(missing_ok=True)
    comparison = Comparison(sys.argv[1])
    checks = ("killed_job", "killed_actor", "rows", "ended_job")
    sys.exit(1 if run_checks([getattr(comparison, f"check_{name}") for name in checks]) else 0)


if __name__ == "__main__":
    main()
