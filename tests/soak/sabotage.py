"""Lets the soak program meet servers with faults: it has to find just what each fault spoils."""

import json
import subprocess
import sys

# Fault, scenario, and the figures that have to be bad.
FAULTS = [
    ("drop", "broadcast", {"notifications lost", "notifications received"}),
    ("double", "broadcast",
     {"notifications doubled or out of order", "notifications received"}),
    ("leak", "broadcast",
     {"memory gained by the server", "heap in use gained by the server"}),
    ("descriptor", "broadcast", {"descriptors of the server"}),
    ("wake", "broadcast", {"wake-ups while idle"}),
    ("late", "restarts", {"until all are back, longest"}),
    ("mute", "flood", {"failures"}),
    ("drop", "services", {"events left out"}),
    ("double", "services", {"events doubled"}),
    ("mute", "services", {"calls timed out or refused"}),
]


def bad_figures(program, results, fault, scenario):
    """What the program calls bad."""
    run = subprocess.run([program, "--short", "--only", scenario, "--sabotage", fault,
                          "--json", results], stdout=subprocess.PIPE, text=True, check=False)
    with open(results, encoding="ascii") as file:
        rows = json.load(file)["rows"]
    bad = {row["what"] for row in rows if row["verdict"] == "BAD"}
    if run.returncode != (1 if bad else 0):
        sys.exit(f"{fault}: status {run.returncode}\n{run.stdout}")
    return bad


def main():
    program, results = sys.argv[1:]
    for fault, scenario, expected in FAULTS:
        bad = bad_figures(program, results, fault, scenario)
        if bad != expected:
            sys.exit(f"{fault}: bad are {sorted(bad)} and not {sorted(expected)}")
        print(f"{fault}: noticed")


main()
