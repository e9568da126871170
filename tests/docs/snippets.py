"""Runs a guide as its reader would: writes the files it shows, types its commands, compares.

Every fenced block has a part in that, told by an HTML comment on the line before it:

    <!-- file: NAME -->      the block is the content of a file; headers are compiled by themselves
                             and units verified
    <!-- terminal: NAME -->  the block is what happens in that terminal, "first" without a comment

What happens in a terminal is a `console` block. "$ " begins a command, "> " its further lines, "^C"
interrupts, and the other lines are what is printed; "…" stands for any text in a line, and alone
for any lines. A block that begins with output shows what a running command has printed since.
Commands have to succeed, unless `echo $?` comes next. After the terminal's name may stand

    , goes on                the last command is left running, at most until the page ends
    , among others           other lines may be printed besides those that are shown
    , other numbers          digits stand for any others
    , if COMMAND             the block is for where that command succeeds

`<!-- figures: PAGE -->` promises that figures with a decimal point come from that page.
`<!-- names: lamp -->` lists words that get a number of this run's appended, everywhere in the page,
so that runs may overlap.
"""

import argparse
import codecs
import contextlib
import os
import pathlib
import pty
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import termios
import time

SOURCE = pathlib.Path(__file__).resolve().parents[2]
START = 30  # seconds for a shell to start
LIMIT = 60  # seconds for anything else to happen; nothing takes three but on a loaded machine
PROMPT = re.compile("\x1e(\\d+)\x1e\\Z")


class Failure(Exception):
    pass


class Block:
    def __init__(self, line, mark, language, text):
        self.line, self.language, self.text = line, language, text
        self.kind, _colon, rest = (mark or "terminal: first").partition(":")
        self.name, *more = [word.strip() for word in rest.split(",")]
        self.goes_on = "goes on" in more
        self.among_others = "among others" in more
        self.other_numbers = "other numbers" in more
        self.needs = [word[3:] for word in more if word.startswith("if ")]
        if (self.kind not in ("file", "terminal")
                or len(more) != (self.goes_on + self.among_others + self.other_numbers
                                 + len(self.needs))
                or (self.kind == "terminal") != (language == "console")):
            raise Failure(f"line {line}: nobody knows what to do with this block")


def blocks(text):
    """The fenced blocks of a page, each with its mark."""
    pattern = re.compile(r"(?:^<!-- ([^\n]*?) -->\n)?^```(\w*)\n(.*?)^```$", re.S | re.M)
    found = [Block(text.count("\n", 0, match.start(2)) + 1, *match.groups())
             for match in pattern.finditer(text)]
    if 2 * len(found) != len(re.findall(r"^```", text, re.M)):
        raise Failure("a fenced block does not end")
    return found


def steps(block):
    """Pairs of a command, or nothing, and the lines that it prints."""
    result = []
    for line in block.text.splitlines():
        if line.startswith("$ "):
            result.append((line[2:], []))
        elif line.startswith("> ") and result and not result[-1][1]:
            result[-1] = (result[-1][0] + "\n" + line[2:], [])
        elif line == "^C":
            result.append((line, []))
        else:
            if not result:
                result.append((None, []))
            result[-1][1].append(line)
    return result


def fits(expected, printed, block):
    """Blank lines do not count: a terminal adds some of its own."""
    between = "(?:[^\n]*\n)*" if block.among_others else ""
    pattern = between
    for line in filter(None, expected):
        if line == "…":
            pattern += "(?:[^\n]*\n)*"
        else:
            line = re.escape(line).replace("…", "[^\n]*") + "\n" + between
            pattern += re.sub(r"\d+", r"\\d+", line) if block.other_numbers else line
    return re.fullmatch(pattern, "".join(line + "\n" for line in printed.split("\n") if line))


class Terminal:
    """A shell on a pseudo-terminal that echoes nothing."""

    def __init__(self, folder, environment):
        self.printed = ""
        self.last = 0
        self.decoder = codecs.getincrementaldecoder("utf-8")("replace")
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            self._become_shell(folder, environment)
        self.wait("its first prompt", self.status, START)
        self.printed = ""

    @staticmethod
    def _become_shell(folder, environment):
        try:
            modes = termios.tcgetattr(0)
            modes[1] &= ~termios.OPOST
            modes[3] &= ~termios.ECHO
            termios.tcsetattr(0, termios.TCSANOW, modes)
            os.chdir(folder)
            os.execve("/bin/bash", ["bash", "--noprofile", "--norc", "--noediting", "+H", "-i"],
                      {**environment, "PS1": "\x1e$?\x1e", "PS2": "", "TERM": "dumb"})
        finally:
            os._exit(127)

    def close(self):
        """Ends the shell and what it runs, by their numbers."""
        group = os.tcgetpgrp(self.fd)
        if group != self.pid:
            with contextlib.suppress(ProcessLookupError):  # it has just ended by itself
                os.killpg(group, signal.SIGKILL)
        os.kill(self.pid, signal.SIGHUP)  # the shell passes it on to what is in the background
        os.close(self.fd)
        deadline = time.monotonic() + 5
        while os.waitpid(self.pid, os.WNOHANG) == (0, 0):
            if time.monotonic() > deadline:
                os.kill(self.pid, signal.SIGKILL)
            time.sleep(0.005)

    def write(self, text):
        os.write(self.fd, text.encode())

    def status(self):
        """The last command's, once the shell prompts again."""
        prompt = PROMPT.search(self.printed)
        return prompt and int(prompt.group(1))

    def wait(self, what, condition, limit=None):
        """Reads on until the condition yields something other than None."""
        limit = limit or LIMIT
        deadline = time.monotonic() + limit
        while condition() is None:
            if not select.select([self.fd], [], [], max(0, deadline - time.monotonic()))[0]:
                raise Failure(f"in {limit} s there was not {what}, but:\n{self.printed!r}")
            try:
                self.printed += self.decoder.decode(os.read(self.fd, 65536))
            except OSError:
                raise Failure("the terminal has closed") from None
        return condition()

    def take(self):
        printed, self.printed = PROMPT.sub("", self.printed), ""
        return printed


class Guide:
    def __init__(self, page, folder, environment):
        self.page = pathlib.Path(page)
        self.text = self.page.read_text()
        self.folder, self.environment = folder, environment
        self.terminals = {}
        listed = re.search(r"^<!-- names: (.*) -->$", self.text, re.M)
        self.names = {name: f"{name}-{os.getpid()}" for name in listed.group(1).split()} \
            if listed else {}

    def close(self):
        for terminal in self.terminals.values():
            terminal.close()

    def ours(self, text):
        for name, own in self.names.items():
            text = re.sub(rf"\b{name}\b", own, text)
        return text

    def theirs(self, text):
        for name, own in self.names.items():
            text = text.replace(own, name)
        return text

    def terminal(self, name):
        if name not in self.terminals:
            self.terminals[name] = Terminal(self.folder, self.environment)
        return self.terminals[name]

    def run(self):
        self.check_figures()
        for block in blocks(self.text):
            try:
                if all(self.works(command) for command in block.needs):
                    getattr(self, "do_" + block.kind)(block)
            except Failure as failure:
                raise Failure(f"line {block.line}: {failure}") from failure

    def check_figures(self):
        """Those with a decimal point are quoted from another page."""
        source = re.search(r"^<!-- figures: (.*) -->$", self.text, re.M)
        if source:
            known = re.findall(r"\d+\.\d+", (self.page.parent / source.group(1)).read_text())
            strange = set(re.findall(r"\d+\.\d+", self.text)) - set(known)
            if strange:
                raise Failure(f"not in {source.group(1)}: {', '.join(sorted(strange))}")

    def works(self, command):
        result = subprocess.run(command, shell=True, env=self.environment, capture_output=True)
        if result.returncode != 0:
            print(f"not run, for want of: {command}")
        return result.returncode == 0

    def do_file(self, block):
        path = self.folder / self.ours(block.name)
        path.write_text(self.ours(block.text))
        if path.suffix == ".service":
            verify_unit(path)
        elif path.suffix == ".h":
            self.compile_alone(path)

    def compile_alone(self, path):
        flags = subprocess.check_output(["pkg-config", "--cflags", "tovik"], text=True,
                                        env=self.environment).split()
        result = subprocess.run([self.environment["CXX"], "-fsyntax-only", "-x", "c++", *flags,
                                 str(path)], env=self.environment, text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        if result.returncode != 0:
            raise Failure(f"it does not compile by itself:\n{result.stdout}")

    def do_terminal(self, block):
        terminal = self.terminal(block.name)
        todo = steps(block)
        following = [command for command, _printed in todo[1:]] + [None]
        for (command, expected), then in zip(todo, following):
            last = then is None
            goes_on = then == "^C" or (last and block.goes_on)
            if command is not None:
                terminal.write("\x03" if command == "^C" else self.ours(command) + "\n")
            self.compare(terminal, command, expected, goes_on, block)
            interrupted = command == "^C" and terminal.last == 130
            if not goes_on and terminal.last != 0 and not interrupted and then != "echo $?":
                raise Failure(f"status {terminal.last} of: {command}")

    def compare(self, terminal, command, expected, goes_on, block):
        def as_expected():
            return fits(expected, self.theirs(terminal.printed), block) and True

        what = "\n".join([f"what {command or 'the command that runs'} prints:", *expected])
        if goes_on:
            terminal.wait(what, as_expected)
        else:
            terminal.last = terminal.wait("an end of: " + what, terminal.status)
        printed = self.theirs(terminal.take())
        if not fits(expected, printed, block):
            raise Failure(f"{what}\n--- but it was:\n{printed}")


def verify_unit(path):
    """By the service manager's own tool, where there is one; the programs need not be there."""
    text = re.sub(r"(?m)^(Exec\w+=)/\S+", r"\1/bin/true", path.read_text())
    if "ExecStart=" not in text:
        raise Failure("a unit that starts nothing")
    if shutil.which("systemd-analyze"):
        path.write_text(text)
        result = subprocess.run(["systemd-analyze", "verify", str(path)], text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        complaints = [line for line in result.stdout.splitlines() if path.name in line]
        if result.returncode != 0 or complaints:
            raise Failure(f"systemd-analyze verify: {result.stdout}")


def extract(page, output):
    """All C++ of a page as one header, whose lines are known to the compiler as the page's."""
    page = pathlib.Path(page).resolve()
    parts = [f'#line {block.line + 1} "{page}"\n{block.text}'
             for block in blocks(page.read_text()) if block.language == "cpp"]
    pathlib.Path(output).write_text("\n".join(parts))


def environment_for(options, home):
    """The shell's: the build installed as scripts/install does it, or else what the machine has
    installed; g++ as it is tested here."""
    shims = home / "shims"
    shims.mkdir()
    compiler = shims / "g++"
    real = shutil.which(options.compiler)
    compiler.write_text(f'#!/bin/sh\nexec {real} -std=c++17 -Wall -Wextra -Wpedantic '
                        f'-Wshadow -Wconversion -Werror {options.flags} "$@"\n')
    compiler.chmod(0o755)
    local = home / ".local"
    if options.build:
        subprocess.run(["cmake", "--install", options.build, "--prefix", str(local)], check=True,
                       stdout=subprocess.DEVNULL)
    kept = {key: value for key, value in os.environ.items() if key.endswith("SAN_OPTIONS")}
    return {**kept, "HOME": str(home), "CXX": str(compiler), "LC_ALL": "C.UTF-8", "NO_COLOR": "1",
            "PATH": f"{local}/bin:{shims}:/usr/local/bin:/usr/bin:/bin",
            "LD_LIBRARY_PATH": f"{local}/lib", "PKG_CONFIG_PATH": f"{local}/lib/pkgconfig",
            "PYTHONPATH": f"{SOURCE}/python", "PYTHONDONTWRITEBYTECODE": "1",
            "PIP_DISABLE_PIP_VERSION_CHECK": "1", "PIP_NO_INDEX": "1"}


@contextlib.contextmanager
def guide_of(options):
    """The page of the options in a home of its own."""
    with tempfile.TemporaryDirectory(prefix="tovik-guide-") as temporary:
        home = pathlib.Path(temporary)
        work = home / "work"
        work.mkdir()
        shutil.copytree(SOURCE / "python", work / "python")  # pip writes there
        guide = Guide(options.page, work, environment_for(options, home))
        try:
            yield guide
        finally:
            guide.close()


def run(options):
    with guide_of(options) as guide:
        guide.run()


def options_of_run(parser):
    parser.add_argument("page")
    parser.add_argument("--build")
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--flags", default="")


def main():
    parser = argparse.ArgumentParser()
    actions = parser.add_subparsers(required=True)
    extracting = actions.add_parser("extract")
    extracting.add_argument("page")
    extracting.add_argument("output")
    extracting.set_defaults(action=lambda options: extract(options.page, options.output))
    running = actions.add_parser("run")
    options_of_run(running)
    running.set_defaults(action=run)
    options = parser.parse_args()
    try:
        options.action(options)
    except Failure as failure:
        sys.exit(f"{options.page}: {failure}")


if __name__ == "__main__":
    main()
