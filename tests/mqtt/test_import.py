"""A server of elsewhere, under a name here; and plain servers, which have no ids and no topics."""

import asyncio
import json
import signal
import socket
import threading
import time

import broker
import support
import tovik
import tovik.testing


class Imported(broker.Case):
    def setUp(self):
        super().setUp()
        self.lamp = self.exported()
        self.here = self.imported(self.lamp.base)

    def call(self, message, limit=support.DEADLINE):
        return tovik.call(self.here.name, message, limit)

    def test_gives_the_reason_of_a_refusal(self):
        self.assertEqual(self.call({"command": "refuse"}).error,
                         f"{self.here.name}: refuse: not you")

    def test_answers_promptly_through_a_broker_as_it_comes(self):
        """Without care, each packet waits 40 ms for the acknowledgement of the one before."""
        times = []
        for number in range(31):
            begin = time.monotonic()
            self.assertEqual(self.call({"command": "add", "a": number, "b": 1}).result, number + 1)
            times.append(time.monotonic() - begin)
        self.assertLess(sorted(times)[15], 0.035)

    def follow(self, topic, count, then=lambda: None):
        async def followed():
            events = []
            async with tovik.aio.Proxy(self.here.name) as proxy:
                proxy.subscribe(topic, events.append)
                await proxy.call({"command": "echo", "value": 1}, support.DEADLINE)
                await asyncio.get_running_loop().run_in_executor(None, then)
                while len(events) < count:
                    await asyncio.sleep(0.01)
            return events
        return asyncio.run(asyncio.wait_for(followed(), support.DEADLINE))

    def test_opens_with_the_values_that_there_are(self):
        self.call({"command": "switch", "on": True})
        again = self.imported(self.lamp.base)
        self.here.name = again.name
        self.assertEqual(self.follow("state", 1), [
            {"type": "event", "topic": "state", "on": True, "snapshot": True}])

    def test_passes_every_event_on_in_order(self):
        def emit():
            for number in range(200):
                tovik.call(self.lamp.name, {"command": "emit", "topic": "plain",
                                            "event": {"n": number}}, support.DEADLINE)
        events = self.follow("plain", 200, emit)
        self.assertEqual([event["n"] for event in events], list(range(200)))

    def test_makes_each_call_once(self):
        file = self.folder / "carried"
        self.lamp.kill()
        support.wait_until(lambda: not support.listens(self.here.name))
        self.lamp_again(file)
        for number in range(50):
            self.assertEqual(self.call({"command": "carry", "value": number}).status, 0)
        self.assertEqual(file.read_text().split(), [str(number) for number in range(50)])

    def lamp_again(self, *arguments):
        super().lamp(self.lamp.name, *arguments)
        support.wait_until(lambda: support.listens(self.here.name))

    def ends(self, cause):
        """What a call in flight ends with when something happens."""
        outcomes = []
        caller = threading.Thread(target=lambda: outcomes.append(self.call({"command": "hold"})))
        caller.start()
        support.wait_until(lambda: self.statistics()["inFlight"] == 1, "the call")
        cause()
        caller.join(support.DEADLINE)
        return outcomes[0]

    def statistics(self):
        name = self.here.arguments[self.here.arguments.index("--name") + 1]
        return tovik.call(name, {"command": "statistics"}, support.DEADLINE).result

    def closes(self, cause, statuses, back):
        """A call in flight and the name end, until what is missing is back."""
        self.assertIn(self.ends(cause).status, statuses)
        support.wait_until(lambda: not support.listens(self.here.name))
        back()
        support.wait_until(lambda: support.listens(self.here.name))
        self.assertEqual(self.call({"command": "add", "a": 1, "b": 2}).result, 3)

    def test_closes_while_the_server_is_away(self):
        self.closes(self.lamp.kill, (104, 125),  # the service's end, or the name's
                    self.lamp_again)

    def test_closes_while_the_other_bridge_is_away(self):
        self.closes(self.lamp.bridge.kill, (125,),
                    lambda: self.bridge("--prefix", self.prefix, self.lamp.name))

    def test_closes_while_the_broker_is_away(self):
        self.closes(self.broker.kill, (125,), self.start_broker)

    def test_tells_statistics(self):
        self.call({"command": "add", "a": 1, "b": 2})
        found = self.statistics()
        self.assertEqual((found["name"], found["remote"], found["direction"]),
                         (self.here.name, self.lamp.base, "import"))
        self.assertEqual((found["there"], found["calls"], found["lost"]), (True, 1, 0))


class ImportOptions(broker.Case):
    def test_limit_calls(self):
        lamp = self.exported()
        here = self.imported(lamp.base, "--timeout", "0.5")
        begin = time.monotonic()
        self.assertEqual(tovik.call(here.name, {"command": "hold"}, support.DEADLINE).status, 110)
        self.assertLess(time.monotonic() - begin, 5)

    def test_take_a_name_that_becomes_free(self):
        lamp = self.exported()
        other = self.lamp()
        bridge = self.bridge("--import", f"{other.name}={lamp.base}")
        bridge.says("cannot be opened: Address already in use")
        other.kill(signal.SIGTERM)
        bridge.says(": open, for")

    def test_refuse_what_the_broker_delivers_and_is_wrong(self):
        base = self.prefix + "/odd"
        name = support.unique_name()
        bridge = self.bridge("--import", f"{name}={base}")
        bridge.says("connected")
        self.publish(base + "/online", "true", "-r")
        self.publish(base + "/about", "[" * 5000, "-r")
        bridge.says("its description is refused: a payload nests too deep")
        self.publish(base + "/about", "{}x", "-r")
        bridge.says("its description is refused: a payload is a JSON object in UTF-8")
        self.publish(base + "/about",
                     '{"name":7,"commands":[1,{"name":"go","arguments":{}}],"topics":'
                     '[{"name":"t","keepsLast":1}]}', "-r")
        bridge.says(": open, for")
        for payload in ("no", "[]", b"\x00", json.dumps({"a": "x" * 4090}), '{"type":1}'):
            self.publish(base + "/event/t", payload)
        self.publish(base + "/event/%", "{}")
        self.publish(base + "/event/unknown", "{}")
        bridge.says("is refused", times=9)
        outcome = tovik.call(name, {"command": "go"}, support.DEADLINE)
        self.assertEqual(outcome.status, 125)  # nobody takes it
        self.assertIsNone(bridge.process.poll())


class Plain(broker.Case):
    """Servers of the core alone."""

    def setUp(self):
        super().setUp()
        self.name = support.unique_name("plain")
        self.server = tovik.testing.Server(
            self.name, lambda message: 7 if message.get("command") == "describe" else
            message.get("answer", 3))
        self.enterContext(self.server)
        self.base = f"{self.prefix}/{self.name}"
        self.export = self.bridge("--prefix", self.prefix, self.name)
        self.await_retained(self.base + "/online", "true")

    def test_are_called(self):
        self.assertEqual(self.call(self.base, "any", '{"answer":5}'),
                         [{"type": "reply", "status": 5}])
        self.assertIn({"answer": 5, "command": "any"},
                      [{key: one[key] for key in one if key != "id"}
                       for one in self.server.received])

    def test_are_called_without_a_command(self):
        answers = self.subscribe("answers")
        self.publish(self.base + "/call", '{"answer":6}', *self.answered("answers", "x"))
        support.wait_until(answers.heard)
        self.assertEqual(answers.heard(), ['answers {"type":"reply","status":6}'])

    def test_are_never_sent_what_would_end_them(self):
        answers = self.subscribe("answers")
        for number, payload in enumerate(('{"command":7,"notification":true}', '[]',
                                          '{"command":"set","notification":true}')):
            self.publish(self.base + "/call", payload, *self.answered("answers", f"x{number}"))
        support.wait_until(lambda: len(answers.heard()) == 3)
        self.assertEqual(self.server.violations, [])
        self.assertEqual(self.server.subscribers, 1)

    def test_have_their_messages_published(self):
        peer = self.subscribe(self.base + "/event")
        support.wait_until(lambda: self.server.subscribers == 1)
        self.server.notify({"load": 3})
        support.wait_until(peer.heard)
        self.assertEqual(peer.heard(), [self.base + '/event {"load":3}'])

    def test_cannot_pass_a_reply_for_a_message(self):
        """Whichever of two members of a name a client reads."""
        here = self.imported(self.base)
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as client:
            client.settimeout(support.DEADLINE)
            client.connect(tovik.address(here.name))
            client.send(b'{"command":"set","notification":true}')
            client.recv(5000)  # its reply
            self.publish(self.base + "/event", '{"type":"reply","status":0}')
            here.says("is refused")
            self.publish(self.base + "/event", r'{"type":"news","ty\u0070e":"reply","status":0}')
            self.assertEqual(client.recv(5000), b'{"type":"news","status":0}')

    def test_are_plain_servers_elsewhere_too(self):
        here = self.imported(self.base)
        with tovik.Client(here.name, timeout=support.DEADLINE) as client:
            self.assertEqual(client.call({"answer": 9}), 9)
            self.assertEqual(client.call({"command": "x", "answer": 8}), 8)

        async def follow():
            async with tovik.AsyncClient(here.name, subscribe=True) as client:
                await client.wait_connected()
                while True:
                    self.server.notify({"load": 4})
                    try:
                        return await asyncio.wait_for(client.__aiter__().__anext__(), 0.2)
                    except asyncio.TimeoutError:
                        pass
        message = asyncio.run(asyncio.wait_for(follow(), support.DEADLINE))
        self.assertEqual(message, {"load": 4})
