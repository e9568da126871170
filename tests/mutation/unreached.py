"""What the tests do not reach of the libraries, from gcov's counts; see scripts/coverage. Branches
that only exceptions take are left out, as gcov marks them."""

import collections
import json
import pathlib
import re
import subprocess
import sys

import mutants

ROOT = pathlib.Path(__file__).resolve().parents[2]
LIST = ROOT / "tests/mutation/unreached"
# The service layer has no list yet, and adapters take their hosts.
COVERED = re.compile(r"Kelvo/(?!Adapters/)|Api/(?!Service/)")


def counts(folders):
    """For each line, for each function on it: how often it ran, and each of its branches. A
    function may be compiled into several programs, and a line be part of several instances of a
    template."""
    lines = collections.defaultdict(dict)
    data = [str(path) for folder in folders for path in folder.rglob("*.gcda")]
    output = subprocess.run(["gcov", "--branch-probabilities", "--json-format", "--stdout", *data],
                            capture_output=True, text=True, check=True, cwd=ROOT).stdout
    for document in map(json.loads, filter(None, output.splitlines())):
        for file in document["files"]:
            path = pathlib.Path(document["current_working_directory"], file["file"]).resolve()
            if not path.is_relative_to(ROOT) or not COVERED.match(str(path.relative_to(ROOT))):
                continue
            for line in file["lines"]:
                where = (str(path.relative_to(ROOT)), line["line_number"])
                branches = [x["count"] for x in line["branches"] if not x["throw"]]
                known = lines[where].setdefault(line.get("function_name"), [0, branches])
                known[0] += line["count"]
                if known[1] is not branches and len(known[1]) == len(branches):
                    known[1] = [a + b for a, b in zip(known[1], branches)]
    return lines


def reached(functions):
    """Whether the line was, and which of its branches: those that any instance has taken."""
    ran = sum(count for count, _ in functions.values())
    widths = collections.defaultdict(list)
    for count, branches in functions.values():
        if count > 0 and len(branches) > 1:
            widths[len(branches)].append(branches)
    taken = [sum(each) > 0 for group in widths.values() for each in zip(*group)]
    return ran > 0, taken


def listed():
    """How many there may be of each (file, function, line or branch), from the list."""
    known, file = {}, ""
    for row in LIST.read_text().splitlines():
        if row.startswith("  "):
            function, at_most, number, what, _reason = re.fullmatch(
                r"  (\S+): (up to )?(\d+) (line|branch): (.+)", row).groups()
            known[file, function, what] = range(0 if at_most else int(number), int(number) + 1)
        elif row and not row.startswith("#"):
            file = row
    return known


def main():
    totals, missing, files = collections.Counter(), collections.defaultdict(list), {}
    for (file, number), functions in sorted(counts(map(pathlib.Path, sys.argv[1:])).items()):
        if file not in files:
            files[file] = mutants.Source(file, (ROOT / file).read_text())
        lines = files[file].text.splitlines(keepends=True)
        text = lines[number - 1].strip()
        if text in ("}", "};", "{"):
            continue  # ends of scopes, which destructors are counted on
        ran, taken = reached(functions)
        totals["lines"] += 1
        totals["lines reached"] += ran
        totals["branches"] += len(taken)
        totals["branches reached"] += sum(taken)
        if not ran or not all(taken):
            function = files[file].function_at(sum(map(len, lines[:number])) - 1)
            missing[file, function, "branch" if ran else "line"].append(f"{number}: {text}")
    for what in ("lines", "branches"):
        part, whole = totals[f"{what} reached"], totals[what]
        print(f"{what}: {part} of {whole} reached, {100 * part / whole:.2f} %")
    known = listed()
    differ = [entry for entry in sorted({*missing, *known})
              if len(missing[entry]) not in known.get(entry, range(1))]
    for entry in differ:
        listed_number = known.get(entry, range(1))[-1]
        print(f"{len(missing[entry])} not reached, {listed_number} in {LIST}: {entry}",
              *missing[entry], sep="\n  ")
    return 1 if differ else 0


if __name__ == "__main__":
    sys.exit(main())
