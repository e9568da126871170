"""What the tests of the bridge share: a broker of their own, bridges, services, and the broker's
clients as independent peers. Where programs are comes in the environment."""

import json
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import tempfile
import unittest

sys.path.append(str(pathlib.Path(__file__).resolve().parents[1] / "python"))
from support import DEADLINE, SOURCE, Program, listens, unique_name, wait_until  # noqa: E402

BROKER = shutil.which("mosquitto") or "/usr/sbin/mosquitto"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


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

    def exported(self, *arguments, lamp=None):
        """A lamp and its bridge, once the lamp is on the broker."""
        lamp = lamp or self.lamp()
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

    @staticmethod
    def answered(topic, correlation):
        """The properties of a call whose reply goes to that topic."""
        return ("-D", "publish", "response-topic", topic,
                "-D", "publish", "correlation-data", correlation)

    def call(self, base, command, payload, replies=1, correlation="c1", properties=()):
        """Calls as a peer, and returns the replies."""
        answers = unique_name("answers")
        peer = self.subscribe(answers, form="%D %p")
        self.publish(f"{base}/call/{command}", payload, *self.answered(answers, correlation),
                     *properties)
        wait_until(lambda: len(peer.heard()) >= replies, f"{replies} replies to {command}")
        found = [line.split(" ", 1) for line in peer.heard()]
        for one, _ in found:
            self.assertEqual(one, correlation)
        return [json.loads(reply) for _, reply in found]
