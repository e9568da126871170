"""Counts the instructions of the library's hot paths and compares them with the figures that are
checked in. Instructions, unlike times, come out the same on a busy machine; they depend on the
compiler and on the C library, whose versions are in the file of figures."""

import argparse
import json
import os
import pathlib
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "driver"))
import counts  # noqa: E402
from programs import ASYNC, BASELINE, SUBJECT, Programs  # noqa: E402
from progress import Progress  # noqa: E402
from scenarios import Bench, Sizes  # noqa: E402

SUBSCRIBERS = 100
TOLERANCE = 0.03
FIGURES = pathlib.Path(__file__).with_name("figures.json")
# The same variants of memcpy and the like on every processor.
TUNABLES = {"GLIBC_TUNABLES": "glibc.cpu.hwcaps=-AVX2,-AVX_Fast_Unaligned_Load,-ERMS"}


def measure(programs):
    """Instructions of a message by path, and in the baseline's server for comparison."""
    bench = Bench(programs, Sizes(quick=False), Progress(1), [])
    calls = counts.instructions(bench, bench.pick(SUBJECT, ASYNC, BASELINE))
    subject, = bench.pick(SUBJECT)
    told = counts.broadcast_instructions(bench, subject, SUBSCRIBERS)
    paths = {"server-request": calls[SUBJECT]["server"], "blocking-call": calls[SUBJECT]["client"],
             "asynchronous-call": calls[ASYNC]["client"], "broadcast": told / SUBSCRIBERS}
    print(f"the baseline's server takes {calls[BASELINE]['server']:.0f} a request")
    return {path: round(count) for path, count in paths.items()}


def version(command):
    done = subprocess.run([command, "--version"], stdout=subprocess.PIPE, check=True, text=True)
    return done.stdout.splitlines()[0]


def compare(measured, expected):
    """Prints a table; true if no path takes more than is tolerated."""
    print(f"{'instructions a message':24}{'expected':>10}{'measured':>10}{'change':>10}")
    good = True
    for path, count in measured.items():
        change = count / expected[path] - 1
        verdict = ""
        if change > TOLERANCE:
            good, verdict = False, "  too many"
        elif change < -TOLERANCE:
            verdict = "  fewer: run with --update, and commit"
        print(f"{path:24}{expected[path]:10}{count:10}{change:+10.1%}{verdict}")
    return good


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True, help="the build folder")
    parser.add_argument("--compiler", default="g++")
    parser.add_argument("--update", action="store_true", help="check in what is measured now")
    options = parser.parse_args()

    os.environ.update(TUNABLES)
    with Programs(options.build) as programs:
        measured = measure(programs)
    tools = {"compiler": version(options.compiler), "C library": version("ldd")}
    if options.update:
        FIGURES.write_text(json.dumps({"tools": tools, "instructions": measured}, indent=2) + "\n")
        print(f"bench-guard: {FIGURES} is updated")
        return
    figures = json.loads(FIGURES.read_text())
    if figures["tools"] != tools:
        print(f"bench-guard: the figures are those of {figures['tools']}, and these are {tools}; "
              "a difference may be theirs")
    if not compare(measured, figures["instructions"]):
        sys.exit("bench-guard: a hot path takes more instructions; see docs/performance.md")


if __name__ == "__main__":
    main()
