"""The proxy for asyncio, and the call that blocks: how they are used, and what may go wrong.
test_conformance has what goes over the wire."""

import asyncio
import os
import time

import support
import tovik
import tovik.testing


class Case(support.AsyncCase):
    def setUp(self):
        self.name = support.unique_name()

    def proxy(self, **options):
        return tovik.aio.Proxy(self.name, reconnect=0.01, **options)

    async def serve(self):
        service = tovik.Service(self.name, lambda peer: True, calls=100)

        @service.command("sleep", "Answers after some turns of the loop.",
                         turns=tovik.Argument(int, "How many."))
        async def sleep(request):
            for _ in range(request["turns"]):
                await asyncio.sleep(0)
            return request["turns"]

        @service.command("count", "Counts in parts.")
        def count(request):
            request.more(1)
            request.more(2)
            return 3

        @service.command("hang", "Never answers.")
        async def hang(request):
            await asyncio.Event().wait()

        service.topic("state", "Kept.", keeps_last=True)
        return await self.enterAsyncContext(service)


class Proxy(Case):
    async def test_gets_parts_and_reasons(self):
        await self.serve()
        async with self.proxy() as proxy:
            self.assertEqual(await proxy.call({"command": "count"}, 10),
                             tovik.Outcome(0, 3, "", (1, 2)))
            outcome = await proxy.call({"command": "sleep"}, 10)
            self.assertEqual((outcome.status, outcome.error),
                             (22, f"{self.name}: sleep: argument 'turns' is missing"))

    async def test_gives_up_one_call_alone_at_its_limit(self):
        await self.serve()
        losses = []
        async with self.proxy(on_loss=losses.append) as proxy:
            slow = asyncio.ensure_future(proxy.call({"command": "sleep", "turns": 1000}, 10))
            with self.assertRaisesRegex(TimeoutError, "hang: no reply within 0.05 s"):
                await proxy.call({"command": "hang"}, 0.05)
            self.assertEqual((await slow).result, 1000)
            self.assertEqual((proxy._calls, losses), ({}, []))

    async def test_waits_for_a_server_up_to_its_limit(self):
        async with self.proxy() as proxy:
            with self.assertRaisesRegex(TimeoutError, r"no connection \(.*refused\) within 0.05 s"):
                await proxy.call({"command": "count"}, 0.05)
            later = asyncio.ensure_future(proxy.call({"command": "count"}, 10))
            await self.serve()
            self.assertEqual((await later).result, 3)

    async def test_refuses_what_it_cannot_send(self):
        await self.serve()
        async with self.proxy() as proxy:
            for message, error in (({"m": "x" * 5000}, tovik.TooLong), ([1], tovik.ProtocolError),
                                   ({"id": 5}, tovik.ProtocolError), ({"b": b"bytes"},
                                                                      tovik.ProtocolError)):
                with self.assertRaises(error):
                    await proxy.call(message, 10)
            for topic in ("x" * 5000, b"bytes"):
                with self.assertRaises(tovik.ProtocolError):
                    proxy.subscribe(topic, print)
            for limit in (-1, float("nan"), float("inf")):
                with self.assertRaises(ValueError):
                    await proxy.call({"command": "count"}, limit)
            self.assertEqual((await proxy.call({"command": "count"}, 10)).result, 3)

    async def test_stops_following_and_logs_a_topic_that_is_refused(self):
        service = await self.serve()
        events = []
        async with self.proxy() as proxy:
            await self.within(proxy.wait_connected())
            with self.assertLogs("tovik", "WARNING") as logs:
                proxy.subscribe("none", events.append)
                await self.until(lambda: logs.output)
            self.assertIn("subscribe 'none'", logs.output[0])
            proxy.subscribe("state", events.append)
            proxy.unsubscribe("state")
            await proxy.call({"command": "count"}, 10)
            service.publish("state", {"n": 1})
            await proxy.call({"command": "count"}, 10)
        self.assertEqual(events, [])

    async def test_says_so_where_its_block_was_not_entered(self):
        with self.assertRaisesRegex(tovik.ConnectionLost, "is used inside"):
            await self.proxy().call({"command": "count"}, 10)

    async def test_says_that_a_server_refuses_it(self):
        with self.assertLogs("tovik", "WARNING"):
            async with tovik.Service(self.name, lambda peer: False), self.proxy() as proxy:
                with self.assertRaisesRegex(tovik.ConnectionLost, "count: .*does not admit"):
                    await self.within(proxy.call({"command": "count"}, 10))

    async def test_ends_what_waits_when_its_block_is_left(self):
        await self.serve()
        async with self.proxy() as proxy:
            calls = [asyncio.ensure_future(proxy.call({"command": "hang"}, 100)) for _ in "ab"]
            await self.until(lambda: len(proxy._calls) == 2)
        for call in calls:
            with self.assertRaises(tovik.ConnectionLost):
                await self.within(call)

    async def test_connects_to_no_server_of_another_user(self):
        await self.serve()
        async with self.proxy(server_uids=[os.geteuid() + 1, os.geteuid() + 2]) as proxy:
            with self.assertRaisesRegex(tovik.Refused, f"{self.name}: count: .*not as user"):
                await proxy.call({"command": "count"}, 10)
        async with self.proxy(server_uids=[os.geteuid()], jitter=0.01) as proxy:
            self.assertEqual((await proxy.call({"command": "count"}, 10)).result, 3)


class ProxyOfAPlainServer(Case):
    async def test_gets_its_own_messages(self):
        messages = []
        with tovik.testing.Server(self.name, lambda message: message["answer"]):
            async with self.proxy(on_message=messages.append) as proxy:
                call = asyncio.ensure_future(proxy.call({"answer": {"load": 1}}, 10))
                await self.until(lambda: messages)
                call.cancel()
        self.assertEqual(messages, [{"load": 1}])

    async def test_takes_no_late_reply_for_the_next_one(self):
        with support.listener(self.name) as listener:
            async with self.proxy() as proxy:
                await self.within(proxy.wait_connected())
                with listener.accept()[0] as peer:
                    with self.assertRaises(TimeoutError):
                        await proxy.call({"n": 1}, 0.05)
                    peer.send(b'{"type":"reply","status":1}')
                    await self.until(lambda: not proxy._calls)
                    second = asyncio.ensure_future(proxy.call({"n": 2}, 10))
                    await self.until(lambda: proxy._calls)
                    peer.send(b'{"type":"reply","status":2}')
                    self.assertEqual((await second).status, 2)

    async def test_keeps_no_more_calls_than_a_bound_of_a_server_that_answers_none(self):
        losses = []
        with tovik.testing.Server(self.name, lambda message: None):
            async with self.proxy(on_loss=losses.append) as proxy:
                await self.within(proxy.wait_connected())
                for _ in range(3):
                    await asyncio.gather(*(proxy.call({}, 0.05) for _ in range(50)),
                                         return_exceptions=True)
                await self.until(lambda: losses)
        self.assertEqual(losses[0], "the server does not answer")


class Call(Case):
    async def test_keeps_its_limit(self):
        await self.serve()
        start = time.monotonic()
        with self.assertRaisesRegex(TimeoutError, "hang: no reply within 0.1 s"):
            await self.call({"command": "hang"}, 0.1)
        self.assertGreaterEqual(time.monotonic() - start, 0.1)

    async def test_says_where_nobody_listens(self):
        with self.assertRaisesRegex(tovik.ConnectionLost, f"{self.name}: x: .*refused"):
            await self.call({"command": "x"}, 10)

    async def call(self, message, limit):
        """On a thread: the service needs this one's loop."""
        return await asyncio.get_running_loop().run_in_executor(
            None, lambda: tovik.call(self.name, message, limit))
