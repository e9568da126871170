"""Compares the libraries' binary interface with its description in tests/package/abi.

    abi.py check HEADERS LIBRARY...       shows what differs, and fails if anything does
    abi.py describe HEADERS LIBRARY...    writes the descriptions anew

HEADERS is the folder of the installed headers. The libraries need debugging information."""

import pathlib
import subprocess
import sys
import tempfile

FOLDER = pathlib.Path(__file__).resolve().parent / "abi"
SOURCE = FOLDER.parents[2]


def description(headers, library):
    """As XML, with nothing in it of where this was built."""
    text = subprocess.run(
        ["abidw", "--headers-dir", headers, "--drop-private-types", "--exported-interfaces-only",
         "--suppressions", FOLDER / "others.ini", "--no-parameter-names", "--drop-undefined-syms",
         "--no-show-locs", "--no-corpus-path", "--no-comp-dir-path", "--type-id-style", "hash",
         pathlib.Path(library).resolve()], check=True, stdout=subprocess.PIPE, text=True).stdout
    return text.replace(f"path='{SOURCE}/", "path='")


def described(library):
    return FOLDER / (pathlib.Path(library).name.partition(".so")[0] + ".xml")


def difference(headers, library):
    """What abidiff says; nothing if there is no difference."""
    with tempfile.NamedTemporaryFile("w", suffix=".xml") as now:
        now.write(description(headers, library))
        now.flush()
        done = subprocess.run(["abidiff", described(library), now.name], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True)
    if done.returncode & 3:  # it could not compare
        sys.exit(done.stdout)
    return done.stdout if done.returncode else ""


def main():
    _program, mode, headers, *libraries = sys.argv
    if mode == "describe":
        for library in libraries:
            described(library).write_text(description(headers, library))
        return
    found = [difference(headers, library) for library in libraries]
    if any(found):
        sys.exit("".join(found) +
                 "The binary interface has changed; docs/packages.md says what that asks for.")


if __name__ == "__main__":
    main()
