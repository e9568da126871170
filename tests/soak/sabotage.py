"""Lets the soak meet servers with faults: it has to find just what each fault spoils."""

import pathlib
import json
import subprocess
import sys
import tempfile

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


def bad_figures(fault, scenario):
    with tempfile.NamedTemporaryFile() as file:
        run = subprocess.run([sys.executable, "-B", pathlib.Path(__file__).with_name("soak.py"),
                              *sys.argv[1:], "--only", scenario, "--sabotage", fault,
                              "--json", file.name], stdout=subprocess.PIPE, text=True)
        rows = json.load(file)["rows"]
    bad = {row["what"] for row in rows if row["verdict"] == "BAD"}
    if run.returncode != (1 if bad else 0):
        sys.exit(f"{fault}: status {run.returncode}\n{run.stdout}")
    return bad


for fault, scenario, expected in FAULTS:
    bad = bad_figures(fault, scenario)
    if bad != expected:
        sys.exit(f"{fault}: bad are {sorted(bad)} and not {sorted(expected)}")
    print(f"{fault}: noticed")
