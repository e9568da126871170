"""What the Python tests share, those of the bridge included. Where things are comes in the
environment."""

import asyncio
import contextlib
import json
import itertools
import os
import pathlib
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
PACKAGE = SOURCE / "python"  # or, in the package's own archive, the folder above this one
if not PACKAGE.is_dir():
    PACKAGE = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, os.environ.get("TOVIK_PYTHON_PATH", str(PACKAGE)))
sys.dont_write_bytecode = True

DEADLINE = 20  # seconds for anything to happen
_numbers = itertools.count(1)


def unique_name(kind="python"):
    return f"tovik-{kind}-{os.getpid()}-{next(_numbers)}"


def wait_until(condition, what="it", limit=DEADLINE):
    deadline = time.monotonic() + limit
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"{what() if callable(what) else what} did not happen in time")
        time.sleep(0.002)


def listens(name):
    """True once the kernel lists a listening socket of that name, padded to the whole path."""
    padded = ("@" + name).ljust(108, "@")
    with open("/proc/net/unix", errors="replace") as table:
        return any(line.rstrip("\n").endswith(" " + padded) and " 00010000 " in line
                   for line in table)


def listener(name):
    """A server that does nothing by itself."""
    import tovik  # found by now
    server = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    server.bind(tovik.address(name))
    server.listen()
    return server


class Program:
    """A process whose output is read from files, so that it never waits for its reader. It ends
    with its case."""

    def __init__(self, case, arguments, **options):
        self.arguments = [os.fspath(argument) for argument in arguments]
        self.output, self.errors = tempfile.TemporaryFile(), tempfile.TemporaryFile()
        self.process = subprocess.Popen(self.arguments, **{
            "stdin": subprocess.DEVNULL, "stdout": self.output, "stderr": self.errors, **options})
        case.addCleanup(self.clean_up)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.kill()

    def clean_up(self):
        self.close_input()
        self.kill()
        self.output.close()
        self.errors.close()

    @staticmethod
    def content(file):
        return os.pread(file.fileno(), 1 << 24, 0)

    def text(self):
        return self.content(self.output).decode(errors="replace")

    def lines(self):
        return self.text().splitlines()

    def log(self):
        return self.content(self.errors).decode(errors="replace")

    def says(self, text, times=1):
        """Waits until the program has written this, wherever."""
        def said():
            return (self.text() + self.log()).count(text) >= times
        wait_until(lambda: said() or self.process.poll() is not None,
                   lambda: f"{text!r} of {self.arguments}, after {self.text()} {self.log()}")
        if not said():
            raise AssertionError(f"{text!r} is not in {self.text()} {self.log()}")
        return self

    def prints(self, count):
        """The first lines of its output, once there are that many."""
        wait_until(lambda: self.text().count("\n") >= count or self.process.poll() is not None,
                   lambda: f"line {count} after {self.lines()}")
        if len(self.lines()) < count:
            raise AssertionError(f"it ended after {self.lines()} {self.log()}")
        return self.lines()[:count]

    def write(self, data):
        self.process.stdin.write(data)
        self.process.stdin.flush()

    def close_input(self):
        if self.process.stdin is not None:
            with contextlib.suppress(BrokenPipeError):
                self.process.stdin.close()

    def kill(self, number=signal.SIGKILL):
        """Ends it; the exit status."""
        if self.process.poll() is None:
            self.process.send_signal(number)
        return self.process.wait(DEADLINE)


class AsyncCase(unittest.IsolatedAsyncioTestCase):
    @staticmethod
    async def within(awaitable):
        return await asyncio.wait_for(awaitable, DEADLINE)

    async def until(self, condition):
        async def poll():
            while not condition():
                await asyncio.sleep(0.002)
        await self.within(poll())

    def peer(self):
        """A socket at the server of this case."""
        import tovik  # found by now
        peer = tovik._wire.new_socket()
        self.addCleanup(peer.close)
        peer.setblocking(False)
        peer.connect(tovik.address(self.name))
        return peer

    async def receive(self, peer):
        record = await self.within(asyncio.get_running_loop().sock_recv(peer, 5000))
        return json.loads(record) if record else None


class HostmonCase(unittest.TestCase):
    """With the example service hostmon, which is this system's own C++ code."""

    def start(self, *arguments):
        return Program(self, [os.environ["HOSTMON"], *arguments])

    def serve(self, name):
        program = self.start("serve", name)
        wait_until(lambda: listens(name))
        return program
