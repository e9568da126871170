"""The command line, the configuration file, and how the bridge begins and ends."""

import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import unittest

import broker
import support
import tovik


class Options(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_bridge(self, *arguments):
        return subprocess.run([os.environ["TOVIK_MQTT"], *arguments], capture_output=True,
                              text=True, timeout=support.DEADLINE)

    def file(self, name, text, mode=0o600):
        path = self.folder / name
        path.write_text(text)
        path.chmod(mode)
        return str(path)

    def test_that_are_wrong_are_refused_with_a_sentence(self):
        secret = self.file("open", "secret\n", 0o644)
        empty = self.file("empty", "\n")
        good = ("--broker", "b", "--prefix", "p", "lamp")
        for arguments, sentence in (
                ((), "--broker is required"),
                (("--broker", "b"), "there is nothing to do"),
                (("--broker", "b", "lamp"), "--prefix '' is no topic"),
                (("--broker", "b", "--prefix", "a/#", "lamp"), "--prefix 'a/#' is no topic"),
                (("--broker", "b:x", "--prefix", "p", "lamp"), "--broker 'b:x' is no HOST[:PORT]"),
                (("--broker", "::1", "--prefix", "p", "lamp"), "stands in brackets"),
                ((*good, "lamp"), "the name 'lamp' is used twice"),
                ((*good, "--import", "lamp=q/lamp"), "the name 'lamp' is used twice"),
                ((*good, "--import", "here=p/lamp"), "importing it would be a loop"),
                ((*good, "--import", "here"), "is no NAME=TOPIC"),
                ((*good, "--import", "here=a/+"), "--import 'a/+' is no topic"),
                ((*good, "--import", "x" * 107 + "=a"), "it has from 1 to 106 bytes"),
                ((*good, "--name", "lamp"), "the name 'lamp' is used twice"),
                ((*good, "--allow", "other:get"), "begins with no exported name"),
                ((*good, "--allow", "lamp:"), "has an empty command"),
                ((*good, "--qos", "2"), "--qos"),
                ((*good, "--frob"), "--frob"),
                ((*good, "--cert", secret), "--cert and --key go together"),
                ((*good, "--cafile", "/no/such"), "cannot be read: No such file"),
                ((*good, "--password-file", secret), "--password-file takes --user"),
                ((*good, "--user", "u", "--password-file", secret), "can be read by everybody"),
                ((*good, "--user", "u", "--password-file", empty), "has an empty first line"),
                ((*good, "--config", "/no/such"), "/no/such")):
            with self.subTest(" ".join(arguments)):
                done = self.run_bridge(*arguments)
                self.assertEqual(done.returncode, 2)
                self.assertIn(sentence, done.stderr)
                self.assertEqual(done.stderr.count("\n"), 1)
                self.assertTrue(done.stderr.startswith("tovik-mqtt: "))

    def test_may_stand_in_a_file(self):
        password = self.file("password", "secret\n")
        config = self.file("bridge.conf", f"""# comment
broker = "broker.local:8883"
prefix = "site/kitchen"
export = ["lamp", "heating"]
allow = ["lamp:switch,describe", "heating:get"]
import = ["door=site/hall/door"]
user = "kitchen"
password-file = "{password}"
tls = true
""")
        done = self.run_bridge("--config", config, "--check-config")
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_in_a_file_are_checked(self):
        for text, sentence in (("brokr = \"b\"\n", "brokr"),
                               ("broker = \"b\"\nexport = [\"a\", \"a\"]\nprefix = \"p\"\n",
                                "the name 'a' is used twice"),
                               ("broker = \"b\"\nimport = [\"a\"]\n", "is no NAME=TOPIC")):
            with self.subTest(text):
                done = self.run_bridge("--config", self.file("bad", text), "--check-config")
                self.assertEqual(done.returncode, 2, done)
                self.assertIn(sentence, done.stderr)

    def test_for_the_service_manager_are_those_it_knows(self):
        verify = shutil.which("systemd-analyze")
        if verify is None:
            self.skipTest("systemd-analyze is not here")
        built = pathlib.Path(os.environ["TOVIK_MQTT"])
        unit = self.folder / "tovik-mqtt@root.service"
        unit.write_text(re.sub("ExecStart=[^ ]*", f"ExecStart={built}",
                               (built.parent / "tovik-mqtt@.service").read_text()))
        done = subprocess.run([verify, "verify", "--man=no", unit], capture_output=True, text=True)
        self.assertNotIn(unit.name + ":", done.stderr)
        self.assertEqual(done.returncode, 0, done.stderr)

    def test_stand_in_the_manual_page(self):
        page = (pathlib.Path(os.environ["TOVIK_MQTT"]).parent / "tovik-mqtt.1").read_text()
        done = subprocess.run(["man", "--warnings", "-l", "-"], input=page, capture_output=True,
                              text=True) if shutil.which("man") else None
        if done is not None:
            self.assertEqual(done.stderr, "")
        for option in set(re.findall(r"--[a-z-]+", self.run_bridge("--help").stdout)):
            self.assertIn(option.replace("-", "\\-"), page)

    def test_are_explained(self):
        done = self.run_bridge("--help")
        self.assertEqual(done.returncode, 0)
        for option in ("--broker", "--import", "--allow", "--password-file", "--check-config"):
            self.assertIn(option, done.stdout)
        self.assertRegex(self.run_bridge("--version").stdout, r"^tovik-mqtt \d")


class Life(broker.Case):
    def test_tells_the_service_manager(self):
        path = str(self.folder / "notify")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(path)
            manager.settimeout(support.DEADLINE)
            bridge = self.bridge("--prefix", self.prefix, support.unique_name(),
                                 env={**os.environ, "NOTIFY_SOCKET": path})
            self.assertEqual(manager.recv(100), b"READY=1")
            self.assertEqual(bridge.kill(signal.SIGTERM), 0)
            self.assertEqual(manager.recv(100), b"STOPPING=1")

    def test_ends_if_the_name_for_the_statistics_is_taken(self):
        lamp = self.lamp()
        bridge = self.bridge("--prefix", self.prefix, "other", name=lamp.name)
        self.assertEqual(bridge.process.wait(support.DEADLINE), 2)
        self.assertIn("choose another one with --name", bridge.log())

    def test_is_told_by_a_service(self):
        lamp = self.exported()
        name = lamp.bridge.arguments[lamp.bridge.arguments.index("--name") + 1]
        described = tovik.call(name, {"command": "describe"}, support.DEADLINE).result
        self.assertEqual([one["name"] for one in described["commands"]], ["statistics"])
        self.call(lamp.base, "add", '{"a":1,"b":2}')
        self.call(lamp.base, "add", '[]', correlation="c2")
        found = tovik.call(name, {"command": "statistics"}, support.DEADLINE).result
        self.assertEqual((found["there"], found["broker"], found["calls"], found["refused"]),
                         (True, True, 1, 1))

    def test_goes_on_while_no_broker_is_there(self):
        self.broker.kill()
        bridge = self.bridge("--prefix", self.prefix, support.unique_name())
        bridge.says("cannot connect to the broker: Connection refused")
        self.start_broker()
        bridge.says("connected to the broker")

    def test_takes_a_host_whose_first_address_does_not_answer(self):
        # "localhost" is ::1 first, where it is there; the broker listens on 127.0.0.1 alone.
        bridge = self.bridge("--broker", f"localhost:{self.port}", "--prefix", self.prefix, "x")
        bridge.says("connected to the broker")

    def test_says_that_another_bridge_has_the_same_name(self):
        lamp = self.exported()
        second = self.bridge("--prefix", self.prefix, lamp.name)
        second.says("connected")
        support.wait_until(lambda: "does another bridge export this name, too?" in
                           lamp.bridge.log() + second.log())


class LargePackets(broker.Case):
    def test_are_kept_away_by_the_broker(self):
        lamp = self.exported()
        self.publish(lamp.base + "/call/echo", "x" * 100000)
        self.publish(lamp.base + "/call/echo", "x" * 50000)
        lamp.bridge.says("not 50000")
        self.assertNotIn("not 100000", lamp.bridge.log())
