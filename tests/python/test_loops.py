"""The example servers in foreign loops. LOOP is the program."""

import os
import pathlib
import subprocess
import unittest

import support
import tovik


class LoopExample(unittest.TestCase):
    def setUp(self):
        self.name = support.unique_name()
        self.program = support.Program(self, [os.environ["LOOP"], self.name],
                                       stdin=subprocess.PIPE)
        self.program.says("ready\n")
        self.by_typing = "poll" in pathlib.Path(os.environ["LOOP"]).name

    def client(self):
        client = tovik.Client(self.name, timeout=support.DEADLINE)
        self.addCleanup(client.close)
        return client

    def end(self):
        if self.by_typing:
            self.program.close_input()
        else:
            self.assertEqual(self.client().call({"stop": True}), 0)

    def test_serves_and_broadcasts_what_its_host_has_and_ends(self):
        self.assertEqual(self.client().call({"a": 1}), 0)
        subscriber = self.client()
        subscriber.subscribe()
        if self.by_typing:
            self.program.write(b"hello\n")
            self.assertEqual(subscriber.receive(), {"typed": "hello\n"})
        else:
            self.assertEqual([subscriber.receive(), subscriber.receive()], [{"tick": True}] * 2)
        self.end()
        self.assertEqual(self.program.process.wait(support.DEADLINE), 0)
        self.assertEqual(self.program.lines(), ["ready", "done"])
