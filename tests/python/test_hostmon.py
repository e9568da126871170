"""The package and this system's C++ code, each as the other's server."""

import os
import subprocess

import support
import tovik
import tovik.testing

UNKNOWN_COMMAND = 1
BAD_ARGUMENT = 2


class ClientOfACppServer(support.HostmonCase):
    def setUp(self):
        self.name = support.unique_name()
        self.process = self.serve(self.name)

    def client(self):
        client = tovik.Client(self.name, timeout=support.DEADLINE, server_uid=os.geteuid())
        self.addCleanup(client.close)
        return client

    def test_gets_statuses_and_messages(self):
        client = self.client()
        self.assertEqual(client.call({"command": "interval", "seconds": 5}), 0)
        self.assertEqual(client.call({"command": "interval", "seconds": -1}), BAD_ARGUMENT)
        self.assertEqual(client.call({"command": "dance"}), UNKNOWN_COMMAND)
        client.send({"command": "get", "value": "uptime"})
        self.assertEqual(client.receive().keys(), {"type", "uptime"})

    def test_gets_notifications(self):
        self.assertEqual(self.client().call({"command": "interval", "seconds": 0.1}), 0)
        client = self.client()
        client.subscribe()
        for message, _count in zip(client, range(3)):
            self.assertEqual(message["type"], "hostmon")

    def test_sends_the_largest_record(self):
        filler = "x" * (4094 - len('{"command":"dance","filler":""}'))
        self.assertEqual(self.client().call({"command": "dance", "filler": filler}),
                         UNKNOWN_COMMAND)

    def test_knows_the_server(self):
        self.assertEqual(self.client().server.pid, self.process.pid)

    def test_reports_that_the_server_has_ended(self):
        client = self.client()
        self.assertEqual(client.call({"command": "dance"}), UNKNOWN_COMMAND)
        self.stop(self.process)
        with self.assertRaises(tovik.ConnectionLost):
            client.call({"command": "dance"})


class AsyncClientOfACppServer(support.AsyncCase, support.HostmonCase):
    async def test_reconnects_when_the_server_is_killed_and_started_again(self):
        self.name = support.unique_name()
        self.process = self.serve(self.name)
        losses = []
        async with tovik.AsyncClient(self.name, reconnect=0.02, subscribe=True,
                                     on_loss=lambda: losses.append(1)) as client:
            messages = client.__aiter__()
            for count in (1, 2, 3):
                await self.within(client.wait_connected())
                message = await self.within(messages.__anext__())
                self.assertEqual(message["type"], "hostmon")
                self.process.kill()
                await self.until(lambda: len(losses) == count)
                self.process.wait(support.DEADLINE)
                self.process = self.serve(self.name)


class CppClientOfTheServer(support.HostmonCase):
    def setUp(self):
        self.name = support.unique_name()
        self.handler = lambda message: 0

    def serve_python(self, **options):
        server = tovik.testing.Server(self.name, lambda message: self.handler(message), **options)
        server.__enter__()
        self.addCleanup(server.__exit__, None, None, None)
        return server

    def call(self, *commands):
        done = subprocess.run([os.environ["HOSTMON"], "call", self.name, *commands],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              timeout=support.DEADLINE)
        return done.stdout.splitlines()

    def test_that_blocks_gets_statuses_and_messages(self):
        server = self.serve_python()
        self.handler = lambda message: {"v": 1} if message["command"] == "get" else 2147483647
        self.assertEqual(self.call('{"command":"x"}', '{"command":"get"}'),
                         ['{"command":"x"} -> reply with status 2147483647',
                          '{"command":"get"} -> {"v":1}'])
        self.assertEqual(server.received, [{"command": "x"}, {"command": "get"}])

    def test_that_blocks_refuses_a_status_out_of_range(self):
        self.serve_python()
        self.handler = lambda message: 2147483648
        self.assertEqual(self.call('{"command":"x"}'), ['{"command":"x"} -> no reply'])

    def test_that_is_not_admitted_gets_no_answer(self):
        self.serve_python(validator=lambda peer: False)
        (line,) = self.call('{"command":"x"}')
        self.assertRegex(line, "no (answer|reply)")

    def test_that_subscribes_gets_notifications_and_reconnects(self):
        watcher = self.start("watch", self.name)
        for turn in (1, 2):
            with tovik.testing.Server(self.name) as server:
                support.wait_until(lambda: server.subscribers == 1)
                server.notify({"type": "hostmon", "turn": turn})
                lines = self.lines_until(watcher, "notification")
                self.assertIn('"turn":%d' % turn, lines[-1])
            self.lines_until(watcher, "connection lost")
