#!/usr/bin/env python3
"""Makes tables of what model_peer.py has measured.

    model_report.py RESULTS
"""

import json
import statistics
import sys
from pathlib import Path

OURS = "tovana"
SETS = {
    "query": "one query",
    "batch32": "a batch",
    "mixed256": "very different lengths",
    "long16": "long texts",
}


def table(head, rows):
    lines = [head, ["---"] * len(head), *rows]
    return "\n".join(f"| {' | '.join(line)} |" for line in lines)


def number(value):
    """Three digits of it, or all before the point."""
    return f"{value:,.0f}" if value >= 100 else f"{value:.{1 if value >= 10 else 2}f}"


def times_table(results):
    """Milliseconds a call, minimum / median, and how many times ours a peer's minimum is."""
    sides = list(next(iter(results["sets"].values())))
    rows = []
    for name, times in results["sets"].items():
        figures = {side: (min(times[side]) * 1e3, statistics.median(times[side]) * 1e3) for side in sides}
        size = results["sizes"][name]
        row = [f"{SETS[name]}: {size['texts']:,} of {size['tokens']:,} tokens"]
        for side in sides:
            cell = " / ".join(map(number, figures[side]))
            if side != OURS:
                cell += f" ({figures[side][0] / figures[OURS][0]:.2f} x)"
            row.append(cell)
        rows.append(row)
    return table(["texts, in all", *sides], rows)


def busy_table(results):
    rows = [
        [side, number(idle * 1e3), number(busy * 1e3), f"{busy / idle:.1f}"]
        for side, (idle, busy) in results["busy"].items()
    ]
    return table(["a query", "idle, ms", "busy, ms", "busy / idle"], rows)


def together_table(results):
    rows = [[side, *map(number, rates)] for side, rates in results["together"].items()]
    return table(["queries a second", *(f"{count} threads" for count in results["callers"])], rows)


def start_table(results):
    rows = [
        [side, number(min(seconds)), number(statistics.median(seconds)), number(max(memory) / 1e6)]
        for side, (seconds, memory) in results["start"].items()
    ]
    return table(["to the first vector", "s, minimum", "s, median", "peak memory, MB"], rows)


TABLES = {"sets": times_table, "busy": busy_table, "together": together_table, "start": start_table}


def print_part(results, part):
    print(TABLES[part](results), end="\n\n", flush=True)


def summary(results):
    versions = ", ".join(f"{name} {version}" for name, version in results["versions"].items())
    return f"{results['machine']}; {results['threads']} threads each, {results['rounds']} rounds; {versions}."


def main():
    results = json.loads(Path(sys.argv[1]).read_text(encoding="utf-8"))
    print(summary(results), end="\n\n")
    for part in TABLES:
        if part in results:
            print_part(results, part)


if __name__ == "__main__":
    main()
