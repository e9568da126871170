"""Lets the soak meet servers with faults: it has to find just what each fault spoils."""

import concurrent.futures
import json
import pathlib
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
        return {f"status {run.returncode}: {run.stdout}"}
    return bad


def complaint(fault, scenario, expected):
    bad = bad_figures(fault, scenario)
    return "" if bad == expected else f"{fault}: bad are {sorted(bad)} and not {sorted(expected)}"


with concurrent.futures.ThreadPoolExecutor(3) as pool:  # since most of it is waiting
    complaints = list(filter(None, pool.map(lambda row: complaint(*row), FAULTS)))
sys.exit("\n".join(complaints) or 0)
