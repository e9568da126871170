"""Counts the instructions of the library's hot paths and compares them with the figures that are
checked in. Instructions, unlike times, come out the same on a busy machine; they depend on the
compiler and on the C library, whose versions are in the file of figures."""

import argparse
import concurrent.futures
import json
import pathlib
import re
import subprocess
import sys

PATHS = ["server-request", "blocking-call", "asynchronous-send", "broadcast"]
MESSAGES = 2000
TOLERANCE = 0.03
FIGURES = pathlib.Path(__file__).with_name("figures.json")


def instructions(program, path, messages):
    """Of the whole run, start-up included."""
    done = subprocess.run(
        ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", program, path,
         str(messages)],
        # The same variants of memcpy and the like on every processor.
        env={"GLIBC_TUNABLES": "glibc.cpu.hwcaps=-AVX2,-AVX_Fast_Unaligned_Load,-ERMS"},
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    found = re.search(r"Collected : (\d+)", done.stderr)
    if done.returncode != 0 or not found:
        sys.exit(f"bench-guard: {path} has failed:\n{done.stderr}")
    return int(found[1])


def per_message(program, path):
    """What N messages more cost, start-up thus taken out."""
    once, twice = (instructions(program, path, n) for n in (MESSAGES, 2 * MESSAGES))
    return round((twice - once) / MESSAGES)


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
    parser.add_argument("--program", required=True)
    parser.add_argument("--compiler", default="g++")
    parser.add_argument("--update", action="store_true", help="check in what is measured now")
    options = parser.parse_args()

    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
        counts = pool.map(lambda path: per_message(options.program, path), PATHS)
    measured = dict(zip(PATHS, counts))
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
