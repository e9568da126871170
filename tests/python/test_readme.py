"""The examples of the package's README, run as they stand."""

import re
import sys
import unittest

import support
import tovik
import tovik.testing


class Readme(unittest.TestCase):
    def setUp(self):
        self.name = support.unique_name()
        text = (support.PACKAGE / "README.md").read_text()
        blocks = re.findall(r"```python\n(.*?)```", text, re.S)
        (self.blocking, self.batch, self.asynchronous, self.plain, self.service, self.proxy,
         self.admitted, self.server) = (
            block.replace('"adder"', f'"{self.name}"') for block in blocks)

    def start(self, text):
        path = f"import sys; sys.path.insert(0, {sys.path[0]!r})\n"
        return support.Program(self, [sys.executable, "-B", "-u", "-c", path + text])

    def ended(self, text):
        """What that prints, to its end."""
        program = self.start(text)
        self.assertEqual(program.process.wait(support.DEADLINE), 0, program.log())
        return program.text()

    def test_blocking_client_prints_the_status(self):
        with tovik.testing.Server(self.name, lambda message: message["add"]):
            self.assertEqual(self.ended(self.blocking), "5\n")

    def test_batch_is_handled_as_a_whole(self):
        with tovik.testing.Server(self.name) as server:
            self.ended(self.batch)
        self.assertEqual(server.received, [{"add": n} for n in range(100)])

    def test_asyncio_client_prints_notifications(self):
        with tovik.testing.Server(self.name) as server:
            program = self.start(self.asynchronous)
            support.wait_until(lambda: server.subscribers == 1)
            server.notify({"total": 5})
            program.says("{'total': 5}\n")

    def test_plain_server_answers_and_notifies(self):
        self.start(self.plain)
        support.wait_until(lambda: support.listens(self.name))
        with tovik.Client(self.name, timeout=support.DEADLINE) as caller, \
                tovik.Client(self.name, timeout=support.DEADLINE) as follower:
            follower.subscribe()
            self.assertEqual([caller.call(each) for each in ({"add": 5}, {"add": "5"})], [0, 1])
            self.assertEqual(follower.receive(), {"total": 5})

    def test_admission_is_made_of_rules(self):
        self.ended(self.admitted)

    def test_service_answers_with_a_value(self):
        self.start(self.service)
        support.wait_until(lambda: support.listens(self.name))
        with tovik.Client(self.name, timeout=support.DEADLINE) as client:
            for total in (5, 10):
                client.send({"command": "add", "number": 5})
                self.assertEqual(client.receive(), {"type": "reply", "status": 0, "result": total})

    def test_proxy_prints_events_and_results(self):
        self.start(self.service)
        support.wait_until(lambda: support.listens(self.name))
        output = self.ended(self.proxy)
        self.assertIn("'snapshot': True, 'total': 0}\n", output)
        self.assertIn("\n5\n", output)

    def test_server_for_tests_passes_its_own_test(self):
        self.ended(self.server)
