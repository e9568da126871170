"""The tables, as Markdown that also reads well on a terminal."""

import textwrap

from goals import ratio
from programs import CONTESTANTS, BASELINE

LABELS = {**{c.name: c.label for c in CONTESTANTS}, "mqtt": "MQTT by hand",
          "bridged": "Tovik across both bridges"}


def table(headings, rows):
    cells = [headings, *[[str(cell) for cell in row] for row in rows]]
    widths = [max(len(row[i]) for row in cells) for i in range(len(headings))]

    def line(row):
        first, *others = [cell.ljust(w) if i == 0 else cell.rjust(w)
                          for i, (cell, w) in enumerate(zip(row, widths))]
        return "| " + " | ".join([first, *others]) + " |"

    rule = "|" + "|".join("-" * (w + 2) if i == 0 else "-" * (w + 1) + ":"
                          for i, w in enumerate(widths)) + "|"
    return "\n".join([line(cells[0]), rule, *map(line, cells[1:])])


def micro(nanoseconds):
    return f"{nanoseconds / 1000:.2f}"


def spread(summary):
    """The median, and the middle half of the rounds' medians."""
    return f"{micro(summary['median'])} ({micro(summary['q1'])}-{micro(summary['q3'])})"


def _round_trip(entries):
    baseline = entries[BASELINE]["latency"]["p50"]["median"]
    rows = []
    for name, entry in entries.items():
        latency = entry["latency"]
        rows.append([LABELS[name], spread(latency["p50"]), micro(latency["p99"]),
                     micro(latency["p99.9"]), f"{latency['p50']['median'] / baseline:.2f}",
                     micro(entry["server_cpu"]["median"]), micro(entry["client_cpu"]["median"]),
                     "+".join(map(str, entry["threads"])),
                     "+".join(f"{kib / 1024:.1f}" for kib in entry["resident_kib"])])
    return table(["round trip, us", "p50 (middle half)", "p99", "p99.9", "p50 / baseline (iii)",
                  "server CPU", "client CPU", "threads", "MiB"], rows)


# What stands over the figures of a scenario, or over each kind of them.
HEADINGS = {
    "one-way stream": "one-way, us a message", "broadcast": "broadcast to {}, us a subscriber",
    "idle": "1 active among {} idle, us", "admission": "admission: {}, us a client",
    "calls in flight": "{} calls in flight, answered in random order, us a call",
    "start-up": "start of a client's program to its first reply, us",
    "across bridges": "{}, us; by hand it is of mosquitto_rr, mosquitto_pub, mosquitto_sub"}


def _figures(heading, entries):
    """Medians with the middle half of their rounds; the first of them is compared."""
    reference = BASELINE if BASELINE in entries else next(iter(entries))
    rows = {name: {key: value.get("p50", value) if isinstance(value, dict) else value
                   for key, value in entry.items()} for name, entry in entries.items()}
    first, *others = rows[reference]

    def text(value):
        return spread(value) if isinstance(value, dict) else f"{value or 0:.0f}"
    its = rows[reference][first]
    return table([heading, first, f"of {LABELS[reference].partition(':')[0]}", *others],
                 [[LABELS[name], text(row[first]), f"{ratio(row[first], its):.2f}",
                   *(text(row[key]) for key in others)] for name, row in rows.items()])


def _placement(name, scenarios):
    yield f"### {name.capitalize()}"
    for scenario, found in scenarios.items():
        if scenario == "round trip":
            yield _round_trip(found)
        elif "{}" in HEADINGS[scenario]:
            yield from (_figures(HEADINGS[scenario].format(kind), entries)
                        for kind, entries in found.items())
        else:
            yield _figures(HEADINGS[scenario], found)


def _counts(results):
    def text(counted):
        return ", ".join([f"{sum(counted.values()):.2f}", *(f"{k} {v:g}" for k, v in
                                                            counted.items())])
    for what in ("system calls", "allocations"):
        yield table([f"a request's {what}", "server", "client"],
                    [[LABELS[name], text(entry["server"]), text(entry["client"])]
                     for name, entry in results[what].items()])


def render(results):
    """The whole report."""
    parts = [results["heading"]]
    parts += [f"Not measured: {name} is not installed." for name in results["missing"]]
    for name, scenarios in results["placements"].items():
        parts += _placement(name, scenarios)
    if "system calls" in results:
        parts += ["### Counts", *_counts(results)]
    if "pieces" in results:
        pieces = sorted(results["pieces"].items())
        parts += ["### Inside one process",
                  table(["piece", "ns"], [[name, f"{ns:.1f}"] for name, ns in pieces]),
                  table(["compiling", "s"], [[k, f"{v['median']:.2f}"] for k, v in
                                             results["compile time"].items()]),
                  "### The kernel's limits", textwrap.indent(results["limits"], "    ")]
    if "goals" in results:
        parts += ["### Goals", table(["what", "at most", "measured", "met"], results["goals"])]
    return "\n\n".join(parts) + "\n"
