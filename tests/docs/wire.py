"""Runs what docs/wire.md shows: its snippets against the example service, the rows of its tables
against `tovik serve`, which is a plain server, and a plain client."""

import argparse
import json
import os
import pathlib
import re
import resource
import socket
import subprocess
import sys
import unittest

DEADLINE = 20  # seconds for anything to happen
OPTIONS = argparse.Namespace()
DIED = -6  # by SIGABRT


def document():
    return (pathlib.Path(OPTIONS.source) / "docs" / "wire.md").read_text()


def blocks(kind):
    """The fenced blocks that a `<!-- kind: name -->` line announces, by name."""
    return dict(re.findall(rf"<!-- {kind}: (.+?) -->\n```\w*\n(.*?)```", document(), re.S))


def table(name):
    """The rows of an announced table: record and outcome."""
    text = re.search(rf"<!-- table: {name} -->\n\|.*?\n\|.*?\n(.*?)\n\n", document(), re.S).group(1)
    return [re.fullmatch(r"\| `(.*)` \| (.*) \|", row).groups() for row in text.splitlines()]


def address(name):
    return b"\0" + name.encode() + bytes(107 - len(name))


def without_core_file():
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


class Wire(unittest.TestCase):
    count = 0

    def setUp(self):
        Wire.count += 1
        self.name = f"wire-{os.getpid()}-{Wire.count}"

    def start(self, *arguments):
        process = subprocess.Popen(arguments, text=True, stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                   preexec_fn=without_core_file)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stdin.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def serve(self, program, *options):
        process = self.start(program, "serve", self.name, *options)
        while "listening" not in process.stdout.readline():
            self.assertIsNone(process.poll())
        return process

    def connect(self):
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        connection.settimeout(DEADLINE)
        connection.connect(address(self.name))
        self.addCleanup(connection.close)
        return connection


class Snippets(Wire):
    def output_of(self, kind, text):
        command = {"sh": ["sh", "-eu", "-c"], "python": [sys.executable, "-c"]}[kind]
        return subprocess.run([*command, text.replace("demo", self.name)], text=True, check=True,
                              stdout=subprocess.PIPE, timeout=DEADLINE).stdout

    def test_print_what_stands_below_them(self):
        self.serve(OPTIONS.hostmon)
        expected = blocks("output")
        seen = set()
        for title, text in blocks("snippet").items():
            name, kind = title.split()
            seen.add(name)
            if name == "socat" and not OPTIONS.socat:
                continue
            output = self.output_of(kind, text).rstrip("\n") + "\n"  # records have no line's end
            self.assertEqual(output, expected[name], name)
        self.assertEqual(seen, {"socat", "python"})

    def test_dump_the_address_that_connects(self):
        dump = "".join(line[6:53] for line in blocks("output")["address"].splitlines())
        self.assertEqual(bytes.fromhex(dump), b"\x01\0" + address("demo"))
        self.serve(OPTIONS.hostmon)
        self.connect()


class Server(Wire):
    REPLY = b'{"type":"reply","status":%d}'
    STATUS = 1  # how the application answers whatever reaches it

    def test_accepts_as_the_table_says(self):
        rows = table("server")
        self.assertEqual(len(rows), 16)
        outcomes = {
            "goes to the application": self.reaches_the_application,
            "reply with status 0, then subscribed": self.subscribes,
            "reply with status 0": self.is_acknowledged,
            "swallowed: no reply, no change": self.is_swallowed,
            "dropped and logged": self.is_dropped,
            "the process ends": self.ends_the_process,
        }
        for record, outcome in rows:
            with self.subTest(record=record):
                self.setUp()
                process = self.serve(OPTIONS.tovik, "-vv", "--status", str(self.STATUS), "--notify",
                                     "-")
                connection = self.connect()
                connection.send(record.encode())
                outcomes[outcome](process, connection)

    def reaches_the_application(self, _process, connection):
        self.assertEqual(connection.recv(4096), self.REPLY % self.STATUS)

    def subscribes(self, process, connection):
        self.is_acknowledged(process, connection, replies=False)
        process.stdin.write('{"n":1}\n')
        process.stdin.flush()
        self.assertEqual(connection.recv(4096), b'{"n":1}')

    def is_acknowledged(self, process, connection, replies=True):
        self.assertEqual(connection.recv(4096), self.REPLY % 0)
        if replies:
            self.is_swallowed(process, connection)

    def is_swallowed(self, _process, connection):
        """The next message's reply is the next record."""
        connection.send(b'{"next":1}')
        self.assertEqual(connection.recv(4096), self.REPLY % self.STATUS)

    def is_dropped(self, process, connection):
        self.is_swallowed(process, connection)
        process.terminate()
        self.assertIn("Invalid JSON message", process.stdout.read())

    def ends_the_process(self, process, connection):
        with self.assertRaises((ConnectionError, AssertionError)):
            self.assertNotEqual(connection.recv(4096), b"")
        self.assertEqual(process.wait(DEADLINE), DIED)


class Client(Wire):
    def test_accepts_as_the_table_says(self):
        rows = table("client")
        self.assertEqual(len(rows), 16)
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as listener:
            listener.settimeout(DEADLINE)
            listener.bind(address(self.name))
            listener.listen()
            for record, outcome in rows:
                with self.subTest(record=record):
                    status, output = self.answer(listener, record.encode())
                    self.assertEqual(status, DIED if outcome == "the process ends" else 0)
                    if outcome != "the process ends":
                        self.assertEqual(json.loads(output)["status"], int(outcome))

    def answer(self, listener, record):
        process = self.start(OPTIONS.client, "client", self.name)
        process.stdin.write('{"call":{}}\n')
        process.stdin.flush()
        connection, _address = listener.accept()
        with connection:
            self.assertEqual(connection.recv(4096), b"{}")
            connection.send(record)
            output, _errors = process.communicate(timeout=DEADLINE)
        return process.returncode, output


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", required=True)
    parser.add_argument("--hostmon", required=True)
    parser.add_argument("--tovik", required=True)
    parser.add_argument("--client", required=True)
    parser.add_argument("--socat", action="store_true")
    parser.parse_args(namespace=OPTIONS)
    unittest.main(argv=sys.argv[:1])
