"""What the tests of the bridge share: a broker of their own, bridges, services, and the broker's
clients as independent peers. Where programs are comes in the environment."""

import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.append(str(pathlib.Path(__file__).resolve().parents[1] / "python"))
from support import DEADLINE, SOURCE, listens, unique_name, wait_until  # noqa: E402

BROKER = shutil.which("mosquitto") or "/usr/sbin/mosquitto"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Program:
    """A process whose output is read from files, so that it never waits for its reader."""

    def __init__(self, case, arguments, **options):
        self.arguments = [str(argument) for argument in arguments]
        self.output = tempfile.TemporaryFile("w+", errors="replace")
        self.errors = tempfile.TemporaryFile("w+", errors="replace")
        self.process = subprocess.Popen(self.arguments, stdin=subprocess.DEVNULL,
                                        stdout=self.output, stderr=self.errors, **options)
        case.addCleanup(self.clean_up)

    def clean_up(self):
        self.kill()
        self.output.close()
        self.errors.close()

    @staticmethod
    def _all(file):
        return os.pread(file.fileno(), 1 << 24, 0).decode(errors="replace")

    def lines(self):
        return self._all(self.output).splitlines()

    def log(self):
        return self._all(self.errors)

    def log_of_output(self):
        return self._all(self.output)

    def says(self, text, times=1):
        deadline = time.monotonic() + DEADLINE
        while self.log().count(text) < times:
            ended = self.process.poll() is not None and self.log().count(text) < times
            if ended or time.monotonic() > deadline:
                raise AssertionError(f"{text!r} is not in its log:\n{self.log()}")
            time.sleep(0.01)

    def prints(self, count):
        """The first lines of its output, once there are that many."""
        wait_until(lambda: len(self.lines()) >= count, f"line {count} after {self.lines()}")
        return self.lines()[:count]

    def kill(self, number=signal.SIGKILL):
        if self.process.poll() is None:
            self.process.send_signal(number)
        return self.process.wait(DEADLINE)


class Case(unittest.TestCase):
    broker_options = ""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.port = free_port()
        self.prefix = unique_name("site")
        self.start_broker()

    def start_broker(self, options=None):
        config = self.folder / "broker.conf"
        config.write_text(f"listener {self.port} 127.0.0.1\nuser root\n"
                          + (self.broker_options or "allow_anonymous true\n")
                          .format(folder=self.folder) + (options or ""))
        self.broker = Program(self, [BROKER, "-c", config])
        wait_until(lambda: self.reaches_broker() or self.broker.process.poll() is not None)
        self.assertIsNone(self.broker.process.poll(), self.broker.log())

    def reaches_broker(self):
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.port)) == 0

    def bridge(self, *arguments, name=None, **options):
        name = unique_name("bridge") if name is None else name
        if "--broker" not in arguments:
            arguments = ("--broker", f"127.0.0.1:{self.port}", *arguments)
        return Program(self, [os.environ["TOVIK_MQTT"], "--name", name, *arguments], **options)

    def lamp(self, name=None, *arguments):
        """A service, once it listens."""
        lamp = Program(self, [sys.executable, SOURCE / "tests/mqtt/lamp.py",
                              name or unique_name("lamp"), *arguments])
        lamp.name = lamp.arguments[2]
        wait_until(lambda: listens(lamp.name) or lamp.process.poll() is not None)
        self.assertIsNone(lamp.process.poll(), lamp.log())
        return lamp

    def exported(self, *arguments):
        """A lamp and its bridge, once the lamp is on the broker."""
        lamp = self.lamp()
        lamp.bridge = self.bridge("--prefix", self.prefix, lamp.name, *arguments)
        lamp.base = f"{self.prefix}/{lamp.name}"
        lamp.bridge.says("exported as")
        lamp.bridge.says("connected to the broker")
        self.await_retained(f"{lamp.base}/online", "true")
        return lamp

    def imported(self, base, *arguments):
        name = unique_name("here")
        bridge = self.bridge("--import", f"{name}={base}", *arguments)
        bridge.says(": open, for")
        bridge.name = name
        return bridge

    # --- peers that are not the bridge ---

    def client(self, program, *arguments):
        return [program, "-h", "127.0.0.1", "-p", str(self.port), "-V", "5",
                "-i", unique_name(program), *arguments]

    def subscribe(self, *topics, form="%t %p"):
        """A peer that prints what comes, once it is subscribed."""
        ready = unique_name("ready")
        arguments = [part for topic in (*topics, ready) for part in ("-t", topic)]
        peer = Program(self, self.client("mosquitto_sub", "-q", "1", "-F", form, *arguments))

        def subscribed():
            self.publish(ready, "now")
            return any("now" in line for line in peer.lines())
        wait_until(subscribed)
        peer.heard = lambda: [line for line in peer.lines() if "now" not in line]
        return peer

    def publish(self, topic, payload, *arguments):
        content = ["-n"] if payload == "" else ["-s"]
        payload = payload.encode() if isinstance(payload, str) else payload
        subprocess.run(self.client("mosquitto_pub", "-q", "1", "-t", topic, *content, *arguments),
                       input=payload, check=True, timeout=DEADLINE)

    def retained(self, topic):
        """The retained payload, or None."""
        done = subprocess.run(
            self.client("mosquitto_sub", "-t", topic, "-F", "%p", "-C", "1", "-W", "1",
                        "--retained-only"), capture_output=True, text=True, timeout=DEADLINE)
        return done.stdout.rstrip("\n") if done.stdout else None

    def await_retained(self, topic, payload):
        wait_until(lambda: self.retained(topic) == payload, f"{payload!r} at {topic}")

    def call(self, base, command, payload, replies=1, correlation="c1", properties=()):
        """Calls as a peer, and returns the replies."""
        answers = unique_name("answers")
        peer = self.subscribe(answers, form="%D %p")
        options = ["-D", "publish", "response-topic", answers]
        if correlation:
            options += ["-D", "publish", "correlation-data", correlation]
        self.publish(f"{base}/call/{command}", payload, *options, *properties)
        wait_until(lambda: len(peer.heard()) >= replies, f"{replies} replies to {command}")
        found = [line.split(" ", 1) for line in peer.heard()]
        for one, _ in found:
            self.assertEqual(one, correlation)
        return [json.loads(reply) for _, reply in found]
