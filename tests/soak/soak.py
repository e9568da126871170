"""Load and soak: many processes on the library, for minutes or hours. Prints what was found beside
what is allowed, and fails if that differs. scripts/soak builds the program that they run."""

import argparse
import dataclasses
import itertools
import json
import math
import os
import pathlib
import random
import resource
import sys
import tempfile
import time

from children import Child, Failure
import endurance
import load

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "bench/driver"))
from progress import Progress  # noqa: E402

SCENARIOS = {"broadcast": load.crowd, "burst": load.burst, "stopped-reader": load.stopped_reader,
             "flood": load.flood, "restarts": endurance.restarts,
             "services": endurance.services, "idle": endurance.idle, "mixed": endurance.mixed}
SABOTAGES = ("drop", "double", "leak", "descriptor", "wake", "late", "mute")  # of the servers


@dataclasses.dataclass(frozen=True)
class Form:
    """How much of each scenario to run: the full form, unless changed."""
    name: str = "full"
    subscribers: int = 1000
    broadcasts: int = 100000
    burst_clients: int = 500  # at once
    bursts: int = 120
    pairs: int = 150  # of rounds with and without a stopped reader
    paced_broadcasts: int = 200  # in each round
    stopped_reader_ratio: float = 1.1  # allowed
    flood_seconds: float = 40
    restarts: int = 200
    restart_clients: int = 50
    idle_connections: int = 200
    sessions: int = 1000  # of a service, one in ten of which does not read
    service_kills: int = 100
    service_seconds: float = 1  # from each kill to the next, at least
    idle_seconds: float = 60  # 0: not at all
    quiet_seconds: float = 1  # at the end of every other scenario
    mixed_seconds: float = 60  # at least
    patience: int = 120  # seconds for an answer


# Few samples of times, on a machine that does other things: a looser bound for their ratio.
CI = Form("ci", broadcasts=1500, bursts=4, pairs=20, paced_broadcasts=100,
          stopped_reader_ratio=1.5, flood_seconds=4, restarts=10, sessions=100, service_kills=5,
          idle_seconds=3, mixed_seconds=12)
# Shows that this program works; its times say nothing.
SHORT = Form("short", subscribers=20, broadcasts=900, burst_clients=50, bursts=2, pairs=1,
             paced_broadcasts=60, stopped_reader_ratio=math.inf, flood_seconds=0.4, restarts=1,
             restart_clients=20, sessions=20, service_kills=1, service_seconds=0.2,
             idle_seconds=0, quiet_seconds=0.2, mixed_seconds=0.4, patience=20)


def formatted(number):
    return f"{number:,.0f}" if number == round(number) or abs(number) >= 100 else f"{number:,.2f}"


class Rows:
    """The figures of one scenario."""

    def __init__(self, scenario):
        self.scenario = scenario
        self.all = []

    def note(self, what, figure, unit="", note="", allowed="-", good=True):
        self.all.append({"scenario": self.scenario, "what": what, "figure": figure, "unit": unit,
                         "allowed": allowed, "note": note,
                         "verdict": "-" if allowed == "-" else "ok" if good else "BAD"})

    def exactly(self, what, figure, bound, note=""):
        self.note(what, figure, "", note, formatted(bound), figure == bound)

    def at_most(self, what, figure, unit, bound, note=""):
        allowed = "-" if bound == math.inf else f"at most {formatted(bound)}"
        self.note(what, figure, unit, note, allowed, figure <= bound)

    def at_least(self, what, figure, bound, note=""):
        self.note(what, figure, "", note, f"at least {formatted(bound)}", figure >= bound)

    def in_full_form(self, what, figure, wanted, full):
        self.at_least(what, figure, wanted,
                      "" if wanted == full else f"{formatted(full)} in the full form")

    def memory(self, who, before, after):
        """1 % more than after the warm-up are allowed, or 128 kB if that is more. Small processes
        are smaller than the reserves of the C library."""
        was = before["kilobytes"]
        self.at_most(f"memory gained by the {who}", after["kilobytes"] - was, "kB",
                     max(was // 100, 128), f"from {formatted(was)} kB")

    def heap(self, who, before, after):
        """Likewise, what it has allocated and not freed. The C library's caches are in use."""
        if before["heap"] is not None:
            was = before["heap"] / 1024
            self.at_most(f"heap in use gained by the {who}", after["heap"] / 1024 - was, "kB",
                         max(was // 100, 64), f"from {formatted(was)} kB")

    def descriptors(self, who, before, after):
        self.exactly(f"descriptors of the {who}", after["descriptors"], before["descriptors"])

    def delivery(self, figures):
        self.exactly("notifications lost", figures["lost"], 0,
                     f"of {formatted(figures['received'])} received")
        self.exactly("notifications doubled or out of order", figures["doubled"], 0)
        self.exactly("wrong replies", figures["wrong"], 0)


class Run:
    """What the scenarios need, and what they have found."""

    def __init__(self, options):
        self.program, self.sabotage = options.program, options.sabotage
        self.seed, self.steps = options.seed, options.steps
        self.form = SHORT if options.short else CI if options.ci else Form()
        if self.sabotage == "mute":  # or what waits for the answer would take its time
            self.form = dataclasses.replace(self.form, patience=2)
        self.random = random.Random(self.seed)
        self.end = time.monotonic() + 60 * options.minutes
        self.work = tempfile.TemporaryDirectory(prefix="soak-")
        self.log = tempfile.TemporaryFile()  # what nobody expects of the children's
        self.rows = []
        self._numbers = itertools.count(1)
        self._children = []
        self._progress = None

    def fresh_name(self):
        return f"tovik-soak-{os.getpid()}-{next(self._numbers)}"

    def start(self, role, who=None, **setup):
        child = Child(self.program, role, who or role, self.form.patience, self.log,
                      setup)
        self._children.append(child)
        return child

    def server(self, name, run=1, padding=0):
        return self.start("server", name=name, run=run, padding=padding, sabotage=self.sabotage)

    def clients(self, who, name, subscribers, callers=0, interval=3600):
        return self.start("clients", who, name=name, subscribers=subscribers, callers=callers,
                          interval=interval)

    def progress(self, done, of):
        self._progress.at(f"{formatted(done)} of {formatted(of)}", min(1, done / of))

    def play(self, names):
        self._progress = Progress(len(names))
        for name in names:
            self._progress.step(name)
            rows = Rows(name)
            try:
                SCENARIOS[name](self, rows)
            except (Failure, OSError) as failure:
                rows.exactly("failures", 1, 0, str(failure))
            finally:
                for child in self._children:
                    child.kill()
                self._children.clear()
            self.rows += rows.all
            self._progress.finish_step()
        self._progress.end()
        self.log.seek(0)
        lines = self.log.read().decode(errors="replace").splitlines()
        print("\n".join(lines[:10]), end="\n" if lines else "", file=sys.stderr)
        rows = Rows("all")
        rows.exactly("log lines nobody expects", len(lines), 0)
        self.rows += rows.all


def print_table(rows):
    columns = {"scenario": 14, "what": 63, "figure": 18, "allowed": 18, "verdict": 7, "note": 0}
    for row in [dict(zip(columns, columns)), *rows]:
        if "unit" in row:
            row = {**row, "figure": f"{formatted(row['figure'])} {row['unit']}"}
        print("  ".join(row[name].ljust(width) for name, width in columns.items()).rstrip())


def options():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--program", required=True, help="the one of the processes")
    parser.add_argument("--minutes", type=float, default=0,
                        help="mixed traffic fills the time that is left of these")
    parser.add_argument("--ci", action="store_true", help="less of everything")
    parser.add_argument("--short", action="store_true", help="enough for a test of this program")
    parser.add_argument("--only", choices=SCENARIOS, help="one scenario")
    parser.add_argument("--seed", type=int, default=random.randrange(2**32),
                        help="of the random steps")
    parser.add_argument("--steps", type=int, help="ends mixed traffic after so many")
    parser.add_argument("--json", type=pathlib.Path, help="where to write the table, too")
    parser.add_argument("--sabotage", choices=SABOTAGES, default="", help=argparse.SUPPRESS)
    return parser.parse_args()


def main():
    chosen = options()
    run = Run(chosen)
    # A thousand connections take more descriptors than many systems give at first.
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    print(f"Form {run.form.name}, seed {run.seed}", flush=True)
    run.play([chosen.only] if chosen.only else list(SCENARIOS))

    print_table(run.rows)
    good = all(row["verdict"] != "BAD" for row in run.rows)
    print("All figures are as they should be." if good else "Some figures are BAD.")
    if chosen.json:
        chosen.json.write_text(json.dumps({"form": run.form.name, "seed": run.seed, "good": good,
                                           "rows": run.rows}, indent=1) + "\n")
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
