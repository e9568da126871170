"""The plain server for asyncio, against raw records and this package's clients."""

import asyncio
import os

import support
import tovik

ON = {"command": "set", "notification": True}
OFF = {"command": "set", "notification": False}


def status(number):
    return {"type": "reply", "status": number}


async def hang(client, message):
    await asyncio.Event().wait()


class Case(support.AsyncCase):
    def setUp(self):
        self.name = support.unique_name()
        self.received = []

    def handle(self, client, message):
        self.received.append(message)
        return message.get("answer", 0)

    async def serve(self, handler=None, admission=tovik.admission.same_user(), **options):
        return await self.enterAsyncContext(
            tovik.Server(self.name, admission, handler or self.handle, **options))

    async def answers(self, peer, *messages):
        """What comes back for these, up to the answer to a message that gets one in any case."""
        for message in (*messages, {"answer": {"last": True}}):
            peer.send(message if isinstance(message, bytes) else tovik.encode(message))
        found = []
        while not found or found[-1] not in ({"last": True}, None):
            found.append(await self.receive(peer))
        return found[:-1] if found[-1] else found

    async def subscriber(self, server):
        peer, before = self.peer(), sum(each.subscribed for each in server.sessions)
        peer.send(tovik.encode(ON))
        self.assertEqual(await self.receive(peer), status(0))
        await self.until(lambda: sum(each.subscribed for each in server.sessions) > before)
        return peer


class Server(Case):
    async def test_answers_with_what_its_handler_gives(self):
        await self.serve()
        self.assertEqual(await self.answers(self.peer(), {"answer": 3}, {"answer": None},
                                            {"answer": {"load": 0.5}}, {}),
                         [status(3), {"load": 0.5}, status(0)])
        self.assertEqual(self.received[0], {"answer": 3})

    async def test_answers_in_the_order_of_the_messages_when_its_handler_waits(self):
        events = [asyncio.Event() for _ in range(3)]

        async def handle(client, message):
            await events[message["n"]].wait()
            return message["n"]

        server = await self.serve(handle)
        peer = self.peer()
        for n in range(3):
            peer.send(tovik.encode({"n": n}))
        await self.until(lambda: any(len(each.tasks) == 3 for each in server.sessions))
        for event in reversed(events):
            event.set()
        self.assertEqual([await self.receive(peer) for _ in range(3)], [*map(status, range(3))])

    async def test_keeps_the_switch_to_itself_and_answers_it_unless_it_was_on(self):
        await self.serve()
        self.assertEqual(await self.answers(self.peer(), ON, ON, OFF, OFF, {"answer": 5}),
                         [status(0), status(0), status(5)])
        self.assertEqual(self.received[0], {"answer": 5})

    async def test_sends_no_replies_to_a_subscriber_but_messages(self):
        await self.serve()
        self.assertEqual(
            await self.answers(self.peer(), ON, {"a": 1}, {"answer": {"own": 1}}, OFF, {}),
            [status(0), {"own": 1}, status(0)])

    async def test_takes_for_messages_and_swallows_what_the_protocol_says(self):
        await self.serve()
        self.assertEqual(
            await self.answers(self.peer(), {"command": "set", "notification": 1},
                               {"command": "set", "notification": None}, {"command": "set"},
                               {"command": "get", "notification": True}),
            [status(0), status(0)])
        self.assertEqual(len(self.received), 3)

    async def test_notifies_its_subscribers_and_says_how_many(self):
        server = await self.serve()
        peers, other = [await self.subscriber(server) for _ in range(3)], self.peer()
        self.assertEqual(server.notify({"n": 1}), 3)
        for peer in peers:
            self.assertEqual(await self.receive(peer), {"n": 1})
        self.assertEqual(await self.answers(other), [])

    async def test_sends_messages_of_its_own_to_one_client(self):
        server = await self.serve(on_join=lambda session: session.send({"hello": session.number}))
        self.assertEqual(await self.receive(self.peer()), {"hello": 1})
        (session,) = server.sessions
        with self.assertRaises(tovik.TooLong):
            session.send({"x": "x" * 5000})

    async def test_frees_its_name_and_everything_else_at_its_end(self):
        before = set(os.listdir("/proc/self/fd"))

        for _ in range(2):
            async with tovik.Server(self.name, tovik.admission.same_user(), hang) as server:
                with self.assertRaisesRegex(OSError, f"in use: '{self.name}'"):
                    await self.serve()
                with self.peer() as peer:
                    peer.send(b"{}")
                    await self.until(lambda: any(each.tasks for each in server.sessions))
        self.assertEqual(set(os.listdir("/proc/self/fd")), before)
        self.assertEqual(len(asyncio.all_tasks()), 1)


class Admission(Case):
    def test_has_no_default(self):
        with self.assertRaises(TypeError):
            tovik.Server(self.name, handler=self.handle)
        with self.assertRaises(TypeError):
            tovik.Service(self.name)
        for nobody in (None, True, 1000):
            for make in (lambda: tovik.Server(self.name, nobody, self.handle),
                         lambda: tovik.Service(self.name, nobody)):
                with self.assertRaisesRegex(TypeError, "is told whom to admit"):
                    make()

    async def test_refuses_before_anything_is_read_and_logs_who_it_was(self):
        with self.assertLogs("tovik", "WARNING") as logs:
            await self.serve(admission=tovik.admission.users(os.geteuid() + 1))
            peer = self.peer()
            peer.send(b"{}")
            self.assertIsNone(await self.receive_or_reset(peer))
        self.assertIn(f"refused Credentials(pid={os.getpid()}, uid={os.geteuid()}", logs.output[0])
        self.assertEqual(self.received, [])

    async def test_takes_no_coroutine_for_a_yes(self):
        async def anyone(peer):
            return True

        coroutines = []

        def asks(peer):
            coroutines.append(anyone(peer))
            return coroutines[-1]

        with self.assertLogs("tovik", "WARNING"):
            await self.serve(admission=asks)
            self.assertIsNone(await self.receive(self.peer()))
        coroutines[0].close()

    async def test_that_raises_refuses_and_the_server_goes_on(self):
        reported, fails = [], [True]
        asyncio.get_running_loop().set_exception_handler(
            lambda loop, context: reported.append(context["exception"]))
        await self.serve(admission=lambda peer: not fails or 1 // 0)
        self.assertIsNone(await self.receive(self.peer()))
        self.assertIsInstance(reported[0], ZeroDivisionError)
        fails.clear()
        self.assertEqual(await self.answers(self.peer(), {}), [status(0)])

    async def test_may_limit_the_connections_of_a_user(self):
        server = await self.serve(admission=tovik.admission.limit_per_user(
            2, lambda uid: server.connections_of(uid)))
        staying, going = self.peer(), self.peer()
        for peer in (staying, going):
            self.assertEqual(await self.answers(peer, {}), [status(0)])
        with self.assertLogs("tovik", "WARNING"):
            self.assertIsNone(await self.receive(self.peer()))
        going.close()
        await self.until(lambda: len(server.sessions) == 1)
        self.assertEqual(await self.answers(self.peer(), {}), [status(0)])

    async def receive_or_reset(self, peer):
        try:
            return await self.receive(peer)
        except ConnectionResetError:  # of the record that was not read
            return None


class ServerInTrouble(Case):
    async def test_drops_and_logs_what_is_no_json(self):
        await self.serve()
        with self.assertLogs("tovik", "WARNING") as logs:
            self.assertEqual(await self.answers(self.peer(), b"{", b"\xff", b"x" * 4999, {}),
                             [status(0)])
        self.assertEqual(len(logs.output), 3)

    async def test_ends_the_connection_alone_where_a_c_server_would_end(self):
        await self.serve()
        other = self.peer()
        for record in (b"[1,2]", b"null", b'{"command":7,"notification":true}'):
            with self.assertLogs("tovik", "WARNING"):
                peer = self.peer()
                peer.send(record)
                self.assertIsNone(await self.receive(peer))
        self.assertEqual(await self.answers(other, {}), [status(0)])

    async def test_logs_a_handler_that_fails_and_ends_that_connection_alone(self):
        async def fails_later(client, message):
            await asyncio.sleep(0)
            raise KeyError("mine")

        def handle(client, message):
            return {"raise": lambda: 1 // 0, "later": lambda: fails_later(client, message),
                    "status": lambda: -1, "text": lambda: "0", "long": lambda: {"x": "x" * 5000},
                    "set": lambda: {"x": {1}}}.get(message.get("how"), lambda: 0)()

        server = await self.serve(handle)
        other = self.peer()
        for how in ("raise", "later", "status", "text", "long", "set"):
            with self.assertLogs("tovik", "ERROR") as logs:
                peer = self.peer()
                peer.send(tovik.encode({"how": how}))
                self.assertIsNone(await self.receive(peer))
            self.assertIn("the handler failed", logs.output[0])
        other.send(b"{}")
        self.assertEqual(await self.receive(other), status(0))
        self.assertEqual(len(server.sessions), 1)

    async def test_sends_a_notification_to_nobody_that_cannot_be_sent(self):
        server = await self.serve()
        peer = await self.subscriber(server)
        for message in ({"x": "x" * 5000}, {"x": b"bytes"}, {"x": {1}}, {"x": float("nan")},
                        {"x": "\ud800"}, [1]):
            with self.assertRaises(tovik.ProtocolError):
                server.notify(message)
        server.notify({"n": 1})
        self.assertEqual(await self.receive(peer), {"n": 1})

    async def test_is_not_held_up_by_a_reader_that_stalls_and_ends_it_at_the_bound(self):
        server = await self.serve(queued_records=50)
        stalled, reader = await self.subscriber(server), await self.subscriber(server)
        n = 0
        while len(server.sessions) == 2:
            server.notify({"n": n, "fill": "x" * 1000})
            self.assertLessEqual(max(each.queued[0] for each in server.sessions), 50)
            self.assertEqual((await self.receive(reader))["n"], n)
            n += 1
        self.assertGreater(n, 50)
        while await self.receive(stalled):
            n -= 1
        self.assertGreaterEqual(n, 50, "what waited is dropped")
        self.assertEqual(server.notify({}), 1)

    async def test_bounds_the_bytes_that_wait_too(self):
        server = await self.serve(queued_bytes=10000)
        await self.subscriber(server)
        while server.sessions:
            server.notify({"fill": "x" * 1000})
            self.assertLessEqual(sum(each.queued[1] for each in server.sessions), 10000)

    async def test_ends_a_client_that_does_not_wait_for_its_answers(self):
        server = await self.serve(hang, unanswered=10)
        with self.assertLogs("tovik", "INFO") as logs:
            peer = self.peer()
            for _ in range(11):
                peer.send(b"{}")
            self.assertIsNone(await self.receive(peer))
            await self.until(lambda: not server.sessions)
        self.assertIn("does not wait for its answers", logs.output[-1])

    async def test_cancels_what_it_does_for_a_client_that_goes_and_tells_of_it(self):
        cancelled, left = asyncio.Event(), []

        async def hang(client, message):
            try:
                await asyncio.Event().wait()
            finally:
                cancelled.set()

        server = await self.serve(hang, on_leave=left.append)
        with self.peer() as peer:
            peer.send(b"{}")
            await self.until(lambda: any(each.tasks for each in server.sessions))
        await self.within(cancelled.wait())
        await self.until(lambda: left)
        self.assertEqual((left[0].number, left[0].peer.pid), (1, os.getpid()))
        left[0].send({"too": "late"})
