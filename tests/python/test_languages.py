"""The samples in other languages, built as a reader would and run against a C++ service and this
package."""

import contextlib
import os
import pathlib
import subprocess
import tempfile
import time
import unittest

import support
import tovik
import tovik.testing

SAMPLES = support.SOURCE / "examples" / "languages"
NOBODY = 65534
REPLY = '{"type":"reply","status":0}\n'


class Client:
    """What every client does. The languages are below."""

    SUFFIX = ""
    LINES = 40
    PROGRAMS = ("client",)

    @classmethod
    def build(cls, source, program):
        """The command that runs the sample."""
        raise NotImplementedError

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        cls.folder.chmod(0o755)  # for other users
        cls.commands = {
            program: cls.build(SAMPLES / (program + cls.SUFFIX), cls.folder / program)
            for program in cls.PROGRAMS}

    def setUp(self):
        self.name = support.unique_name()

    def run_sample(self, message, name=None, **options):
        done = self.run_words("client", name or self.name, message, **options)
        return done.returncode == 0, done.stdout

    def run_words(self, program, *words, **options):
        return subprocess.run([*self.commands[program], *words], text=True,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, timeout=support.DEADLINE, **options)

    def test_prints_replies(self):
        self.serve(self.name)
        self.assertEqual(self.run_sample('{"command":"interval","seconds":5}'), (True, REPLY))
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
                         (True, REPLY))
        self.assertEqual(self.run_sample("{}", longest + "x"), (False, ""))

    def test_says_how_it_is_used(self):
        for program in self.PROGRAMS:
            done = self.run_words(program)
            self.assertEqual((done.returncode, done.stdout), (2, ""), done.stderr)
            self.assertTrue(done.stderr.startswith(f"usage: {program}"), done.stderr)

    def test_is_short(self):
        for program in self.PROGRAMS:
            lines = (SAMPLES / (program + self.SUFFIX)).read_text().count("\n")
            self.assertLessEqual(lines, self.LINES, program)


class ServerAndFollower(Client):
    """What a language's server, and its client that reconnects, do."""

    LINES = 80
    PROGRAMS = ("client", "follow", "serve")

    def running(self, program):
        return support.Program(self, [*self.commands[program], self.name])

    def test_serves_many_clients(self):
        server = self.running("serve")
        support.wait_until(lambda: support.listens(self.name))
        with contextlib.ExitStack() as stack:
            clients = [stack.enter_context(tovik.Client(self.name, timeout=support.DEADLINE))
                       for _ in range(20)]
            expected = []
            for turn in range(3):
                for n, client in enumerate(clients):
                    self.assertEqual(client.call({"n": n, "turn": turn}), 0)
                    expected.append(f'{{"n":{n},"turn":{turn}}}')
            self.assertEqual(server.prints(60), expected)
            for client in clients[::2]:
                client.close()
            self.assertEqual(self.run_sample('{"last":1}'), (True, REPLY))

    @unittest.skipIf(os.geteuid() != 0, "takes another user")
    def test_serves_nobody_of_another_user(self):
        server = self.running("serve")
        support.wait_until(lambda: support.listens(self.name))
        self.assertEqual(self.run_sample('{"n":1}', user=NOBODY), (False, ""))
        self.assertEqual(self.run_sample('{"n":2}'), (True, REPLY))
        self.assertEqual(server.prints(1), ['{"n":2}'])

    def test_follows_across_losses(self):
        follower, expected = self.running("follow"), []
        for turn in range(2):
            with tovik.testing.Server(self.name) as server:
                support.wait_until(lambda: server.subscribers == 1)
                for n in range(3):
                    server.notify({"turn": turn, "n": n})
                    expected.append(f'{{"turn":{turn},"n":{n}}}')
                self.assertEqual(follower.prints(len(expected)), expected)


class C(ServerAndFollower, support.HostmonCase):
    SUFFIX = ".c"

    @classmethod
    def build(cls, source, program):
        subprocess.run([os.environ["TOOL"], "-std=c99", "-Wall", "-Wextra", "-Wpedantic",
                        "-Wconversion", "-Wshadow", "-Werror", "-g",
                        "-fsanitize=address,undefined", source, "-o", program], check=True)
        return [program]

    def failure(self, *words):
        done = self.run_words("client", *words)
        self.assertEqual((done.returncode, done.stdout), (1, ""), done.stderr)
        return done.stderr

    def test_gives_up_at_its_limit(self):
        with tovik.testing.Server(self.name, lambda message: None):
            start = time.monotonic()
            self.assertIn("timed out", self.failure(self.name, "{}", "200"))
            self.assertGreaterEqual(time.monotonic() - start, 0.19)
        with support.listener(self.name) as listener:
            listener.listen(0)
            with tovik.Client(self.name):  # which takes the only place
                start = time.monotonic()
                self.assertIn("timed out", self.failure(self.name, "{}", "200"))
                self.assertGreaterEqual(time.monotonic() - start, 0.19)

    def test_sends_no_record_that_a_server_would_misread(self):
        with tovik.testing.Server(self.name) as server:
            self.assertIn("too long", self.failure(self.name, "x" * 4095))
            self.assertIn("Invalid argument", self.failure(self.name, ""))
            longest = '{"m":"' + "x" * (4094 - len('{"m":""}')) + '"}'
            self.assertEqual(self.run_sample(longest), (True, REPLY))
        self.assertEqual(server.received, [{"m": "x" * (4094 - len('{"m":""}'))}])

    def test_finds_the_status_among_other_members(self):
        for record in ('{"status":0,"type":"reply"}', ' { "type" : "reply" , "status" : 7 } ',
                       '{"a":{"status":1,"b":["]",{"type":1}]},"type":"reply","status":2147483647}',
                       '{"a":"\\\\","type":"reply","b":"\\"status\\":1,","status":0,"status":-1}'):
            self.assertEqual(self.answer(record), (0, record + "\n"), record)

    def test_takes_nothing_else_for_a_reply(self):
        for record in ('{"type":"Reply","status":0}', '{"type":"reply"}', '{"status":0}', "[1,2]",
                       '{"type":"reply","status":-1}', '{"type":"reply","status":1.5}',
                       '{"type":"reply","status":2147483648}', '{"type":"reply","status":"0"}',
                       '{"type":"reply","status":99999999999999999999999}', '{"type', "{", "{,,,",
                       '{"type":"reply","status":0', '{"a":"\\', '{"type":"reply","status"', '"',
                       '{"type":"reply","sub":{"status":0}}', "{}".ljust(4095), "x" * 9000):
            self.assertEqual(self.answer(record), (1, ""), record)

    def answer(self, record):
        """What comes of that record."""
        with tovik.testing.Server(self.name, lambda message: server.send_raw(record.encode())) \
                as server:
            done = self.run_words("client", self.name, "{}")
        if done.returncode:
            self.assertIn("Protocol error", done.stderr)
        return done.returncode, done.stdout


class Shell(Client, support.HostmonCase):
    SUFFIX = ".sh"

    @classmethod
    def build(cls, source, program):
        return [source]


class Rust(ServerAndFollower, support.HostmonCase):
    SUFFIX = ".rs"

    @classmethod
    def build(cls, source, program):
        subprocess.run([os.environ["TOOL"], "--edition", "2021", "-D", "warnings", source, "-o",
                        program], check=True)
        return [program]


class Go(ServerAndFollower, support.HostmonCase):
    SUFFIX = ".go"

    @classmethod
    def build(cls, source, program):
        environment = dict(os.environ, GOCACHE=str(cls.folder / "cache"),
                           GOPATH=str(cls.folder / "path"), GO111MODULE="off")
        subprocess.run([os.environ["TOOL"], "build", "-o", program, source], check=True,
                       env=environment)
        return [program]
