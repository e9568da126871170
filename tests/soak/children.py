"""The processes of a scenario: one program, tests/soak/Child.cpp, in several roles."""

import json
import os
import pathlib
import socket
import subprocess
import time


class Failure(Exception):
    """A scenario cannot go on: a child has died, or has not answered in time."""


class Child(subprocess.Popen):
    """Obeys lines of a verb and up to two numbers."""

    def __init__(self, program, role, who, patience, log, setup):
        self.who = who
        self.socket, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.socket.settimeout(patience)
        with theirs:
            super().__init__([program, role, json.dumps(setup)], stdin=theirs, stderr=log)
        self.answer()  # that it is ready

    def tell(self, verb, number=0, more=0):
        try:
            self.socket.send(f"{verb} {number} {more}".encode())
        except OSError as error:
            raise Failure(f"the {self.who} has died: {error}") from error

    def answer(self):
        try:
            text = self.socket.recv(10000)
        except TimeoutError as error:
            raise Failure(f"the {self.who} has not answered in time") from error
        except OSError:
            text = b""
        if not text:
            raise Failure(f"the {self.who} has died")
        return json.loads(text)

    def ask(self, verb, number=0, more=0):
        self.tell(verb, number, more)
        return self.answer()

    def figures(self):
        return self.ask("figures")

    def kill(self):
        super().kill()
        self.wait()
        self.socket.close()

    # What it takes of the machine.

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def _sum(self, file, *keys):
        lines = pathlib.Path(f"/proc/{self.pid}/{file}").read_text().splitlines()
        return sum(int(line.split()[1]) for line in lines if line.startswith(keys))

    def kilobytes(self):
        """Its own: pages of the libraries come and go with the system's cache. The sum of the
        pages, which is slow but exact; the kernel's running totals are not."""
        return self._sum("smaps_rollup", "Anonymous:")

    def switches(self):
        """How often it was given a processor and gave it back, or lost it."""
        return self._sum("status", "voluntary_ctxt", "nonvoluntary_ctxt")

    def resources(self):
        """Bytes of heap in use only of those who tell."""
        heap = self.figures().get("heap")  # and has given back what it has no use for
        return {"kilobytes": self.kilobytes(), "descriptors": self.descriptors(), "heap": heap}


class Watch:
    """What processes take after they have warmed up, compared with the end of the scenario."""

    def __init__(self, *children):
        self.children = children
        self.before = [child.resources() for child in children]

    def report(self, rows, quiet_seconds):
        for child, before in zip(self.children, self.before):
            after = child.resources()
            rows.memory(child.who, before, after)
            rows.heap(child.who, before, after)
            rows.descriptors(child.who, before, after)
        self.report_wake_ups(rows, quiet_seconds)

    def report_wake_ups(self, rows, seconds):
        time.sleep(0.02)  # for those who have just answered to be waiting again
        before = sum(child.switches() for child in self.children)
        time.sleep(seconds)
        rows.exactly("wake-ups while idle",
                     sum(child.switches() for child in self.children) - before, 0,
                     f"all processes, {seconds:g} s")
