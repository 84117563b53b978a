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

from model_picture import picture, shown
from model_sides import FULL, OTHER, OURS
from model_texts import set_title


def table(head, rows):
    lines = [head, ["---"] * len(head), *rows]
    return "\n".join(f"| {' | '.join(line)} |" for line in lines)


def times_tables(results):
    """A table for float32 and one for the reduced precisions: milliseconds a call, minimum / median, and how many
    times that of the table's first side each minimum is. Behind them the quality, if it has been measured."""
    sides = list(next(iter(results["sets"].values())))
    full = [side for side in sides if results["precisions"][side] == FULL]
    kinds = {f"ms a call, {FULL}": full, "ms a call, reduced": [side for side in sides if side not in full]}
    return "\n\n".join(times_table(results, kind, sides) for kind, sides in kinds.items() if sides)


def times_table(results, kind, sides):
    quality = results.get("quality")
    heads = [kind, *(set_title(name, **results["sizes"][name]) for name in results["sets"])]
    rows = [[side, *(times_cell(times, side, sides[0]) for times in results["sets"].values())] for side in sides]
    if quality:
        heads += quality_heads(quality)
        for row in rows:
            row += quality_cells(quality, row[0])
    return table(heads, rows)


def times_cell(times, side, first):
    cell = f"{shown(min(times[side]) * 1e3)} / {shown(statistics.median(times[side]) * 1e3)}"
    return cell if side == first else f"{cell} ({min(times[side]) / min(times[first]):.2f} x)"


def quality_heads(quality):
    return ["least cosine", f"{quality['nearest']} nearest kept"]


def quality_cells(quality, side):
    if side == quality["reference"]:
        return ["reference", "reference"]
    cosine, kept = quality["sides"][side]
    return [f"{cosine:.6f}", f"{kept:.2%}"]


def quality_table(results):
    quality = results["quality"]
    rows = [[side, *quality_cells(quality, side)] for side in quality["sides"]]
    return table([quality_title(quality), *quality_heads(quality)], rows)


def quality_title(quality):
    texts, searched = quality["texts"], quality["searched"]
    return f"cosine of {texts:,} texts to {quality['reference']}, nearest neighbours of {searched:,}"


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


TABLES = {
    "sets": times_tables,
    "busy": busy_table,
    "together": together_table,
    "start": start_table,
    "quality": quality_table,
}


def print_part(results, part):
    print(TABLES[part](results), end="\n\n", flush=True)


def summary(results):
    versions = ", ".join(f"{name} {version}" for name, version in results["versions"].items())
    return f"{results['machine']}; {results['threads']} threads each, {results['rounds']} rounds; {versions}."


def report(results):
    parts = [part for part in TABLES if part in results]
    if "sets" in parts and "quality" in parts:
        parts.remove("quality")  # beside the times
    return "\n\n".join([summary(results), *(TABLES[part](results) for part in parts)])


def without_other_build(results):
    """What documents show: another build of ours is of use to who has it only."""
    if isinstance(results, dict):
        return {key: without_other_build(value) for key, value in results.items() if key != OTHER}
    return results


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
    results = without_other_build(results)
    document.write_text(put_into(document.read_text(encoding="utf-8"), report(results)), encoding="utf-8")
    drawing.write_text(picture(results), encoding="utf-8")


if __name__ == "__main__":
    main()
