"""The sample clients in other languages, built as a reader would and run against a C++ service."""

import os
import pathlib
import subprocess
import tempfile

import support
import tovik.testing

SAMPLES = support.SOURCE / "examples" / "languages"


class Sample:
    """What every sample does. The languages are below."""

    SOURCE = ""
    LINES = 40

    @classmethod
    def build(cls, folder):
        """The command that runs the sample."""
        raise NotImplementedError

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.command = cls.build(pathlib.Path(folder.name))

    def setUp(self):
        self.name = support.unique_name()

    def run_sample(self, message, name=None):
        done = subprocess.run([*self.command, name or self.name, message], text=True,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, timeout=support.DEADLINE)
        return done.returncode == 0, done.stdout

    def test_prints_replies(self):
        self.serve(self.name)
        self.assertEqual(self.run_sample('{"command":"interval","seconds":5}'),
                         (True, '{"type":"reply","status":0}\n'))
        done, answer = self.run_sample('{"command":"get","value":"uptime"}')
        self.assertTrue(done and answer.startswith('{"type":"reply","status":0,"result":'), answer)

    def test_fails_without_a_server_and_without_an_answer(self):
        self.assertEqual(self.run_sample("{}"), (False, ""))
        name = support.unique_name()
        with tovik.testing.Server(name, validator=lambda peer: False):
            self.assertEqual(self.run_sample("{}", name), (False, ""))

    def test_takes_the_longest_name(self):
        longest = self.name.ljust(106, "x")
        self.serve(longest)
        self.assertEqual(self.run_sample('{"command":"interval","seconds":5}', longest),
                         (True, '{"type":"reply","status":0}\n'))

    def test_is_short(self):
        lines = (SAMPLES / self.SOURCE).read_text().count("\n")
        self.assertLessEqual(lines, self.LINES)


class C(Sample, support.HostmonCase):
    SOURCE = "client.c"

    @classmethod
    def build(cls, folder):
        subprocess.run([os.environ["TOOL"], "-std=gnu11", "-Wall", "-Wextra", "-Wpedantic",
                        "-Werror", SAMPLES / cls.SOURCE, "-o", folder / "client"], check=True)
        return [folder / "client"]


class Shell(Sample, support.HostmonCase):
    SOURCE = "client.sh"

    @classmethod
    def build(cls, folder):
        return [SAMPLES / cls.SOURCE]


class Rust(Sample, support.HostmonCase):
    SOURCE = "client.rs"

    @classmethod
    def build(cls, folder):
        subprocess.run([os.environ["TOOL"], "--edition", "2021", "-D", "warnings",
                        SAMPLES / cls.SOURCE, "-o", folder / "client"], check=True)
        return [folder / "client"]


class Go(Sample, support.HostmonCase):
    SOURCE = "client.go"

    @classmethod
    def build(cls, folder):
        environment = dict(os.environ, GOCACHE=str(folder / "cache"), GOPATH=str(folder / "path"),
                           GO111MODULE="off")
        subprocess.run([os.environ["TOOL"], "build", "-o", folder / "client", SAMPLES / cls.SOURCE],
                       check=True, env=environment)
        return [folder / "client"]
