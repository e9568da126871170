"""The service for asyncio: what handlers and clients may do to it. test_conformance has what goes
over the wire, and test_server what every server does with its sessions and its name."""

import asyncio
import json
import os

import support
import tovik


class Case(support.AsyncCase):
    async def serve(self, **options):
        self.name = support.unique_name()
        self.released = asyncio.Event()
        service = tovik.Service(self.name, lambda peer: peer.uid == os.geteuid(), calls=4,
                                **options)
        self.add_commands(service)
        service.topic("state", "Whether it is on.", keeps_last=True, latest=True)
        service.topic("tick", "Counts.")
        service.publish("state", {"on": False})
        return await self.enterAsyncContext(service)

    def add_commands(self, service):
        @service.command("wait", "Waits for go.")
        async def wait(request):
            await self.released.wait()
            return "waited"

        service.command("raise", "Has a fault.")(lambda request: 1 // 0)
        service.command("nothing", "Does nothing.")(lambda request: None)


class Service(Case):
    async def test_logs_a_handler_that_raises_and_fails_its_call_alone(self):
        await self.serve()
        with self.peer() as peer, self.assertLogs("tovik") as logs:
            for command, status in (("raise", 5), ("nothing", 0)):
                peer.send(json.dumps({"command": command}).encode())
                self.assertEqual((await self.receive(peer))["status"], status)
        self.assertIn("ZeroDivisionError", "".join(logs.output))

    async def test_refuses_an_event_that_cannot_be_sent(self):
        service = await self.serve()
        with self.peer() as peer:
            peer.send(b'{"command":"subscribe","topics":["tick"]}')
            await self.receive(peer)
            for topic, event, error in (("none", {}, KeyError), ("tick", {"type": 1}, ValueError),
                                        ("tick", {"x": "x" * 5000}, tovik.TooLong)):
                with self.assertRaises(error):
                    service.publish(topic, event)
            service.publish("tick", {"n": 1})
            self.assertEqual((await self.receive(peer))["n"], 1)

    async def test_tells_of_clients_that_come_and_go_and_cancels_their_calls(self):
        events, cancelled = [], asyncio.Event()
        service = await self.serve(on_join=lambda session: events.append(session.peer.pid),
                                   on_leave=lambda session: events.append(session.number))

        @service.command("hang", "Waits for ever.")
        async def hang(request):
            try:
                await asyncio.Event().wait()
            finally:
                cancelled.set()
        with self.peer() as peer:
            peer.send(b'{"command":"hang"}')
            await self.until(lambda: any(session.tasks for session in service.sessions))
        await self.within(cancelled.wait())
        await self.until(lambda: len(events) == 2)
        self.assertEqual(events, [os.getpid(), 1])

    async def test_ends_a_session_that_does_not_read_and_no_other(self):
        service = await self.serve()
        with self.peer() as stalled, self.peer() as reader:
            for peer in (stalled, reader):
                peer.send(b'{"command":"subscribe","topics":["tick"]}')
                self.assertEqual((await self.receive(peer))["status"], 0)
            n = 0
            while len(service.sessions) == 2:
                service.publish("tick", {"n": n, "fill": "x" * 3000})
                self.assertEqual((await self.receive(reader))["n"], n)
                n += 1
                self.assertLess(n, 1000)

    async def test_keeps_the_latest_event_alone_for_a_session_that_does_not_read(self):
        service = await self.serve()
        with self.peer() as peer:
            peer.send(b'{"command":"subscribe","topics":["state"]}')
            await self.receive(peer)
            for n in range(1000):
                service.publish("state", {"n": n, "fill": "x" * 3000})
            (session,) = service.sessions
            self.assertEqual(session.queued[0], 1)
            while (await self.receive(peer)).get("n") != 999:
                pass

    async def test_ends_a_session_that_floods_it_with_calls_that_wait(self):
        service = await self.serve()
        with self.peer() as peer:
            for _ in range(20):
                peer.send(b'{"command":"wait"}')
            await self.until(lambda: not service.sessions)
