"""Runs a cross build's tests, and holds what fails against tests/emulated."""

import collections
import os
import pathlib
import re
import subprocess
import xml.etree.ElementTree

LIST = pathlib.Path(__file__).resolve().parents[1] / "emulated"
# What starts compilers, brokers, or the programs as commands.
LEFT_OUT = "^(Package|adapters|docs|faults|fuzz|model|mqtt|python|soak|tool)[.]|^model$|_NOT_BUILT$"

Entry = collections.namedtuple("Entry", "pattern architectures how why")


def listed(arch, emulated):
    for line in LIST.read_text().splitlines():
        if line and not line.startswith("#"):
            entry = Entry(*line.split(None, 3))
            if entry.how not in ("always", "sometimes"):
                raise SystemExit(f"tests/emulated: neither 'always' nor 'sometimes': {line}")
            if arch in entry.architectures.split(",") or emulated and entry.architectures == "all":
                yield entry


def results(build, emulated, *which):
    """Which tests have passed and failed."""
    environment = dict(os.environ)
    if emulated:  # where a program cannot execute itself
        environment["GTEST_DEATH_TEST_STYLE"] = "fast"
    with open(build / "tests.log", "w") as log:
        subprocess.run(["ctest", "--test-dir", build, "--output-junit", build / "tests.xml",
                        "--output-on-failure", *which], stdout=log, env=environment)
    of = collections.defaultdict(set)
    for case in xml.etree.ElementTree.parse(build / "tests.xml").getroot():
        of[case.get("status")].add(case.get("name"))
    return of["run"], of["fail"]


def test(build, arch, emulated, whole, jobs):
    """Whether everything is as listed, and each name in the list that of a test, if `whole`."""
    passed, failed = results(build, emulated, "-E", LEFT_OUT, "--parallel", jobs)
    faults, explained = [], set()
    for entry in listed(arch, emulated):
        hits = {test for test in passed | failed if re.fullmatch(entry.pattern, test)}
        explained |= hits
        if whole and not hits:
            faults.append(f"{entry.pattern} is in tests/emulated and the name of no test")
        if entry.how == "always":
            faults += (f"{test} has passed: take it out of tests/emulated, or call it 'sometimes'"
                       for test in sorted(hits & passed))
    unexplained = failed - explained
    if unexplained:  # perhaps for want of time
        print("== Once more, alone:", *sorted(unexplained), flush=True)
        names = "|".join(map(re.escape, unexplained))
        unexplained = results(build, emulated, "-R", f"^({names})$")[1]
    faults += (f"{test} has failed, see {build}/tests.log" for test in sorted(unexplained))
    print(f"== {len(passed)} tests have passed, {len(failed & explained)} cannot")
    for fault in faults:
        print(fault, flush=True)
    return bool(passed) and not faults
