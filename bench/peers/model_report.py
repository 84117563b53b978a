#!/usr/bin/env python3
"""Makes tables and a picture of what model_peer.py has measured.

    model_report.py RESULTS [DOCUMENT PICTURE]

Prints the tables; or puts them into the Markdown document, between its two comments that name this script,
and writes the picture, an SVG file.
"""

import json
import statistics
import sys
from pathlib import Path

from model_picture import OURS, picture, shown
from model_texts import set_title


def table(head, rows):
    lines = [head, ["---"] * len(head), *rows]
    return "\n".join(f"| {' | '.join(line)} |" for line in lines)


def times_table(results):
    """Milliseconds a call, minimum / median, and how many times ours a peer's minimum is."""
    sides = list(next(iter(results["sets"].values())))
    rows = []
    for name, times in results["sets"].items():
        figures = {side: (min(times[side]) * 1e3, statistics.median(times[side]) * 1e3) for side in sides}
        row = [set_title(name, **results["sizes"][name])]
        for side in sides:
            cell = " / ".join(map(shown, figures[side]))
            if side != OURS:
                cell += f" ({figures[side][0] / figures[OURS][0]:.2f} x)"
            row.append(cell)
        rows.append(row)
    return table(["ms a call", *sides], rows)


def busy_table(results):
    rows = [
        [side, shown(idle * 1e3), shown(busy * 1e3), f"{busy / idle:.1f}"]
        for side, (idle, busy) in results["busy"].items()
    ]
    return table(["a query", "idle, ms", "busy, ms", "busy / idle"], rows)


def together_table(results):
    rows = [[side, *map(shown, rates)] for side, rates in results["together"].items()]
    heads = [f"{count} threads" if count > 1 else "1 thread" for count in results["callers"]]
    return table(["queries a second", *heads], rows)


def start_table(results):
    rows = [
        [side, shown(min(seconds)), shown(statistics.median(seconds)), shown(max(memory) / 1e6)]
        for side, (seconds, memory) in results["start"].items()
    ]
    return table(["to the first vector", "s, minimum", "s, median", "peak memory, MB"], rows)


TABLES = {"sets": times_table, "busy": busy_table, "together": together_table, "start": start_table}


def print_part(results, part):
    print(TABLES[part](results), end="\n\n", flush=True)


def summary(results):
    versions = ", ".join(f"{name} {version}" for name, version in results["versions"].items())
    return f"{results['machine']}; {results['threads']} threads each, {results['rounds']} rounds; {versions}."


def report(results):
    return "\n\n".join([summary(results), *(make(results) for part, make in TABLES.items() if part in results)])


def put_into(document, text):
    begin, end = (f"<!-- model_report.py: {place} -->" for place in ("begin", "end"))
    head, found_begin, rest = document.partition(begin)
    _, found_end, tail = rest.partition(end)
    if not found_begin or not found_end:
        sys.exit(f"model_report.py: the document has no lines '{begin}' and '{end}'")
    return f"{head}{begin}\n{text}\n{end}{tail}"


def main():
    if len(sys.argv) not in (2, 4):
        sys.exit("usage: model_report.py RESULTS [DOCUMENT PICTURE]")
    results = json.loads(Path(sys.argv[1]).read_text(encoding="utf-8"))
    if len(sys.argv) == 2:
        print(report(results))
        return
    document, drawing = map(Path, sys.argv[2:])
    document.write_text(put_into(document.read_text(encoding="utf-8"), report(results)), encoding="utf-8")
    drawing.write_text(picture(results), encoding="utf-8")


if __name__ == "__main__":
    main()
