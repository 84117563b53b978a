#!/usr/bin/env python3
"""Kills `tovana-embed index` at random moments, and looks at what it leaves.

    index_kills.py TOOL MODEL [KILLS [SEED]]

For each run texts change, some come and some go. After each kill the file must be sound, hold no record twice, and have a
vector for each text and for nothing else; every second time the run is then made again, and may end: the index must
hold the texts, each once.
"""

import json
import random
import sqlite3
import subprocess
import sys
import tempfile
import time
from pathlib import Path

TEXTS = 20_000
BLOCK = 256
NO_NUMBER = bytes.fromhex("0000c07f")  # what a place without a vector holds


def records(state):
    changed = f" of state {state}"
    return [
        {"id": i, "text": f"text number {i}{changed if i % 3 == state % 3 else ''}"}
        for i in range(TEXTS)
        if i % 11 != state % 11
    ]


def lines(given):
    return "".join(json.dumps(record) + "\n" for record in given).encode()


def check(path):
    """The texts that the index holds, by their ids."""
    if not path.exists():
        return {}
    connection = sqlite3.connect(path)
    assert connection.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
    if connection.execute("SELECT count(*) FROM sqlite_schema").fetchone() == (0,):
        return {}
    rows = connection.execute("SELECT id, members, text_digest, vector FROM records").fetchall()
    assert len({row[0] for row in rows}) == len(rows), "a record is there twice"
    digests = {}
    for _, _, digest, vector in rows:
        assert digests.setdefault(vector, digest) == digest, "two texts have one vector"
    (dimension,) = connection.execute("SELECT dimension FROM about").fetchone()
    size = 4 * dimension
    for block, numbers in connection.execute("SELECT block, numbers FROM vectors"):
        for place in range(BLOCK):
            is_empty = numbers[place * size :][:4] == NO_NUMBER
            assert is_empty == (block * BLOCK + place not in digests), "a vector is lost, or left over"
    connection.close()
    held = [json.loads("{" + row[1] + "}") for row in rows]
    return {record["id"]: record["text"] for record in held}


def kill_runs(command, path, kills, draw):
    """Kills so many runs before they end. Says of each what it had done by then."""
    state = killed = 0
    longest = 1
    while killed < kills:
        state += 1
        given = records(state)
        process = subprocess.Popen([*command, path], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
        process.stdin.write(lines(given))
        process.stdin.close()
        time.sleep(draw.uniform(0, longest))
        process.kill()
        was_killed = process.wait() != 0
        held, wanted = check(path), {record["id"]: record["text"] for record in given}
        done = sum(held.get(number) == text for number, text in wanted.items())
        print(f"{'killed' if was_killed else 'ended'} with {len(held)} records, {done} of {len(wanted)} as they should be")
        assert was_killed or held == wanted
        killed += was_killed
        if was_killed and killed % 2 == 0:
            begin = time.monotonic()
            subprocess.run([*command, path], input=lines(given), check=True)
            longest = time.monotonic() - begin
            assert check(path) == wanted


def main():
    if not 3 <= len(sys.argv) <= 5:
        sys.exit(__doc__)
    tool, model = sys.argv[1:3]
    kills = int(sys.argv[3]) if len(sys.argv) > 3 else 20
    seed = int(sys.argv[4]) if len(sys.argv) > 4 else random.randrange(1_000_000)
    print(f"seed {seed}")
    draw = random.Random(seed)
    for backend in (["local", "--model", str(Path(model).resolve())], ["tfidf"]):
        with tempfile.TemporaryDirectory() as folder:
            command = [tool, "index", "--jsonl", "--backend", *backend]
            kill_runs(command, Path(folder) / "index", kills, draw)
        print(f"{backend[0]}: {kills} runs killed")


if __name__ == "__main__":
    main()
