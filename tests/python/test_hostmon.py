"""The example service in C++: its own callers, and a plain client of the package."""

import signal

import support
import tovik


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
                                  '{"command":"get","value":"uptime"}', '{"command":"dance"}',
                                  '{"command":"interval","seconds":-1}')
        self.assertEqual(status, 1)
        self.assertEqual(lines[0], '{"command":"interval","seconds":5} -> done')
        self.assertRegex(lines[1], r"-> [0-9.]+$")
        self.assertEqual(lines[2], f'{{"command":"dance"}} -> {self.name}: dance: '
                                   "no command 'dance'")
        self.assertIn("interval: an interval is from 0.1 s", lines[3])

    def test_says_that_nobody_serves(self):
        self.assertEqual(self.call("{}"), (1, [f"{{}} -> {self.name}: call: Connection refused"]))

    def test_follows_across_restarts(self):
        watcher = self.start("watch", self.name)
        for turn in (1, 2):
            server = self.serve(self.name)
            watcher.says('"snapshot":true', turn)
            self.assertEqual(server.kill(signal.SIGTERM), 0)
            watcher.says("lost", turn)
