"""The programs that are measured, started and ended, and what the kernel knows about them."""

import array
import dataclasses
import itertools
import os
import pathlib
import signal
import subprocess
import tempfile
import time

SUBJECT = "tovik"
ASYNC = "tovik-async"
SERVICE = "tovik-service"  # with a proxy
BASELINE = "baseline-epoll"


@dataclasses.dataclass
class Contestant:
    """One way to do the work: a server's program and a client's, with their roles."""
    name: str
    label: str
    program: str
    serve: str = "serve"
    drive: str = "drive"
    streams: bool = True
    crowd: str = None  # the program of many subscribers, if it has broadcasts

    @property
    def on_path(self):
        """Others want a socket in the file system."""
        return self.program not in ("baselines", "library", "service")


CONTESTANTS = [
    Contestant("baseline-bytes", "baseline (i): blocking, bytes only", "baselines", "serve-bytes",
               "drive-bytes"),
    Contestant("baseline-json", "baseline (ii): blocking, JSON", "baselines", "serve-json",
               "drive-json"),
    Contestant(BASELINE, "baseline (iii): epoll server, JSON", "baselines", "serve-epoll",
               "drive-json", crowd="baselines"),
    Contestant(SUBJECT, "Tovik, blocking client", "library", crowd="baselines"),
    Contestant("baseline-async", "baseline (iii), epoll client", "baselines", "serve-epoll",
               "drive-epoll", streams=False),
    Contestant(ASYNC, "Tovik, asynchronous client", "library", "serve", "drive-async",
               streams=False),
    Contestant(SERVICE, "Tovik, service and proxy", "service", streams=False, crowd="baselines"),
    Contestant("sd-bus", "sd-bus, direct", "sdbus"),
    Contestant("zeromq", "ZeroMQ, ipc", "zmq", crowd="zmq"),
    Contestant("nng", "nng, ipc", "nng", crowd="nng"),
    Contestant("capnp", "Cap'n Proto RPC", "capnp"),
    Contestant("grpc", "gRPC, unix socket", "grpc"),
]


@dataclasses.dataclass
class Placement:
    """Where processes may run."""
    name: str
    cores: set

    def apply(self):
        os.sched_setaffinity(0, self.cores)


def placements():
    cores = sorted(os.sched_getaffinity(0))
    return [Placement("one core", {cores[-1]}), Placement("free", set(cores))]


class Programs:
    """Finds programs, hands out addresses, and ends whatever it has started."""

    def __init__(self, build):
        self.build = pathlib.Path(build)
        self.work = tempfile.TemporaryDirectory(prefix="bench-")
        self._numbers = itertools.count()
        self._running = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end_all()
        self.work.cleanup()

    def path(self, program):
        return self.build / "bench" / ("bench_" + program)

    def installed(self, contestant):
        return self.path(contestant.program).exists()

    def address(self, on_path):
        number = next(self._numbers)
        return f"{self.work.name}/{number}" if on_path else f"bench-{os.getpid()}-{number}"

    def server(self, contestant, placement, wrapper=()):
        return self.serve(contestant.program, contestant.serve,
                          self.address(contestant.on_path), placement, wrapper)

    def client(self, contestant, server, placement, wrapper=()):
        return self.drive(contestant.program, contestant.drive, server.address, placement, wrapper)

    def crowd(self, server, placement, program="baselines"):
        return self.drive(program, "crowd", server.address, placement)

    def serve(self, program, role, address, placement, wrapper=()):
        return self.started(Server([*wrapper, self.path(program), role, address], placement))

    def drive(self, program, role, address, placement, wrapper=()):
        return self.started(Client([*wrapper, self.path(program), role, address], placement))

    def started(self, process):
        self._running.append(process)
        return process

    def end_all(self):
        for process in reversed(self._running):
            process.end()
        self._running.clear()


class Process:
    def __init__(self, command, placement, **pipes):
        self.popen = subprocess.Popen(command, preexec_fn=placement.apply, **pipes)
        self.pid = self.popen.pid

    def cpu(self):
        """The processor time of all its threads so far, in nanoseconds."""
        return time.clock_gettime_ns((~self.pid << 3) | 2)  # the kernel's clock for that process

    def status(self, key):
        for line in pathlib.Path(f"/proc/{self.pid}/status").read_text().splitlines():
            if line.startswith(key + ":"):
                return int(line.split()[1])
        raise KeyError(key)

    def resident_kib(self):
        return self.status("VmRSS")

    def threads(self):
        return self.status("Threads")


class Server(Process):
    def __init__(self, command, placement):
        super().__init__(command, placement, stdout=subprocess.PIPE)
        self.address = command[-1]
        words = self.popen.stdout.readline().split()
        if words[:1] != [b"ready"]:
            raise RuntimeError(f"{command[-3:]} did not start")
        self.pid = int(words[1])  # of the program, not of what it is wrapped in

    def end(self):
        if self.popen.poll() is None:
            os.kill(self.pid, signal.SIGTERM)
        self.popen.wait()
        self.popen.stdout.close()


class Client(Process):
    def __init__(self, command, placement):
        super().__init__(command, placement, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.name = " ".join(str(word) for word in command[-3:])

    def do(self, verb, count=1):
        """Has it done, and returns the samples in nanoseconds."""
        self.popen.stdin.write(f"{verb} {count}\n".encode())
        self.popen.stdin.flush()
        samples = array.array("Q")
        number = int.from_bytes(self._read(8), "little")
        samples.frombytes(self._read(8 * number))
        return samples

    def _read(self, size):
        data = self.popen.stdout.read(size)
        if len(data) < size:
            raise RuntimeError(f"{self.name} has ended")
        return data

    def end(self):
        if not self.popen.stdin.closed:
            self.popen.stdin.close()
        try:
            self.popen.wait(10)
        except subprocess.TimeoutExpired:
            self.popen.kill()
            self.popen.wait()
        self.popen.stdout.close()
