"""The tables, as Markdown that also reads well on a terminal."""

import textwrap

from goals import ratio
from programs import CONTESTANTS, BASELINE

LABELS = {c.name: c.label for c in CONTESTANTS}


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


def _against_baseline(heading, entries, key, others=()):
    baseline = entries[BASELINE][key]["median"]
    rows = [[LABELS[name], spread(entry[key]), f"{entry[key]['median'] / baseline:.2f}",
             *[spread(entry[other]) for other in others]] for name, entry in entries.items()]
    return table([heading, key.replace("_", " "), "of baseline (iii)",
                  *[other.replace("_", " ") for other in others]], rows)


def _start_up(entries):
    return _against_baseline("start of a client's program to its first reply, us", entries,
                             "elapsed")


BRIDGED = {"round trip": ("latency", "MQTT by hand", "Tovik across both bridges"),
           "one call": ("elapsed", "mosquitto_rr", "tovik call across both bridges"),
           "event": ("cpu", "mosquitto_pub and mosquitto_sub", "both bridges")}


def _across_bridges(kind, entries):
    key, by_hand, bridged = BRIDGED[kind]

    def figure(name):
        return entries[name][key].get("p50", entries[name][key])
    return table([f"{kind}, us", key, f"of {by_hand}"],
                 [[label, spread(figure(name)), f"{ratio(figure(name), figure('mqtt')):.2f}"]
                  for name, label in (("mqtt", by_hand), ("bridged", bridged))])


def _placement(name, scenarios):
    yield f"### {name.capitalize()}"
    if "round trip" in scenarios:
        yield _round_trip(scenarios["round trip"])
    if "one-way stream" in scenarios:
        yield _against_baseline("one-way, us a message", scenarios["one-way stream"], "server_cpu",
                             ["elapsed"])
        if "zeromq" in scenarios["one-way stream"]:
            yield ("ZeroMQ is ahead of any system that writes each message by itself: it gathers "
                   "what is waiting into few, large writes.")
    for number, entries in scenarios.get("broadcast", {}).items():
        yield _against_baseline(f"broadcast to {number}, us a subscriber", entries, "server_cpu")
    for number, entries in scenarios.get("idle", {}).items():
        trips = {n: {"p50": e["latency"]["p50"], "server_cpu": e["server_cpu"]}
                 for n, e in entries.items()}
        memory = ", ".join(f"{LABELS[n]} {e['bytes_per_connection']:.0f}"
                           for n, e in entries.items() if e["bytes_per_connection"] is not None)
        yield _against_baseline(f"1 active among {number} idle, us", trips, "p50", ["server_cpu"])
        if memory:
            yield f"Bytes of an idle connection: {memory}."
    for kind, entries in scenarios.get("admission", {}).items():
        yield _against_baseline(f"admission: {kind}, us a client", entries, "elapsed",
                                ["server_cpu"])
    for number, entries in scenarios.get("calls in flight", {}).items():
        yield table([f"{number} calls in flight, answered in random order", "us a call"],
                    [[LABELS[n], spread(entry["elapsed"])] for n, entry in entries.items()])
    for kind, entries in scenarios.get("across bridges", {}).items():
        yield _across_bridges(kind, entries)
    if "start-up" in scenarios:
        yield _start_up(scenarios["start-up"])


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
