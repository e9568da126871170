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
        self.process = subprocess.Popen([os.environ["LOOP"], self.name], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        self.addCleanup(self.process.wait)
        self.addCleanup(self.process.kill)
        self.addCleanup(self.process.stdin.close)
        self.addCleanup(self.process.stdout.close)
        self.assertEqual(self.process.stdout.readline(), "ready\n")
        self.by_typing = "poll" in pathlib.Path(os.environ["LOOP"]).name

    def client(self):
        client = tovik.Client(self.name, timeout=support.DEADLINE)
        self.addCleanup(client.close)
        return client

    def end(self):
        if self.by_typing:
            self.process.stdin.close()
        else:
            self.assertEqual(self.client().call({"stop": True}), 0)

    def test_serves_and_broadcasts_what_its_host_has_and_ends(self):
        self.assertEqual(self.client().call({"a": 1}), 0)
        subscriber = self.client()
        subscriber.subscribe()
        if self.by_typing:
            self.process.stdin.write("hello\n")
            self.process.stdin.flush()
            self.assertEqual(subscriber.receive(), {"typed": "hello\n"})
        else:
            self.assertEqual([subscriber.receive(), subscriber.receive()], [{"tick": True}] * 2)
        self.end()
        self.assertEqual(self.process.stdout.readline(), "done\n")
        self.assertEqual(self.process.wait(support.DEADLINE), 0)
