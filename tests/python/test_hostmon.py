"""The plain clients of the package, and the example service's own, with that service in C++."""

import os
import signal

import support
import tovik

UNKNOWN_COMMAND = 38
BAD_ARGUMENT = 22


class Client(support.HostmonCase):
    def setUp(self):
        self.name = support.unique_name()
        self.program = self.serve(self.name)

    def client(self):
        client = tovik.Client(self.name, timeout=support.DEADLINE, server_uid=os.geteuid())
        self.addCleanup(client.close)
        return client

    def test_gets_statuses_and_results(self):
        client = self.client()
        self.assertEqual(client.call({"command": "interval", "seconds": 5}), 0)
        self.assertEqual(client.call({"command": "interval", "seconds": -1}), BAD_ARGUMENT)
        self.assertEqual(client.call({"command": "dance"}), UNKNOWN_COMMAND)
        client.send({"command": "get", "value": "uptime"})
        self.assertGreater(client.receive()["result"], 0)

    def test_gets_notifications(self):
        self.assertEqual(self.client().call({"command": "interval", "seconds": 0.1}), 0)
        client = self.client()
        client.subscribe()
        for message, _count in zip(client, range(3)):
            self.assertEqual(message["topic"], "host")

    def test_sends_the_largest_record(self):
        filler = "x" * (4094 - len('{"command":"interval","seconds":5,"filler":""}'))
        call = {"command": "interval", "seconds": 5, "filler": filler}
        self.assertEqual(self.client().call(call), 0)

    def test_knows_the_server(self):
        self.assertEqual(self.client().server.pid, self.program.process.pid)

    def test_reports_that_the_server_has_ended(self):
        client = self.client()
        self.assertEqual(client.call({"command": "dance"}), UNKNOWN_COMMAND)
        self.program.kill()
        with self.assertRaises(tovik.ConnectionLost):
            client.call({"command": "dance"})


class AsyncClient(support.AsyncCase, support.HostmonCase):
    async def test_reconnects_when_the_server_is_killed_and_started_again(self):
        self.name = support.unique_name()
        self.program = self.serve(self.name)
        losses = []
        async with tovik.AsyncClient(self.name, reconnect=0.02, subscribe=True,
                                     on_loss=lambda: losses.append(1)) as client:
            messages = client.__aiter__()
            for count in (1, 2, 3):
                await self.within(client.wait_connected())
                message = await self.within(messages.__anext__())
                self.assertEqual(message["topic"], "host")
                self.program.kill()
                await self.until(lambda: len(losses) == count)
                self.program = self.serve(self.name)


class Hostmon(support.HostmonCase):
    """The example's own callers."""

    def setUp(self):
        self.name = support.unique_name()

    def call(self, *commands):
        program = self.start("call", self.name, *commands)
        return program.process.wait(support.DEADLINE), program.lines()

    def test_prints_results_and_reasons(self):
        self.serve(self.name)
        status, lines = self.call('{"command":"interval","seconds":5}',
                                  '{"command":"get","value":"uptime"}', '{"command":"dance"}')
        self.assertEqual(status, 1)
        self.assertEqual(lines[0], '{"command":"interval","seconds":5} -> done')
        self.assertRegex(lines[1], r"-> [0-9.]+$")
        self.assertEqual(lines[2], f'{{"command":"dance"}} -> {self.name}: dance: '
                                   "no command 'dance'")

    def test_says_that_nobody_serves(self):
        self.assertEqual(self.call("{}"), (1, [f"{{}} -> {self.name}: call: Connection refused"]))

    def test_follows_across_restarts(self):
        watcher = self.start("watch", self.name)
        for turn in (1, 2):
            server = self.serve(self.name)
            watcher.says('"snapshot":true', turn)
            self.assertEqual(server.kill(signal.SIGTERM), 0)
            watcher.says("lost", turn)
