#!/usr/bin/env python3
"""Runs transcripts: what a user types, and what the command has to say to that.

    # a comment
    $ COMMAND          run in bash; then the expected output:
    text               a line on standard output
    ! text             a line on standard error
    = N                the exit status, unless 0
    % COMMAND          the same on a terminal, with escape sequences shown as ^[
    & COMMAND          in the background, once it has written a line to standard error
    > text             a line to the background command's standard input
    ^C                 interrupts it; then its output as above
    ^.                 waits for its end instead

"@x" stands for a server name of this run, "@@" for what all of them begin with, "<*>" for any text
in one line.
"""

import contextlib
import os
import re
import signal
import subprocess
import sys
import tempfile

import programs


class Expectation:
    def __init__(self, number, kind, command):
        self.number, self.kind, self.command = number, kind, command
        self.out, self.err, self.status = [], [], 0


def parse(path):
    steps = []
    with open(path, encoding="utf-8") as lines:
        for number, line in enumerate(lines, 1):
            line = line.rstrip("\n")
            if line.startswith(("$ ", "% ", "& ", "> ")):
                steps.append(Expectation(number, line[0], line[2:]))
            elif line in ("^C", "^."):
                steps.append(Expectation(number, line, ""))
            elif line.startswith("! "):
                steps[-1].err.append(line[2:])
            elif line.startswith("= "):
                steps[-1].status = int(line[2:])
            elif line and not line.startswith("#"):
                steps[-1].out.append(line)
    return steps


class Run(contextlib.ExitStack):
    """What programs belong to, as they do to the cases of other tests."""

    addCleanup = contextlib.ExitStack.callback

    def __init__(self, path):
        super().__init__()
        self.path = path
        self.background = []
        self.names = {}
        self.folder = self.enter_context(tempfile.TemporaryDirectory())

    def expand(self, text):
        def name(match):
            return self.names.setdefault(match.group(0), programs.unique_name(match.group(1)))
        return re.sub(r"@([a-z]+)", name, text.replace("@@", programs.PREFIX))

    def shown(self, data):
        text = data.decode("utf-8", "replace").replace("\r\n", "\n").replace("\r", "^M")
        for token, name in self.names.items():
            text = text.replace(name, token)
        return text.replace("\x1b", "^[").split("\n")

    def compare(self, step, what, expected, got):
        if got and got[-1] == "":
            got.pop()
        pattern = "\n".join(expected)
        pattern = re.escape(pattern).replace(re.escape("<*>"), "[^\n]*")
        # Blank lines cannot be expected in a transcript, so they are not compared.
        text = "\n".join(line for line in got if line)
        if not re.fullmatch(pattern, text):
            raise AssertionError(
                f"{self.path}:{step.number}: {what} of: {step.kind} {step.command}\n"
                f"--- expected\n" + "\n".join(expected) + "\n--- got\n" + "\n".join(got))

    def check(self, step, program, status):
        self.compare(step, "standard error", step.err, self.shown(program.stderr()))
        self.compare(step, "standard output", step.out, self.shown(program.stdout()))
        if status != step.status:
            raise AssertionError(f"{self.path}:{step.number}: exit status {status}, "
                                 f"not {step.status}, of: {step.command}")

    def run(self, step):
        if step.kind in "$%":
            program = programs.Program(self, self.expand(step.command), terminal=step.kind == "%",
                                       cwd=self.folder, stdin=subprocess.DEVNULL)
            self.check(step, program, program.end())
        elif step.kind == "&":
            program = programs.Program(self, "exec " + self.expand(step.command), cwd=self.folder)
            self.background.append(program)
            program.says("\n")
        elif step.kind == ">":
            self.background[-1].write(self.expand(step.command).encode() + b"\n")
        else:
            program = self.background.pop()
            self.check(step, program, program.interrupt() if step.kind == "^C" else program.end())


def main():
    # Commands look at what is ignored, which is whatever a shell in the background and nohup left.
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT):
        if signal.getsignal(number) == signal.SIG_IGN:
            signal.signal(number, signal.SIG_DFL)
    for path in sys.argv[1:]:
        with Run(path) as run:
            try:
                for step in parse(path):
                    run.run(step)
                assert not run.background, f"{path}: some background command was never ended"
            except AssertionError as error:
                sys.exit(str(error))
        print(f"{os.path.basename(path)}: as expected")


if __name__ == "__main__":
    main()
