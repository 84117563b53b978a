"""Draws what model_peer.py has measured: a panel of bars for each set of texts (the median
time of a call), for the start, the memory and the quality. Bars of a reduced precision are hollow."""

import statistics
from html import escape

from model_sides import FULL, OURS
from model_texts import set_title

WIDTH, COLUMNS = 860, 2
PANEL_HEAD, ROW, PANEL_GAP, LABELS, FIGURES = 34, 24, 18, 166, 76
KEY_HEIGHT, KEY_STEP = 30, 150
REDUCED_GAP = 8  # above the bars of reduced precisions

# A page shows the picture on its own ground, light or dark.
STYLE = """
  text { font: 13px system-ui, sans-serif; fill: #1f2328 }
  .title { font-weight: 600 }
  .peer { fill: #8c959f; stroke: #8c959f }
  .ours { fill: #0a7f62; stroke: #0a7f62 }
  .reduced { fill-opacity: 0.15; stroke-width: 1.5; stroke-dasharray: 4 2 }
  @media (prefers-color-scheme: dark) {
    text { fill: #e6edf3 }
    .peer { fill: #6e7681; stroke: #6e7681 }
    .ours { fill: #2fbf97; stroke: #2fbf97 }
  }
"""


def shown(value):
    """Three digits of a number, or all before the point."""
    return f"{value:,.0f}" if value >= 100 else f"{value:.{1 if value >= 10 else 2}f}"


def panels(results):
    """Title, unit, and for each side its figure; less is better in all."""
    for name, times in results.get("sets", {}).items():
        title = set_title(name, **results["sizes"][name])
        yield title, "ms", {side: statistics.median(column) * 1e3 for side, column in times.items()}
    if "start" in results:
        starts = results["start"].items()
        yield "Process start to the first vector", "s", {side: statistics.median(start[0]) for side, start in starts}
        yield "Peak memory at that moment", "MB", {side: max(start[1]) / 1e6 for side, start in starts}
    if "quality" in results:
        quality = results["quality"]
        lost = {side: (1 - kept) * 100 for side, (_, kept) in quality["sides"].items()}
        yield f"Of the {quality['nearest']} nearest neighbours, lost", "%", lost


def bar(side, precision, x, y, length):
    kind = "ours" if side.startswith(OURS) else "peer"
    if precision != FULL:
        kind += " reduced"
    return f'<rect class="{kind}" x="{x}" y="{y}" width="{length:.1f}" height="17" rx="2"/>'


def key(precisions):
    """What the two kinds of bars are."""
    reduced = sorted({precision for precision in precisions.values() if precision != FULL})
    for number, (precision, name) in enumerate([(FULL, FULL), ("", " or ".join(reduced))]):
        x = LABELS + number * KEY_STEP
        yield bar("", precision, x, 6, 30)
        yield f'<text x="{x + 38}" y="19">{escape(name)}</text>'


def bars(left, top, width, precisions, title, unit, figures):
    yield f'<text class="title" x="{left}" y="{top + 20}">{escape(title)}</text>'
    largest = max(figures.values()) or 1
    y = top + PANEL_HEAD
    above = FULL
    for side, figure in figures.items():
        if precisions[side] != FULL and above == FULL:
            y += REDUCED_GAP
        above = precisions[side]
        length = max(2, figure / largest * (width - LABELS - FIGURES))
        yield f'<text x="{left + LABELS - 8}" y="{y + 13}" text-anchor="end">{escape(side)}</text>'
        yield bar(side, above, left + LABELS, y, length)
        yield f'<text x="{left + LABELS + length + 6:.1f}" y="{y + 13}">{shown(figure)} {unit}</text>'
        y += ROW


def picture(results):
    drawn = list(panels(results))
    precisions = results["precisions"]
    has_reduced = any(precision != FULL for precision in precisions.values())
    width = (WIDTH - PANEL_GAP * (COLUMNS - 1)) / COLUMNS
    height = PANEL_HEAD + ROW * max(len(figures) for _, _, figures in drawn) + REDUCED_GAP + PANEL_GAP
    above = KEY_HEIGHT if has_reduced else 0
    total = above + height * -(-len(drawn) // COLUMNS)
    lines = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {total}" role="img">',
        "<title>The local model and its peers; shorter bars are better</title>",
        f"<style>{STYLE}</style>",
    ]
    if has_reduced:
        lines += key(precisions)
    for number, panel in enumerate(drawn):
        row, column = divmod(number, COLUMNS)
        lines += bars(column * (width + PANEL_GAP), above + row * height, width, precisions, *panel)
    return "\n".join([*lines, "</svg>", ""])
