"""What the tests do not reach of the libraries, from gcov's counts; see scripts/coverage. Branches
that only exceptions take are left out, as gcov marks them."""

import collections
import json
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]


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
            path = pathlib.Path(document["current_working_directory"], file["file"])
            if not path.is_relative_to(ROOT) or path.relative_to(ROOT).parts[0] not in ("Api",
                                                                                       "Kelvo"):
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


def listed(document):
    """The exceptions: (file, line or branch, text), from the rows of the document's table."""
    rows = re.findall(r"^\| `([^`]+)` \| (line|branch) \| `(.+?)` \| (.+) \|$",
                      document.read_text(), re.M)
    return {(file, what, text.replace(r"\|", "|")) for file, what, text, _ in rows}


def main():
    document, *folders = map(pathlib.Path, sys.argv[1:])
    totals, missing, files = collections.Counter(), collections.Counter(), {}
    for (file, number), functions in sorted(counts(folders).items()):
        text = files.setdefault(file, (ROOT / file).read_text().splitlines())[number - 1].strip()
        if text in ("}", "};", "{"):
            continue  # ends of scopes, which destructors are counted on
        ran, taken = reached(functions)
        totals["lines"] += 1
        totals["lines reached"] += ran
        totals["branches"] += len(taken)
        totals["branches reached"] += sum(taken)
        if not ran:
            missing[file, "line", text] += 1
        elif not all(taken):
            missing[file, "branch", text] += 1
    for what in ("lines", "branches"):
        part, whole = totals[f"{what} reached"], totals[what]
        print(f"{what}: {part} of {whole} reached, {100 * part / whole:.2f} %")
    known = listed(document)
    for file, what, text in sorted(set(missing) - known):
        print(f"Not reached, and not listed in {document}: {file}: {what} `{text}`")
    for file, what, text in sorted(known - set(missing)):
        print(f"Listed in {document}, and reached: {file}: {what} `{text}`")
    return 0 if set(missing) == known else 1


if __name__ == "__main__":
    sys.exit(main())
