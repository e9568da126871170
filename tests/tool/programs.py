"""What the tests of the command share: programs that are run, pseudo-terminals, raw sockets."""

import os
import pathlib
import pty
import select
import signal
import socket
import subprocess
import sys

sys.path.append(str(pathlib.Path(__file__).resolve().parents[1] / "python"))
import support  # noqa: E402
from support import DEADLINE as LIMIT, listens, wait_until as until  # noqa: E402, F401

TOOL_DIR = os.environ["TOVIK_TOOL_DIR"]
ENV = {
    "PATH": TOOL_DIR + ":/usr/local/bin:/usr/bin:/bin",
    "LC_ALL": "C.UTF-8",
    "TERM": "xterm-256color",
}
ENV.update({key: value for key, value in os.environ.items() if key.endswith("SAN_OPTIONS")})

PREFIX = f"tovik-tool-{os.getpid()}-"


def unique_name(word="x"):
    """A server name that no other test, process or repetition uses, nor begins with."""
    return f"{support.unique_name('tool')}-{word}"


def address(name):
    if isinstance(name, str):
        name = name.encode()
    return b"\0" + name.ljust(107, b"\0")


def raw_socket():
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    sock.settimeout(LIMIT)
    return sock


def raw_client(name):
    sock = raw_socket()
    sock.settimeout(None)  # with one, a connect to a busy server fails at once
    sock.connect(address(name))
    sock.settimeout(LIMIT)
    return sock


class Program(support.Program):
    """A command, or a line for bash, and what it shows; on a terminal if that is wanted."""

    def __init__(self, case, arguments, terminal=False, **options):
        self.terminal, slave = pty.openpty() if terminal else (None, None)
        self.typed = b""
        if terminal:
            options.update(stdout=slave, stderr=slave)
        if isinstance(arguments, str):
            arguments = ["bash", "-c", arguments]
        super().__init__(case, arguments, **{"stdin": subprocess.PIPE, "env": ENV, **options})
        if terminal:
            os.close(slave)

    def _drain(self, wait=0.0):
        while self.terminal is not None and select.select([self.terminal], [], [], wait)[0]:
            try:
                data = os.read(self.terminal, 65536)
            except OSError:  # the other end is closed
                data = b""
            if not data:
                os.close(self.terminal)
                self.terminal = None
            self.typed += data

    def stdout(self):
        self._drain()
        return self.typed or self.content(self.output)

    def stderr(self):
        return self.content(self.errors)

    def text(self):
        return self.stdout().decode(errors="replace")

    def interrupt(self, number=signal.SIGINT):
        self.process.send_signal(number)
        return self.end()

    def end(self):
        """Waits for the end; the exit status."""
        self.close_input()
        until(lambda: (self._drain(), self.process.poll())[1] is not None,
              f"the end of {self.arguments}; {self.stdout()!r} {self.stderr()!r}")
        self._drain(0.01)
        return self.process.returncode

    def clean_up(self):
        super().clean_up()
        if self.terminal is not None:
            os.close(self.terminal)
            self.terminal = None
