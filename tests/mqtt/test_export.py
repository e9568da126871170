"""A server of this machine on the broker, as independent peers see it."""

import json
import signal

import broker
import support
import tovik


class Events(broker.Case):
    def test_are_published_below_the_name(self):
        lamp = self.exported()
        peer = self.subscribe(lamp.base + "/event/#")
        self.call(lamp.base, "emit", '{"topic":"plain","event":{"a":1}}')
        self.call(lamp.base, "switch", '{"on":true}')
        self.call(lamp.base, "emit", '{"topic":"a/b+c#d.e%\\u0001ä","event":{}}')
        support.wait_until(lambda: len(peer.heard()) >= 3)
        self.assertEqual(peer.heard(), [
            lamp.base + '/event/plain {"a":1}', lamp.base + '/event/state {"on":true}',
            lamp.base + "/event/a%2Fb%2Bc%23d%2Ee%25%01ä {}"])

    def test_are_retained_where_the_topic_keeps_its_value(self):
        lamp = self.exported()
        self.call(lamp.base, "emit", '{"topic":"plain","event":{"a":1}}')
        self.call(lamp.base, "switch", '{"on":true}')
        self.assertEqual(self.retained(lamp.base + "/event/state"), '{"on":true}')
        self.assertIsNone(self.retained(lamp.base + "/event/plain"))

    def test_that_are_retained_go_when_the_server_has_none_any_more(self):
        for bridge_is_away in (False, True):
            lamp = self.exported()
            self.call(lamp.base, "switch", '{"on":true}')
            if bridge_is_away:  # meanwhile
                lamp.bridge.kill()
            lamp.kill()
            self.await_retained(lamp.base + "/online", "false")
            self.lamp(lamp.name)
            if bridge_is_away:
                self.bridge("--prefix", self.prefix, lamp.name)
            self.await_retained(lamp.base + "/online", "true")
            self.assertIsNone(self.retained(lamp.base + "/event/state"))

    def test_survive_a_broker_that_forgets(self):
        lamp = self.exported()
        self.call(lamp.base, "switch", '{"on":true}')
        self.broker.kill()
        lamp.bridge.says("lost the broker")
        self.start_broker()
        lamp.bridge.says("connected to the broker", times=2)
        self.await_retained(lamp.base + "/online", "true")
        self.assertEqual(self.retained(lamp.base + "/event/state"), '{"on":true}')

    def test_wait_for_the_broker_the_last_of_each_topic(self):
        lamp = self.exported()
        self.broker.kill()
        lamp.bridge.says("lost the broker")
        for number in range(5):
            event = {"command": "emit", "topic": "plain", "event": {"n": number}}
            self.assertEqual(tovik.call(lamp.name, event, support.DEADLINE).status, 0)
        config = "persistence false\n"
        self.start_broker(config)
        peer = self.subscribe(lamp.base + "/event/plain")
        lamp.bridge.says("4 messages dropped while the broker was away")
        self.assertLessEqual(set(peer.heard()), {lamp.base + '/event/plain {"n":4}'})

    def test_beyond_the_bound_are_dropped_but_for_the_last(self):
        self.broker.kill()
        # Else the broker itself drops what a slow subscriber has not taken yet.
        self.start_broker("max_queued_messages 0\n")
        lamp = self.exported()
        peer = self.subscribe(lamp.base + "/event/#", lamp.base + "/online")
        self.broker.process.send_signal(signal.SIGSTOP)
        self.addCleanup(self.broker.process.send_signal, signal.SIGCONT)
        done = tovik.call(lamp.name, {"command": "flood", "count": 12000}, support.DEADLINE)
        self.assertEqual(done.status, 0)
        lamp.bridge.says("messages dropped since the broker does not keep up")
        self.broker.process.send_signal(signal.SIGCONT)
        support.wait_until(lambda: lamp.base + '/event/plain {"n":11999}' in peer.heard())
        self.assertNotIn(lamp.base + "/online false", peer.heard())

    def test_of_a_thousand_topics_are_there_before_the_server_is(self):
        lamp = self.lamp(None, "/dev/null", "1000")
        base = f"{self.prefix}/{lamp.name}"
        peer = self.subscribe(base + "/event/#", base + "/online")
        bridge = self.bridge("--prefix", self.prefix, lamp.name)
        bridge.says("exported as")
        support.wait_until(lambda: base + "/online true" in peer.heard())
        before = peer.heard()[:peer.heard().index(base + "/online true")]
        for number in range(1000):
            self.assertIn(f'{base}/event/topic {number} {{"n":{number}}}', before)


class StoredEvents(broker.Case):
    broker_options = """allow_anonymous true
persistence true
persistence_location {folder}/
"""

    def test_go_if_the_server_has_none_any_more(self):
        lamp = self.exported()
        self.call(lamp.base, "switch", '{"on":true}')
        self.broker.kill(signal.SIGTERM)
        lamp.bridge.says("lost the broker")
        lamp.kill()
        lamp.bridge.says("the server is away")
        self.lamp(lamp.name)
        lamp.bridge.says("exported as", times=2)
        self.start_broker()
        lamp.bridge.says("connected to the broker", times=2)
        self.await_retained(lamp.base + "/online", "true")
        self.assertIsNone(self.retained(lamp.base + "/event/state"))


class Presence(broker.Case):
    def test_is_true_with_a_description_once_the_server_is_there(self):
        lamp = self.exported()
        about = json.loads(self.retained(lamp.base + "/about"))
        self.assertEqual((about["name"], about["description"]), (lamp.name, "A lamp."))
        self.assertIn({"name": "state", "description": "Whether it is on.", "keepsLast": True},
                      about["topics"])
        self.assertIn("add", [command["name"] for command in about["commands"]])

    def test_is_false_without_the_server(self):
        lamp = self.exported()
        lamp.kill()
        self.await_retained(lamp.base + "/online", "false")

    def test_is_false_without_the_bridge(self):
        for number in (signal.SIGKILL, signal.SIGTERM):
            lamp = self.exported()
            status = lamp.bridge.kill(number)
            self.assertEqual(status, -9 if number == signal.SIGKILL else 0)
            self.await_retained(lamp.base + "/online", "false")


class Calls(broker.Case):
    def ask(self, lamp, command, payload, **options):
        return self.call(lamp.base, command, payload, **options)[0]

    def test_are_answered_with_status_result_and_error(self):
        lamp = self.exported()
        self.assertEqual(self.ask(lamp, "add", '{"a":1,"b":2}'),
                         {"type": "reply", "status": 0, "result": 3})
        self.assertEqual(self.ask(lamp, "switch", '{"on":false}', correlation="c2"),
                         {"type": "reply", "status": 0})
        self.assertEqual(self.ask(lamp, "refuse", "", correlation="c3"),
                         {"type": "reply", "status": 13, "error": "not you"})

    def test_are_answered_in_parts(self):
        lamp = self.exported()
        self.assertEqual(self.call(lamp.base, "count", "{}", replies=3), [
            {"type": "reply", "status": 0, "result": 1, "more": True},
            {"type": "reply", "status": 0, "result": 2, "more": True},
            {"type": "reply", "status": 0, "result": 3}])

    def test_that_are_wrong_are_refused_with_a_reply(self):
        lamp = self.exported()
        for command, payload, status in (
                ("add", "[1,2]", 22), ("add", "no JSON", 22), ("add", b"\x00\xff", 22),
                ("add", b'{"a":1,"b":2,"c":"\xff"}', 22), ("add", '{"b":1}', 22),
                ("echo", json.dumps({"value": "x" * 4090}), 90),
                ("echo", json.dumps({"value": "x" * 4045}), 90),
                ("dance", "{}", 38), ("%4", "{}", 22), ("add", '{"command":"refuse"}', 22),
                ("add", '{"a":1,"b":2,"id":7}', 22), ("subscribe", '{"topics":[]}', 13),
                ("unsubscribe", '{"topics":[]}', 13), ("set", '{"notification":true}', 13)):
            with self.subTest(f"{command} {payload!r:.40}"):
                reply = self.ask(lamp, command, payload, correlation=support.unique_name("c"))
                self.assertEqual(reply["status"], status)
                self.assertTrue(reply["error"])
        self.assertEqual(self.ask(lamp, "add", '{"a":1,"b":2}', correlation="end")["result"], 3)

    def test_with_a_response_topic_take_correlation_data(self):
        lamp = self.exported()
        answers = self.subscribe("answers")
        self.publish(lamp.base + "/call/switch", '{"on":true}',
                     "-D", "publish", "response-topic", "answers")
        support.wait_until(answers.heard)
        self.assertIn('"status":22', answers.heard()[0])

    def test_without_a_response_topic_are_made_and_logged(self):
        lamp = self.exported()
        self.publish(lamp.base + "/call/switch", '{"on":true}')
        lamp.bridge.says("'switch' without a response topic: status 0")
        self.publish(lamp.base + "/call/refuse", "")
        lamp.bridge.says("status 13: ")
        self.assertEqual(self.retained(lamp.base + "/event/state"), '{"on":true}')

    def test_never_make_the_bridge_publish_below_its_own_prefix(self):
        lamp = self.exported()
        peer = self.subscribe(lamp.base + "/call/#")
        self.publish(lamp.base + "/call/add", '{"a":1,"b":2}',
                     *self.answered(lamp.base + "/call/switch", "x"))
        lamp.bridge.says("replies are not published to")
        self.assertEqual(len(peer.heard()), 1)

    def test_that_come_twice_are_made_once(self):
        file = self.folder / "carried"
        lamp = self.exported(lamp=self.lamp(None, file))
        answers = self.subscribe("answers")
        for value, correlation in ((1, "a"), (1, "a"), (2, "b"), (1, "a")):
            self.publish(lamp.base + "/call/carry", json.dumps({"value": value}),
                         *self.answered("answers", correlation))
        support.wait_until(lambda: len(answers.heard()) == 2)
        self.assertEqual(file.read_text(), "1\n2\n")

    def test_that_are_retained_are_not_repeated(self):
        lamp = self.exported()
        self.publish(lamp.base + "/call/switch", '{"on":true}', "-r")
        lamp.bridge.says("status 0")
        lamp.bridge.kill()
        again = self.bridge("--prefix", self.prefix, lamp.name)
        again.says("exported as")
        self.call(lamp.base, "add", '{"a":1,"b":2}')
        self.assertNotIn("switch", again.log())

    def test_are_sixteen_at_a_time(self):
        lamp = self.exported()
        answers = self.subscribe("answers", form="%D %p")
        for number in range(17):
            self.publish(lamp.base + "/call/hold", "", *self.answered("answers", f"c{number}"))
        support.wait_until(answers.heard)
        self.assertRegex(answers.heard()[0], '^c16 .*"status":16')

    def test_have_the_expiry_as_their_limit(self):
        lamp = self.exported()
        expiry = ("-D", "publish", "message-expiry-interval", "1")
        self.assertEqual(self.ask(lamp, "hold", "", properties=expiry)["status"], 110)

    def test_of_a_server_that_is_away_are_refused(self):
        lamp = self.exported()
        lamp.kill()
        self.await_retained(lamp.base + "/online", "false")
        self.assertEqual(self.ask(lamp, "add", "{}")["status"], 111)

    def test_are_those_that_are_allowed(self):
        lamp = self.lamp()
        self.exported("--allow", lamp.name + ":add,describe", lamp=lamp)
        self.assertEqual(self.ask(lamp, "add", '{"a":1,"b":2}')["status"], 0)
        self.assertEqual(self.ask(lamp, "switch", '{"on":true}', correlation="c2")["status"], 13)
        self.assertEqual(self.ask(lamp, "s%77itch", '{"on":true}', correlation="c3")["status"], 13)
