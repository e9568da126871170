"""What the Python tests share, those of the bridge included. Where things are comes in the
environment."""

import asyncio
import json
import itertools
import os
import pathlib
import socket
import subprocess
import sys
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
            raise AssertionError(f"{what} did not happen in time")
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
        process = subprocess.Popen([os.environ["HOSTMON"], *arguments], stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, text=True)
        self.addCleanup(process.stdout.close)
        self.addCleanup(self.stop, process)
        return process

    @staticmethod
    def stop(process):
        process.terminate()
        return process.wait(DEADLINE)

    def serve(self, name):
        process = self.start("serve", name)
        wait_until(lambda: listens(name))
        return process

    def lines_until(self, process, start):
        """The lines a process prints, up to the first that starts so."""
        lines = []
        for line in process.stdout:
            lines.append(line.rstrip("\n"))
            if line.startswith(start):
                return lines
        raise AssertionError(f"no line starts with {start!r}: {lines}")
