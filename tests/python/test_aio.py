"""The client for asyncio, against the server for tests."""

import asyncio
import os
import unittest

import support
import tovik
import tovik.testing

SOON = 0.01  # seconds between attempts to connect


class AsyncClient(unittest.IsolatedAsyncioTestCase):
    def setUp(self):
        self.name = support.unique_name()
        self.handler = lambda message: message.get("answer", 0)
        self.server = None
        self.addCleanup(self.stop)

    def start(self):
        self.server = tovik.testing.Server(self.name, lambda message: self.handler(message))
        self.server.__enter__()

    def stop(self):
        if self.server is not None:
            self.server.__exit__(None, None, None)
            self.server = None

    def client(self, reconnect=SOON, **options):
        return tovik.AsyncClient(self.name, reconnect=reconnect, **options)

    async def within(self, awaitable):
        return await asyncio.wait_for(awaitable, support.DEADLINE)

    async def until(self, condition):
        async def poll():
            while not condition():
                await asyncio.sleep(0.002)
        await self.within(poll())

    async def test_gets_the_status_of_each_call(self):
        self.start()
        async with self.client() as client:
            await self.within(client.wait_connected())
            for status in (0, 3, 2147483647):
                self.assertEqual(await self.within(client.call({"answer": status})), status)

    async def test_makes_calls_of_several_tasks_one_after_the_other(self):
        self.start()
        async with self.client() as client:
            await self.within(client.wait_connected())
            calls = [client.call({"answer": status}) for status in range(50)]
            self.assertEqual(await self.within(asyncio.gather(*calls)), list(range(50)))

    async def test_keeps_what_several_tasks_send_to_a_server_that_does_not_read(self):
        self.start()
        async with self.client() as client:
            await self.within(client.wait_connected())
            with self.server._lock:  # which stops the server
                sends = [asyncio.ensure_future(client.send({"n": n, "fill": "x" * 4000}))
                         for n in range(300)]
                await asyncio.sleep(SOON)
                self.assertFalse(all(send.done() for send in sends), "that was not enough")
            await self.within(asyncio.gather(*sends))
            await self.until(lambda: len(self.server.received) == 300)
        self.assertEqual([message["n"] for message in self.server.received], list(range(300)))

    async def test_yields_messages_that_are_no_answer_to_a_call(self):
        self.start()
        async with self.client() as client:
            await self.within(client.wait_connected())
            await client.send({"answer": {"load": 0.5}})
            self.assertEqual(await self.within(client.__aiter__().__anext__()), {"load": 0.5})

    async def test_subscribes_and_yields_notifications(self):
        self.start()
        async with self.client(subscribe=True) as client:
            await self.within(client.wait_connected())
            await self.until(lambda: self.server.subscribers == 1)
            self.server.notify({"n": 1})
            self.server.notify({"n": 2})
            messages = client.__aiter__()
            self.assertEqual(await self.within(messages.__anext__()), {"n": 1})
            self.assertEqual(await self.within(messages.__anext__()), {"n": 2})
            with self.assertRaisesRegex(tovik.ProtocolError, "another client"):
                await client.call({"a": 1})

    async def test_waits_for_a_server_that_comes_later(self):
        async with self.client() as client:
            with self.assertRaises(tovik.ConnectionLost):
                await client.call({"a": 1})
            await asyncio.sleep(3 * SOON)
            self.start()
            await self.within(client.wait_connected())
            self.assertEqual(await self.within(client.call({"answer": 4})), 4)

    async def test_waits_its_interval_between_attempts(self):
        async with self.client(reconnect=100) as client:
            await asyncio.sleep(3 * SOON)
            self.start()
            await asyncio.sleep(3 * SOON)
            self.assertFalse(client._connected.is_set())

    async def test_subscribes_again_after_each_loss_and_tells(self):
        connects, losses = [], []
        async with self.client(subscribe=True, on_connect=lambda: connects.append(1),
                               on_loss=lambda: losses.append(1)) as client:
            messages = client.__aiter__()
            for turn in range(1, 6):
                self.start()
                await self.until(lambda: self.server.subscribers == 1)
                self.server.notify({"turn": turn})
                self.assertEqual(await self.within(messages.__anext__()), {"turn": turn})
                self.stop()
                await self.until(lambda: len(losses) == turn)
                self.assertEqual(len(connects), turn)

    async def test_retries_when_the_loss_meets_the_subscription_itself(self):
        self.start()
        self.server._switch = lambda client, wanted: self.server._drop(client)
        async with self.client(subscribe=True) as client:
            await asyncio.sleep(3 * SOON)
            self.assertFalse(client._connected.is_set())
            del self.server._switch
            await self.within(client.wait_connected())

    async def test_fails_a_call_whose_connection_is_lost_and_does_not_repeat_it(self):
        self.start()
        self.handler = lambda message: self.server.disconnect()
        async with self.client() as client:
            await self.within(client.wait_connected())
            with self.assertRaises(tovik.ConnectionLost):
                await self.within(client.call({"a": 1}))
            await self.within(client.wait_connected())
            self.handler = lambda message: 6
            self.assertEqual(await self.within(client.call({"b": 1})), 6)
        self.assertEqual(self.server.received, [{"a": 1}, {"b": 1}])

    async def test_takes_no_late_answer_for_the_next_one(self):
        self.start()
        self.handler = lambda message: message.get("answer")
        async with self.client() as client:
            await self.within(client.wait_connected())
            with self.assertRaises(asyncio.TimeoutError):
                await asyncio.wait_for(client.call({"a": 1}), 0.02)
            await self.until(lambda: not client._connected.is_set())
            await self.within(client.wait_connected())
            self.assertEqual(await self.within(client.call({"answer": 2})), 2)

    async def test_connects_anew_after_an_answer_that_is_no_reply(self):
        self.start()
        async with self.client() as client:
            await self.within(client.wait_connected())
            with self.assertRaises(tovik.ProtocolError):
                await self.within(client.call({"answer": {"type": "Reply"}}))
            await self.until(lambda: not client._connected.is_set())
            await self.within(client.wait_connected())
            self.assertEqual(await self.within(client.call({"answer": 2})), 2)

    async def test_survives_hostile_records(self):
        self.start()
        losses = []
        async with self.client(on_loss=lambda: losses.append(1)) as client:
            for count, record in enumerate((b"[1,2]", b"\xff", b"x" * 100000), 1):
                await self.within(client.wait_connected())
                self.assertEqual(await self.within(client.call({})), 0)
                self.server.send_raw(record)
                await self.until(lambda: len(losses) == count)

    async def test_goes_on_when_its_callbacks_raise(self):
        self.start()
        reported = []
        asyncio.get_running_loop().set_exception_handler(
            lambda loop, context: reported.append(context["exception"]))
        def fail():
            raise RuntimeError("mine")
        async with self.client(on_connect=fail) as client:
            await self.within(client.wait_connected())
            self.assertEqual(await self.within(client.call({"answer": 1})), 1)
        self.assertEqual([str(error) for error in reported], ["mine"])

    async def test_waits_for_room_in_the_backlog(self):
        with tovik._wire.new_socket() as listener:
            listener.bind(tovik.address(self.name))
            listener.listen(0)
            with tovik.Client(self.name):
                async with self.client(reconnect=100) as client:
                    await asyncio.sleep(3 * SOON)
                    self.assertFalse(client._connected.is_set())
                    listener.accept()[0].close()
                    await self.within(client.wait_connected())

    async def test_connects_to_no_server_of_another_user(self):
        self.start()
        async with self.client(server_uid=os.geteuid()) as client:
            await self.within(client.wait_connected())
        async with self.client(server_uid=os.geteuid() + 1) as client:
            await asyncio.sleep(3 * SOON)
            self.assertFalse(client._connected.is_set())

    async def test_leaves_nothing_behind(self):
        self.start()
        before = set(os.listdir("/proc/self/fd"))
        async with self.client(subscribe=True) as client:
            await self.within(client.wait_connected())
        await self.until(lambda: self.server.subscribers == 0)
        self.assertEqual(set(os.listdir("/proc/self/fd")), before)
        self.assertEqual(len(asyncio.all_tasks()), 1)


if __name__ == "__main__":
    unittest.main()
