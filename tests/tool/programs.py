"""What the tests of the command share: programs that are run, pseudo-terminals, raw sockets."""

import fcntl
import os
import pathlib
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import termios

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


class Terminal:
    """A pseudo-terminal: what is on the screen, where each one that is drawn begins at home. The
    program gets the other end, which stays open, so that nothing it wrote is lost with it."""

    def __init__(self, case, rows=0, columns=0):
        self.fd, self.program_end = os.openpty()
        for fd in (self.fd, self.program_end):
            case.addCleanup(os.close, fd)
        self.resize(rows, columns)
        self.data = b""

    def resize(self, rows, columns):
        fcntl.ioctl(self.fd, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def type(self, keys):
        os.write(self.fd, keys)

    def bytes(self):
        while select.select([self.fd], [], [], 0)[0]:
            self.data += os.read(self.fd, 65536)
        return self.data

    def raw(self):
        return self.bytes().decode("utf-8", "replace")

    @staticmethod
    def without_escapes(text):
        return re.sub("\x1b\\[[0-9;?]*[A-Za-z]", "", text)

    def plain(self):
        return self.without_escapes(self.raw())

    def lines(self):
        return self.without_escapes(self.raw().split("\x1b[H")[-1]).split("\r\n")

    def text(self):
        return "\n".join(self.lines())


class Program(support.Program):
    """A command, or a line for bash, and what it shows; on a terminal if that is wanted."""

    def __init__(self, case, arguments, terminal=False, **options):
        self.terminal = Terminal(case) if terminal else None
        if terminal:
            options.update(stdout=self.terminal.program_end, stderr=self.terminal.program_end)
        if isinstance(arguments, str):
            arguments = ["bash", "-c", arguments]
        super().__init__(case, arguments, **{"stdin": subprocess.PIPE, "env": ENV, **options})

    def stdout(self):
        return self.terminal.bytes() if self.terminal else self.content(self.output)

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
        until(lambda: (self.stdout(), self.process.poll())[1] is not None,
              lambda: f"the end of {self.arguments}; {self.stdout()!r} {self.stderr()!r}")
        return self.process.returncode
