"""The client for asyncio, against the server for tests."""

import asyncio
import contextlib
import logging
import os
import time

import support
import tovik
import tovik.testing

SOON = 0.01  # seconds between attempts to connect


class Case(support.AsyncCase):
    def setUp(self):
        self.name = support.unique_name()
        self.handler = lambda message: message.get("answer", 0)
        self.judged = []
        self.validator = lambda peer: True
        self.server = None
        self.addCleanup(self.stop)

    def start(self):
        self.server = tovik.testing.Server(self.name, lambda message: self.handler(message),
                                           self.judge)
        self.server.__enter__()

    def judge(self, peer):
        self.judged.append(peer)
        return self.validator(peer)

    def stop(self):
        if self.server is not None:
            self.server.__exit__(None, None, None)
            self.server = None

    def client(self, reconnect=SOON, **options):
        return tovik.AsyncClient(self.name, reconnect=reconnect, **options)

    def logged(self):
        """What the package logs, from now on to the end of the test."""
        watch = self.assertLogs("tovik", logging.INFO)
        logs = watch.__enter__()
        self.addCleanup(watch.__exit__, None, None, None)
        return logs

    async def connected(self, **options):
        """A client until the test's end, once the server, which starts here, has accepted it."""
        self.start()
        client = await self.enterAsyncContext(self.client(**options))
        await self.within(client.wait_connected())
        await self.until(lambda: self.judged)
        return client

    async def fill(self, client, count=300):
        """More than the kernel has room for, to a server that is held up: the sends that wait."""
        sends = [asyncio.ensure_future(client.send({"n": n, "fill": "x" * 4000}))
                 for n in range(count)]
        await self.until(sends[0].done)
        self.assertFalse(all(send.done() for send in sends), "that was not enough")
        return sends


class AsyncClient(Case):
    async def test_gets_the_status_of_each_call(self):
        client = await self.connected()
        for status in (0, 3, 2147483647):
            self.assertEqual(await self.within(client.call({"answer": status})), status)

    async def test_makes_calls_of_several_tasks_one_after_the_other(self):
        client = await self.connected()
        calls = [client.call({"answer": status}) for status in range(50)]
        self.assertEqual(await self.within(asyncio.gather(*calls)), list(range(50)))

    async def test_yields_messages_that_are_no_answer_to_a_call(self):
        client = await self.connected()
        await client.send({"answer": {"load": 0.5}})
        self.assertEqual(await self.within(client.__aiter__().__anext__()), {"load": 0.5})

    async def test_subscribes_and_yields_notifications(self):
        client = await self.connected(subscribe=True)
        await self.until(lambda: self.server.subscribers == 1)
        for n in (1, 2):
            self.server.notify({"n": n})
        messages = client.__aiter__()
        for n in (1, 2):
            self.assertEqual(await self.within(messages.__anext__()), {"n": n})
        with self.assertRaisesRegex(tovik.ProtocolError, "another client"):
            await client.call({"a": 1})

    async def test_waits_for_a_server_that_comes_later(self):
        logs = self.logged()
        async with self.client() as client:
            with self.assertRaises(tovik.ConnectionLost):
                await client.call({"a": 1})
            await self.until(lambda: len(logs.output) == 3)
            self.assertIn("refused", logs.output[2])
            self.start()
            await self.within(client.wait_connected())
            self.assertEqual(await self.within(client.call({"answer": 4})), 4)

    async def test_waits_its_interval_between_attempts(self):
        logs = self.logged()
        async with self.client(reconnect=0.1):
            await self.until(lambda: logs.output)
            start = time.monotonic()
            await self.until(lambda: len(logs.output) == 3)
        self.assertGreater(time.monotonic() - start, 0.15)  # two, but for what polling takes

    async def test_refuses_an_interval_that_would_spin_or_never_end(self):
        for interval in (0, -1, 0.0001, float("inf"), float("nan")):
            with self.assertRaisesRegex(ValueError, "at least 0.001 s"):
                self.client(reconnect=interval)

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
        connects = []
        self.validator = lambda peer: False
        self.start()
        async with self.client(subscribe=True, on_connect=lambda: connects.append(1)) as client:
            await self.until(lambda: len(self.judged) >= 3)
            self.assertEqual(connects, [])
            self.validator = lambda peer: True
            await self.until(lambda: connects)
            await self.within(client.wait_connected())

    async def test_fails_a_call_whose_connection_is_lost_and_does_not_repeat_it(self):
        self.handler = lambda message: self.server.disconnect()
        client = await self.connected()
        with self.assertRaises(tovik.ConnectionLost):
            await self.within(client.call({"a": 1}))
        await self.within(client.wait_connected())
        self.handler = lambda message: 6
        self.assertEqual(await self.within(client.call({"b": 1})), 6)
        self.assertEqual(self.server.received, [{"a": 1}, {"b": 1}])

    async def test_takes_no_late_answer_for_the_next_one(self):
        self.handler = lambda message: message.get("answer")
        client = await self.connected()
        with self.assertRaises(asyncio.TimeoutError):
            await asyncio.wait_for(client.call({"a": 1}), 0.02)
        await self.within(client.wait_connected())
        self.assertEqual(await self.within(client.call({"answer": 2})), 2)

    async def test_goes_on_when_its_callbacks_raise(self):
        reported = []
        asyncio.get_running_loop().set_exception_handler(
            lambda loop, context: reported.append(context["exception"]))

        def fail():
            raise RuntimeError("mine")

        client = await self.connected(on_connect=fail)
        self.assertEqual(await self.within(client.call({"answer": 1})), 1)
        self.assertEqual([str(error) for error in reported], ["mine"])

    async def test_waits_for_room_in_the_backlog(self):
        with tovik._wire.new_socket() as listener:
            listener.bind(tovik.address(self.name))
            listener.listen(0)
            logs = self.logged()
            with tovik.Client(self.name):
                async with self.client(reconnect=100) as client:
                    await self.until(lambda: logs.output)
                    self.assertIn("backlog is full", logs.output[0])
                    listener.accept()[0].close()
                    await self.within(client.wait_connected())

    async def test_connects_to_no_server_of_another_user(self):
        self.start()
        async with self.client(server_uid=os.geteuid()) as client:
            await self.within(client.wait_connected())
        logs = self.logged()
        async with self.client(server_uid=os.geteuid() + 1) as client:
            with self.assertRaisesRegex(tovik.Refused, "not as user"):
                await self.within(client.wait_connected())
            for attempt in (client.send({"secret": 1}), client.call({"secret": 1})):
                with self.assertRaisesRegex(tovik.Refused, "not as user"):
                    await attempt
            await self.until(lambda: len(logs.output) > 3)
        self.check_one_warning(logs, "not as user")
        self.assertEqual(self.server.received, [])

    async def test_says_that_it_is_refused_once_a_row_and_goes_on_trying(self):
        self.validator = lambda peer: False
        self.start()
        logs = self.logged()
        async with self.client(subscribe=True) as client:
            for _ in range(3):
                with self.assertRaisesRegex(tovik.Refused, "does not admit"):
                    await self.within(client.wait_connected())
            self.check_one_warning(logs, "does not admit")
            self.validator = lambda peer: True
            await self.until(lambda: client._is_connected())

    async def test_says_in_a_call_that_it_is_refused(self):
        self.validator = lambda peer: False
        self.start()
        logs = self.logged()
        async with self.client() as client:
            await self.until(lambda: len(self.judged) > 3)
            with self.assertRaisesRegex(tovik.Refused, "does not admit"):
                await self.within(client.call({"a": 1}))
        self.check_one_warning(logs, "does not admit")

    async def test_takes_the_end_of_a_connection_that_was_used_for_no_refusal(self):
        logs = self.logged()
        client = await self.connected()
        await self.within(client.call({"a": 1}))
        self.handler = lambda message: self.server.disconnect()
        with self.assertRaises(tovik.ConnectionLost) as caught:
            await self.within(client.call({"a": 1}))
        self.assertNotIsInstance(caught.exception, tovik.Refused)
        self.assertEqual([line for line in logs.output if line.startswith("WARNING")], [])

    def check_one_warning(self, logs, text):
        warnings = [line for line in logs.output if line.startswith("WARNING")]
        self.assertEqual(len(warnings), 1, logs.output)
        self.assertIn(text, warnings[0])

    async def test_leaves_nothing_behind(self):
        self.start()
        before = set(os.listdir("/proc/self/fd"))
        async with self.client(subscribe=True) as client:
            await self.within(client.wait_connected())
        await self.until(lambda: self.server.subscribers == 0)
        self.assertEqual(set(os.listdir("/proc/self/fd")), before)
        self.assertEqual(len(asyncio.all_tasks()), 1)


GARBAGE = (b"[1,2]", b"7", b"{", b"\xff", b"{}".ljust(4095), b"x" * 5000)


class AsyncClientInTrouble(Case):
    async def test_logs_a_record_that_is_no_message_and_keeps_its_subscription(self):
        logs, losses = self.logged(), []
        client = await self.connected(subscribe=True, on_loss=lambda: losses.append(1))
        await self.until(lambda: self.server.subscribers == 1)
        for record in GARBAGE:
            self.server.send_raw(record)
        self.server.notify({"n": 1})
        self.assertEqual(await self.within(client.__aiter__().__anext__()), {"n": 1})
        warnings = [line for line in logs.output if line.startswith("WARNING")]
        self.assertEqual(len(warnings), len(GARBAGE))
        self.assertEqual(losses, [])

    async def test_ends_a_call_whose_answer_is_no_message(self):
        client = await self.connected()
        for record in (*GARBAGE, b'{"type":"Reply"}'):
            self.handler = lambda message, record=record: self.server.send_raw(record)
            await self.within(client.wait_connected())
            with self.assertRaises(tovik.ProtocolError):
                await self.within(client.call({"a": 1}))
        self.handler = lambda message: 3
        await self.within(client.wait_connected())
        self.assertEqual(await self.within(client.call({})), 3)

    async def test_goes_on_sending_after_garbage_that_comes_while_a_send_waits(self):
        logs = self.logged()
        client = await self.connected()
        with self.server._lock:
            sends = await self.fill(client)
            for record in GARBAGE:
                self.server.send_raw(record)
            await self.until(lambda: len(logs.output) >= 1 + len(GARBAGE))
        await self.within(asyncio.gather(*sends))
        await self.until(lambda: len(self.server.received) == 300)
        self.assertEqual([message["n"] for message in self.server.received], list(range(300)))

    async def test_fails_the_sends_that_wait_when_the_connection_is_lost_and_then_goes_on(self):
        client = await self.connected()
        with self.server._lock:
            sends = await self.fill(client)
            self.server.disconnect()
        outcomes = await self.within(asyncio.gather(*sends, return_exceptions=True))
        self.assertIsInstance(outcomes[-1], tovik.ConnectionLost)
        await self.within(client.wait_connected())
        self.assertEqual(await self.within(client.call({"answer": 7})), 7)

    async def test_sends_nothing_of_a_send_or_a_call_that_was_cancelled_while_it_waited(self):
        losses = []
        client = await self.connected(on_loss=lambda: losses.append(1))
        with self.server._lock:
            sends = await self.fill(client)
            call = asyncio.ensure_future(client.call({"cancelled": "call"}))
            last = asyncio.ensure_future(client.send({"last": True}))
            await asyncio.sleep(0)
            for task in (call, sends[-1]):
                task.cancel()
                with self.assertRaises(asyncio.CancelledError):
                    await task
        await self.within(last)
        await self.until(lambda: len(self.server.received) == 300)
        self.assertEqual([message.get("n") for message in self.server.received],
                         [*range(299), None])
        self.assertEqual(losses, [])

    async def test_takes_no_message_for_the_answer_to_a_call_that_is_not_sent_yet(self):
        self.handler = lambda message: message.get("answer")
        client = await self.connected()
        with self.server._lock:
            sends = await self.fill(client)
            call = asyncio.ensure_future(client.call({"answer": 5}))
            self.server.send_raw(b'{"unasked":1}')
            self.assertEqual(await self.within(client.__aiter__().__anext__()), {"unasked": 1})
        self.assertEqual(await self.within(call), 5)
        await self.within(asyncio.gather(*sends))

    async def test_keeps_its_connection_when_the_message_of_a_call_cannot_be_sent(self):
        losses = []
        client = await self.connected(on_loss=lambda: losses.append(1))
        nested = {}
        for _ in range(10000):
            nested = {"a": nested}
        for message in ({"m": "x" * 5000}, {"n": float("nan")}, [1], nested, {"s": "\ud800"},
                        {"b": b"bytes"}, {"s": {1}}):
            for attempt in (client.call, client.send):
                with self.assertRaises(tovik.ProtocolError):
                    await self.within(attempt(message))
            self.assertEqual(await self.within(client.call({"answer": 4})), 4)
        self.assertEqual(losses, [])

    async def test_gives_up_a_call_alone_while_another_waits_for_its_turn(self):
        self.handler = lambda message: message.get("answer")
        client = await self.connected()
        first = asyncio.ensure_future(client.call({"first": 1}))
        second = asyncio.ensure_future(client.call({"answer": 2}))
        await self.until(lambda: self.server.received)
        second.cancel()
        third = asyncio.ensure_future(client.call({"answer": 3}))
        first.cancel()
        for task, error in ((first, asyncio.CancelledError), (second, asyncio.CancelledError),
                            (third, tovik.ConnectionLost)):
            with self.assertRaises(error):
                await self.within(task)
        await self.within(client.wait_connected())
        self.assertEqual(await self.within(client.call({"answer": 2})), 2)
        self.assertEqual(self.server.received, [{"first": 1}, {"answer": 2}])

    async def test_ends_what_waits_when_its_block_is_left(self):
        self.start()
        with self.server._lock:
            async with self.client() as client:
                await self.within(client.wait_connected())
                sends = await self.fill(client)
                call = asyncio.ensure_future(client.call({}))
                messages = asyncio.ensure_future(client.__aiter__().__anext__())
                await asyncio.sleep(0)
        outcomes = await self.within(asyncio.gather(
            *sends, call, client.send({}), client.wait_connected(), return_exceptions=True))
        self.assertEqual({type(outcome) for outcome in outcomes[-4:]}, {tovik.ConnectionLost})
        with self.assertRaises(StopAsyncIteration):
            await self.within(messages)

    async def test_can_be_left_while_it_connects(self):
        before = set(os.listdir("/proc/self/fd"))
        async with self.client() as client:
            waiting = asyncio.ensure_future(client.wait_connected())
            await asyncio.sleep(0)
        with self.assertRaises(tovik.ConnectionLost):
            await self.within(waiting)
        self.assertEqual(set(os.listdir("/proc/self/fd")), before)

    async def test_says_so_where_its_block_was_not_entered(self):
        client = self.client()
        for attempt in (client.wait_connected(), client.send({}), client.call({}),
                        client.__aiter__().__anext__()):
            with self.assertRaisesRegex(tovik.ConnectionLost, "is used inside"):
                await attempt

    async def test_ends_the_iteration_of_each_task_when_its_block_is_left(self):
        self.start()
        async with self.client(subscribe=True) as client:
            await self.until(lambda: self.server.subscribers == 1)
            tasks = [asyncio.ensure_future(self.take(-1, client)) for _ in range(3)]
            await asyncio.sleep(0)
        await self.within(asyncio.gather(*tasks, self.take(-1, client)))

    async def test_reads_what_a_server_sent_before_it_closed_with_records_unread(self):
        with support.listener(self.name) as listener:
            async with self.client() as client:
                await self.within(client.wait_connected())
                await client.send({"never": "read"})
                with listener.accept()[0] as peer:
                    for n in range(9):
                        peer.send(tovik.encode({"n": n}))
                messages = client.__aiter__()
                for n in range(9):
                    self.assertEqual(await self.within(messages.__anext__()), {"n": n})

    async def test_lets_the_loop_turn_however_much_comes(self):
        with support.listener(self.name) as listener:
            async with self.client() as client:
                await self.within(client.wait_connected())
                with listener.accept()[0] as peer:
                    for n in range(100):
                        peer.send(tovik.encode({"n": n}))
                    turns = asyncio.ensure_future(self.count_turns())
                    await self.within(self.take(100, client))
                    turns.cancel()
        self.assertGreaterEqual(await turns, 100)

    @staticmethod
    async def take(count, client):
        async for _message in client:
            count -= 1
            if count == 0:
                return

    @staticmethod
    async def count_turns():
        turns = 0
        with contextlib.suppress(asyncio.CancelledError):
            while True:
                turns += 1
                await asyncio.sleep(0)
        return turns
