"""The round trips as bars, in SVG that is written by hand, on one scale for both placements."""

import math
from xml.sax.saxutils import escape

from programs import CONTESTANTS

LABELS = {c.name: c.label for c in CONTESTANTS}
WIDTH, LEFT, RIGHT = 860, 220, 130  # names at the left, room for the last figures at the right
BAR, STEP, PANEL, TOP = 14, 22, 36, 96
LEGEND = (("ours", "Tovik"), ("base", "baseline"), ("peer", "another system"))
STYLE = """
  text { fill: #1d2630; font: 12px system-ui, "DejaVu Sans", sans-serif;
         stroke: #ffffff; stroke-width: 3px; paint-order: stroke; }
  .ground { fill: #ffffff; }
  .title { font-size: 16px; }
  .soft { fill: #5a6875; font-size: 11px; }
  .grid { stroke: #dfe4e8; }
  .tail { stroke: #5a6875; }
  .ours { fill: #2f7fc1; }
  .base { fill: #9aa5b1; }
  .peer { fill: #c9a36b; }
  @media (prefers-color-scheme: dark) {
    text { fill: #dbe2e8; stroke: #14181d; }
    .ground { fill: #14181d; }
    .soft { fill: #97a4b0; }
    .grid { stroke: #2c343c; }
    .tail { stroke: #97a4b0; }
    .ours { fill: #4d9bdb; }
    .base { fill: #6b7783; }
    .peer { fill: #a88552; }
  }
"""


def _text(x, y, text, anchor="start", kind=""):
    marks = f' class="{kind}"' if kind else ""
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{marks}>{escape(text)}</text>'


def _rect(x, y, width, height, kind):
    return f'<rect class="{kind}" x="{x:.1f}" y="{y:.1f}" width="{width:.1f}" height="{height}"/>'


def _line(x1, y1, x2, y2, kind):
    return f'<path class="{kind}" d="M{x1:.1f} {y1:.1f}L{x2:.1f} {y2:.1f}"/>'


def _legend():
    x = LEFT
    for kind, text in LEGEND:
        yield _rect(x, 40, 12, 12, kind)
        yield _text(x + 18, 50, text)
        x += 34 + 7 * len(text)
    yield _text(x, 50, "bar: half of all take less; line: 99 of 100")


def _axis(most, tick, scale, bottom):
    for value in range(0, most + 1, tick):
        x = LEFT + value * scale
        yield _line(x, TOP - 14, x, bottom, "grid")
        yield _text(x, TOP - 18, f"{value} µs" if value else "0", "middle", "soft")


def _bar(name, latency, y, scale):
    p50, p99 = latency["p50"]["median"] / 1000, latency["p99"] / 1000
    kind = {"tovik": "ours", "baseline": "base"}.get(name.split("-")[0], "peer")
    middle, end = y + BAR / 2, LEFT + p99 * scale
    yield _text(LEFT - 8, y + BAR - 3, LABELS[name], "end")
    yield _rect(LEFT, y, p50 * scale, BAR, kind)
    yield _line(LEFT + p50 * scale, middle, end, middle, "tail")
    yield _text(end + 6, y + BAR - 3, f"{p50:.1f} µs, {p99:.1f} µs", kind="soft")


def render(results):
    """The whole picture."""
    panels = {name: scenarios["round trip"] for name, scenarios in results["placements"].items()}
    slowest = max(entry["latency"]["p99"] for entries in panels.values()
                  for entry in entries.values()) / 1000
    tick = next(digit * 10**power for power in range(1, 9) for digit in (1, 2, 5)
                if digit * 10**power * 10 >= slowest)
    most = tick * math.ceil(slowest / tick)
    scale = (WIDTH - LEFT - RIGHT) / most
    parts, y = [], TOP
    for name, entries in panels.items():
        parts.append(_text(LEFT, y + 12, "both processes on one core" if name == "one core"
                           else "processes placed freely"))
        for number, (contestant, entry) in enumerate(entries.items()):
            parts += _bar(contestant, entry["latency"], y + 22 + number * STEP, scale)
        y += STEP * len(entries) + PANEL
    height = y + 20
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" role="img">',
        "<title>Round trips of a request and its reply, in microseconds</title>",
        f"<style>{STYLE}</style>", _rect(0, 0, WIDTH, height, "ground"),
        _text(LEFT, 24, "Round trip of a request and its reply", kind="title"), *_legend(),
        *_axis(most, tick, scale, y - 8), *parts, _text(12, y + 8, results["heading"], kind="soft"),
        "</svg>", ""])
