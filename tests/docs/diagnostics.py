"""Holds docs/diagnostics.md against the sources, in both directions: every text that they log or
throw stands on the page, and no other. Runs the page's snippets, and provokes the deaths it
lists."""

import argparse
import errno
import os
import pathlib
import re
import resource
import socket
import subprocess
import sys
import time
import unittest

import snippets

DEADLINE = 20  # seconds for anything to happen
LITERAL = r'"((?:[^"\\]|\\.)*)"'


def page():
    return pathlib.Path(OPTIONS.page).read_text()


def rows(heading):
    """The cells of every table row below a heading, code marks taken off."""
    section = re.search(rf"^## {heading}\n(.*?)(?=^## |\Z)", page(), re.S | re.M).group(1)
    lines = [line for line in section.splitlines()
             if re.match(r"\| (?!-|level|from|error|last)", line)]
    return [[re.sub(r"^(`+)(.*)\1$", r"\2", cell.strip()) for cell in line[1:-1].split(" | ")]
            for line in lines]


def without_names(text):
    """Names of what varies say nothing to the compiler."""
    return re.sub(r"\{\w+\}", "{}", text)


def sources(*patterns):
    return [path for pattern in patterns for path in sorted(snippets.SOURCE.glob(pattern))]


# --- what the sources say ---


def balanced(text, start):
    """From an opening parenthesis to its closing one, without them. Literals may hold others."""
    depth, at = 0, start
    while True:
        if text[at] == '"':
            at = re.compile(LITERAL).match(text, at).end()
            continue
        depth += {"(": 1, ")": -1}.get(text[at], 0)
        at += 1
        if depth == 0:
            return text[start + 1:at - 1]


def without_comments(text):
    return re.sub(rf"({LITERAL})|//[^\n]*", lambda match: match.group(1) or "", text)


def pieces(chain, separator):
    """Splits at a separator that stands in no parentheses and in no literal."""
    found, depth, last = [], 0, 0
    for match in re.finditer(rf"{LITERAL}|[()]|{separator}", chain):
        token = match.group(0)
        depth += {"(": 1, ")": -1}.get(token, 0)
        if depth == 0 and re.fullmatch(separator, token):
            found.append(chain[last:match.start()].strip())
            last = match.end()
    return [*found, chain[last:].strip()]


def template(chain, separator="<<"):
    """The text of a chain of pieces: literals as they are, and {} for all else."""
    return "".join("".join(re.findall(LITERAL, piece))
                   if re.fullmatch(rf"(?:{LITERAL}\s*)+", piece) else "{}"
                   for piece in pieces(chain, separator))


def logged():
    """(source as logs name it, level, text) of every log statement."""
    found = set()
    for path in sources("Api/**/*.cpp", "Api/**/*.h", "Kelvo/**/*.cpp", "Kelvo/**/*.h"):
        text = without_comments(path.read_text())
        for match in re.finditer(r"(?<!define )\bTOVIK_(SERVICE_)?LOG\(", text):
            level, _, chain = balanced(text, match.end() - 1).partition(",")
            name = ("Api/Service" if match.group(1) else
                    re.search(rf"#define TOVIK_SOURCE_PATH {LITERAL}", text).group(1))
            found.add((name, level.strip(), template(chain.strip())))
    return found


def thrown():
    """(file, class, text, external) of every exception that is thrown."""
    found = set()
    for path in sources("Api/**/*.cpp", "Api/**/*.h", "Kelvo/**/*.cpp", "Kelvo/**/*.h",
                        "Kelvo/Adapters/*.h"):
        text = without_comments(path.read_text())
        file = str(path.relative_to(snippets.SOURCE))
        for match in re.finditer(r"\bthrow\b\s*([\w:]*)", text):
            if match.group(1):  # otherwise it throws again what was caught
                argument = balanced(text, text.index("(", match.end()))
                found.add((file, *what_is_thrown(match.group(1), argument, text)))
    return found


def what_is_thrown(kind, argument, text):
    kind = kind.removeprefix("Kelvo::")
    if kind == "SocketException":
        known = getattr(errno, argument, None)
        return kind, os.strerror(known) if known else "{}", "true"
    if kind == "systemError":
        before, after, external = re.search(
            rf"return \{{{LITERAL} \+ \(call \+ \({LITERAL} \+ reason\)\), (\w+)\}};",
            text).groups()
        return "Exception", before + "".join(re.findall(LITERAL, argument)) + after + "{}", external
    if kind == "Exception":
        message, external = pieces(argument, ",")
        return kind, template(message, r"\+"), external
    return kind, argument, ""


# --- the tests ---


class Texts(unittest.TestCase):
    maxDiff = None

    def test_that_are_logged_are_those_of_the_page(self):
        listed = set()
        for heading, source in (("Log: servers", "Api/Json/Server"),
                                ("Log: a server's connections", "Api/Json/Connection"),
                                ("Log: sending and reading", "Api/Json/Async"),
                                ("Log: clients", "Api/Json/Client"),
                                ("Log: services and proxies", "Api/Service")):
            self.assertIn(f"## {heading}\n\nFrom `{source}`", page())
            listed |= {(source, level, without_names(text))
                       for level, text, _cause, _remedy in rows(heading)}
        found = logged()
        self.assertGreater(len(found), 20)
        self.assertEqual(found, listed)

    def test_that_are_thrown_are_those_of_the_page(self):
        listed = {(file, "SocketException", without_names(text), "true")
                  for file, text, *_ in rows("Exceptions of the library") if "/" in file}
        listed |= {(file, "Exception", without_names(text), external)
                   for file, text, external, *_ in rows("Exceptions of the base library")}
        listed |= {(file, "Exception", without_names(text), external)
                   for file, text, external, _cause in rows("Exceptions of services and proxies")}
        found = {entry for entry in thrown() if entry[1] != "Refusal"}  # which is an answer
        standard = {entry for entry in found if entry[1].startswith("std::")}
        self.assertEqual({(file, kind) for file, kind, *_ in standard},
                         {("Kelvo/Platform/EventLoop.cpp", "std::bad_alloc")})
        self.assertEqual(found - standard, listed)

    def test_of_the_system_are_the_systems(self):
        reasons = [row for row in rows("Exceptions of the library") if "/" not in row[0]]
        self.assertGreater(len(reasons), 5)
        for name, reason, *_ in reasons:
            self.assertEqual(reason, os.strerror(getattr(errno, name)))


class Programs(unittest.TestCase):
    """Those of the page's snippets, once what stands there has been typed and compared."""
    @classmethod
    def setUpClass(cls):
        guide = cls.enterClassContext(snippets.guide_of(OPTIONS))
        guide.run()
        cls.folder, cls.environment = guide.folder, guide.environment

    def setUp(self):
        self.name = f"diagnostics-{os.getpid()}"

    def starts(self, program, name):
        process = subprocess.Popen(
            [self.folder / program, name], stderr=subprocess.PIPE, text=True, env=self.environment,
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_CORE, (0, 0)))
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def connects(self):
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.addCleanup(connection.close)
        deadline = time.monotonic() + DEADLINE
        while connection.connect_ex(b"\0" + self.name.encode().ljust(107, b"\0")) != 0:
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.01)
        return connection

    def last_words(self, record):
        server = self.starts("levels", self.name)
        self.connects().send(record)
        _, errors = server.communicate(timeout=DEADLINE)
        self.assertNotEqual(server.returncode, 0)
        return errors

    def test_die_with_the_last_words_listed(self):
        listed = [words for words, *_ in rows("What ends the process")]
        self.assertEqual(len(listed), 4)
        for words, record in zip(listed, (b"[]", b'{"command":1,"notification":true}')):
            self.assertIn(words.strip(), self.last_words(record))
        if not OPTIONS.flags:  # sanitizers have their own words for it
            _, errors = self.starts("levels", "x" * 107).communicate(timeout=DEADLINE)
            self.assertIn(listed[2], errors)
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as first:
            first.bind(b"\0" + self.name.encode().ljust(107, b"\0"))
            _, errors = self.starts("sink", self.name).communicate(timeout=DEADLINE)
            self.assertIn(listed[3] + " 'Tovik::SocketException'", errors)
            self.assertIn(os.strerror(errno.EADDRINUSE), errors)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    snippets.options_of_run(parser)
    OPTIONS = parser.parse_args()
    unittest.main(argv=sys.argv[:1])
