"""The round trips as bars, in SVG that is written by hand: p50 as the bar, p99 as the thin line,
dashed where it is longer than there is room."""

from xml.sax.saxutils import escape

from programs import CONTESTANTS

LABELS = {c.name: c.label for c in CONTESTANTS}
WIDTH = 900
LEFT = 230
BAR = 16
STEP = 26
RIGHT = 160  # room for the figures
COLOURS = {"floor": "#9aa5b1", "tovik": "#1f77b4"}


def _colour(name):
    return COLOURS.get(name.split("-")[0], "#c9a36b")


def _text(x, y, text, anchor="start", size=12, colour="#333"):
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-size="{size}" '
            f'fill="{colour}">{escape(text)}</text>')


def _bar(name, latency, y, scale):
    p50, p99 = latency["p50"]["median"] / 1000, latency["p99"] / 1000
    end = LEFT + p50 * scale
    tail = min(LEFT + p99 * scale, WIDTH - RIGHT)
    dashes = ' stroke-dasharray="4 3"' if LEFT + p99 * scale > tail else ""
    middle = y + BAR / 2
    yield _text(LEFT - 8, y + BAR - 4, LABELS[name], "end")
    yield (f'<rect x="{LEFT}" y="{y}" width="{p50 * scale:.1f}" height="{BAR}" '
           f'fill="{_colour(name)}"/>')
    yield (f'<line x1="{end:.1f}" y1="{middle}" x2="{tail:.1f}" y2="{middle}" '
           f'stroke="#555"{dashes}/>')
    yield _text(max(end, tail) + 6, y + BAR - 4, f"{p50:.1f} us, p99 {p99:.1f}", size=11)


def _panel(title, entries, y):
    scale = (WIDTH - LEFT - RIGHT - 90) / max(e["latency"]["p50"]["median"] / 1000
                                       for e in entries.values())
    yield _text(LEFT, y, title, size=13)
    y += 10
    for name, entry in entries.items():
        yield from _bar(name, entry["latency"], y, scale)
        y += STEP


def render(results):
    """The whole picture."""
    parts = [_text(LEFT, 24, "Round trip of a request and its reply", size=16)]
    y = 52
    for name, scenarios in results["placements"].items():
        entries = scenarios["round trip"]
        where = "both processes on one core" if name == "one core" else "processes placed freely"
        parts += _panel(where, entries, y)
        y += STEP * len(entries) + 44
    parts.append(_text(12, y - 12, results["heading"], size=10, colour="#777"))
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {y}" '
            f'font-family="sans-serif"><rect width="{WIDTH}" height="{y}" fill="white"/>'
            + "\n".join(parts) + "</svg>\n")
