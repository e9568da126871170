"""What the tests of the command share: programs that are run, pseudo-terminals, raw sockets."""

import os
import pathlib
import pty
import select
import signal
import socket
import subprocess
import sys
import tempfile

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


class Program:
    """A program in the background: what it has written so far, and its end."""

    def __init__(self, arguments, stdin=None, stdout=None, terminal=False, cwd=None):
        self.out = tempfile.TemporaryFile()
        self.err = tempfile.TemporaryFile()
        self.terminal = None
        self.typed = b""
        stdout, stderr = stdout or self.out, self.err
        if terminal:
            self.terminal, slave = pty.openpty()
            stdout = stderr = slave
        if isinstance(arguments, str):
            arguments = ["bash", "-c", arguments]
        self.process = subprocess.Popen(
            arguments, stdin=subprocess.PIPE if stdin is None else stdin, stdout=stdout,
            stderr=stderr, env=ENV, cwd=cwd)
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

    @staticmethod
    def _content(file):
        return os.pread(file.fileno(), 1 << 24, 0)

    def stdout(self):
        self._drain()
        return self.typed if self.typed else self._content(self.out)

    def stderr(self):
        return self._content(self.err)

    def write(self, data):
        self.process.stdin.write(data)
        self.process.stdin.flush()

    def close_input(self):
        if self.process.stdin is not None:
            try:
                self.process.stdin.close()
            except BrokenPipeError:
                pass

    def says(self, text):
        """Waits until the program has written this."""
        text = text.encode() if isinstance(text, str) else text
        until(lambda: text in self.stdout() + self.stderr() or self.process.poll() is not None,
              f"{text!r} from {self.process.args}; {self.stdout()!r} {self.stderr()!r}")
        assert text in self.stdout() + self.stderr(), (text, self.stdout(), self.stderr())
        return self

    def interrupt(self, number=signal.SIGINT):
        self.process.send_signal(number)
        return self.end()

    def end(self):
        """Waits for the end; the exit status."""
        self.close_input()
        until(lambda: (self._drain(), self.process.poll())[1] is not None,
              f"the end of {self.process.args}; {self.stdout()!r} {self.stderr()!r}")
        self._drain(0.01)
        return self.process.returncode

    def kill(self):
        self.close_input()
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        if self.terminal is not None:
            os.close(self.terminal)
            self.terminal = None
        self.out.close()
        self.err.close()
