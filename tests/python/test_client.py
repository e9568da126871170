"""The blocking client, against the server for tests."""

import concurrent.futures
import os
import socket
import time
import unittest

import support
import tovik
import tovik.testing


class Client(unittest.TestCase):
    def setUp(self):
        self.name = support.unique_name()
        self.handler = lambda message: message.get("answer", 0)
        self.server = tovik.testing.Server(self.name, lambda message: self.handler(message))
        self.server.__enter__()
        self.addCleanup(lambda: self.server.__exit__(None, None, None))
        self.client = tovik.Client(self.name, timeout=support.DEADLINE)
        self.addCleanup(self.client.close)

    def test_gets_the_status_of_each_call(self):
        for status in (0, 3, 2147483647):
            self.assertEqual(self.client.call({"answer": status}), status)
        self.assertEqual(self.server.received[1], {"answer": 3})

    def test_gets_a_message_for_an_answer(self):
        self.client.send({"answer": {"load": 0.5}})
        self.assertEqual(self.client.receive(), {"load": 0.5})

    def test_gets_notifications_once_it_has_subscribed(self):
        self.assertEqual(self.server.notify({"n": 0}), 0)
        self.client.subscribe()
        support.wait_until(lambda: self.server.subscribers == 1)
        self.assertEqual([self.server.notify({"n": n}) for n in (1, 2)], [1, 1])
        messages = iter(self.client)
        self.assertEqual([next(messages), next(messages)], [{"n": 1}, {"n": 2}])
        self.assertEqual(self.server.received, [], "the switch is not for the handler")

    def test_ends_its_iteration_when_the_server_closes(self):
        self.client.subscribe()
        support.wait_until(lambda: self.server.subscribers == 1)
        self.server.notify({"n": 1})
        self.server.disconnect()
        self.assertEqual(list(self.client), [{"n": 1}])

    def test_makes_no_call_once_it_has_subscribed(self):
        self.client.subscribe()
        self.client.subscribe()
        with self.assertRaisesRegex(tovik.ProtocolError, "another client"):
            self.client.call({"a": 1})

    def test_reports_a_server_that_closes(self):
        self.handler = lambda message: self.server.disconnect()
        with self.assertRaises(tovik.ConnectionLost):
            self.client.call({"a": 1})
        with self.assertRaisesRegex(ConnectionError, "closed"):
            self.client.send({"a": 1})

    def test_closes_after_a_failure_of_the_kernel(self):
        self.client.call({})
        self.server.disconnect()
        descriptors = len(os.listdir("/proc/self/fd"))
        with self.assertRaisesRegex(tovik.ConnectionLost, "Broken pipe"):
            self.client.send({"a": 1})
        self.assertEqual(len(os.listdir("/proc/self/fd")), descriptors - 1)
        with self.assertRaisesRegex(tovik.ConnectionLost, "the client is closed"):
            self.client.receive()

    def test_reads_what_a_server_sent_before_it_closed_with_records_unread(self):
        name = support.unique_name()
        with support.listener(name) as listener:
            with tovik.Client(name, timeout=support.DEADLINE) as client:
                client.send({"never": "read"})
                with listener.accept()[0] as peer:
                    peer.send(b'{"n":1}')
                    peer.send(b'{"n":2}')
                self.assertEqual(list(client), [{"n": 1}, {"n": 2}])

    def test_loses_no_record_when_it_closes_once_the_last_reply_is_read(self):
        def talk():
            with tovik.Client(self.name, timeout=support.DEADLINE) as client:
                for n in range(100):
                    client.send({"n": n})
                for n in range(100):
                    client.receive()
        with concurrent.futures.ThreadPoolExecutor(50) as pool:
            for talked in [pool.submit(talk) for _ in range(50)]:
                talked.result()
        self.assertEqual(len(self.server.received), 5000)

    def test_gives_up_and_closes_at_its_time_limit(self):
        self.handler = lambda message: None
        self.client.timeout = 0.05
        start = time.monotonic()
        with self.assertRaises(TimeoutError):
            self.client.call({"a": 1})
        self.assertGreaterEqual(time.monotonic() - start, 0.05)
        with self.assertRaises(tovik.ConnectionLost):
            self.client.receive()

    def test_closes_after_an_answer_that_is_no_reply(self):
        for wrong in ({"type": "Reply", "status": 0}, {"status": 0}):
            with tovik.Client(self.name, timeout=support.DEADLINE) as client:
                with self.assertRaises(tovik.ProtocolError):
                    client.call({"answer": wrong})
                with self.assertRaises(tovik.ConnectionLost):
                    client.receive()

    def test_goes_on_after_a_message_that_cannot_be_sent(self):
        for value in ("x" * 5000, b"bytes", {1}, float("nan"), "\ud800"):
            with self.assertRaises(tovik.ProtocolError):
                self.client.call({"m": value})
            self.assertEqual(self.client.call({"answer": 4}), 4)

    def test_cannot_be_deceived_by_hostile_records(self):
        for record in (b"[1,2]", b"\xff\xfe", b"{}".ljust(4095), b"x" * 100000):
            with tovik.Client(self.name, timeout=support.DEADLINE) as client:
                client.call({})
                self.server.send_raw(record)
                with self.assertRaises(tovik.ProtocolError):
                    client.receive()

    def test_tells_who_the_server_is(self):
        peer = self.client.server
        self.assertEqual((peer.pid, peer.uid, peer.gid), (os.getpid(), os.geteuid(), os.getegid()))

    def test_refuses_a_server_of_another_user(self):
        with tovik.Client(self.name, server_uid=os.geteuid()):
            pass
        with self.assertRaisesRegex(tovik.Refused, "not as user"):
            tovik.Client(self.name, server_uid=os.geteuid() + 1)

    def test_is_refused_by_the_validator(self):
        name, judged = support.unique_name(), []
        with tovik.testing.Server(name, validator=lambda peer: bool(judged.append(peer))):
            client = tovik.Client(name, timeout=support.DEADLINE)
            with self.assertRaisesRegex(tovik.Refused, "does not admit"):
                client.receive()
            client = tovik.Client(name, timeout=support.DEADLINE)
            support.wait_until(lambda: len(judged) == 2)
            with self.assertRaisesRegex(tovik.Refused, "does not admit"):
                for _ in range(2):  # the server may close between
                    client.call({"a": 1})
        self.assertEqual(judged[0].uid, os.geteuid())

    def test_closes_with_its_block(self):
        with tovik.Client(self.name) as client:
            pass
        client.close()
        with self.assertRaises(tovik.ConnectionLost):
            client.server


class Connecting(unittest.TestCase):
    def test_fails_where_no_server_listens_and_leaves_nothing_behind(self):
        before = os.listdir("/proc/self/fd")
        for _ in range(3):
            with self.assertRaisesRegex(tovik.ConnectionLost, "refused"):
                tovik.Client(support.unique_name(), timeout=1)
        self.assertEqual(os.listdir("/proc/self/fd"), before)

    def test_meets_no_server_whose_address_is_not_padded(self):
        name = support.unique_name()
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as short:
            short.bind(b"\0" + name.encode())
            short.listen()
            with self.assertRaises(tovik.ConnectionLost):
                tovik.Client(name)

    def test_waits_for_room_in_the_backlog_up_to_its_time_limit(self):
        name = support.unique_name()
        with support.listener(name) as listener:
            listener.listen(0)
            with tovik.Client(name, timeout=support.DEADLINE):
                start = time.monotonic()
                with self.assertRaises(TimeoutError):
                    tovik.Client(name, timeout=0.1)
                self.assertGreaterEqual(time.monotonic() - start, 0.1)


class RaisingHandler(unittest.TestCase):
    """Code of the test that fails on the thread of the server for tests."""

    def call(self, name):
        with tovik.Client(name, timeout=support.DEADLINE) as client:
            client.call({"a": 1})

    def test_surfaces_where_the_server_s_block_ends(self):
        name = support.unique_name()
        with self.assertRaisesRegex(KeyError, "mine"):
            with tovik.testing.Server(name, lambda message: message["mine"]):
                with self.assertRaises(tovik.ConnectionLost):
                    self.call(name)
                with self.assertRaises(tovik.ConnectionLost):
                    support.wait_until(lambda: self.call(name))

    def test_surfaces_with_what_it_made_fail(self):
        name = support.unique_name()
        with self.assertRaises(ZeroDivisionError) as caught:
            with tovik.testing.Server(name, validator=lambda peer: 1 // 0):
                self.call(name)
        self.assertIsInstance(caught.exception.__context__, tovik.ConnectionLost)

    def test_surfaces_where_its_answer_cannot_be_sent(self):
        name = support.unique_name()
        with self.assertRaises(tovik.ProtocolError):
            with tovik.testing.Server(name, lambda message: {"m": "x" * 5000}):
                self.call(name)


class TestServer(unittest.TestCase):
    """The server for tests, against raw records."""

    def setUp(self):
        self.name = support.unique_name()
        self.server = self.enter(tovik.testing.Server(self.name, lambda message: 5))
        self.peer = self.enter(socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET))
        self.peer.settimeout(support.DEADLINE)
        self.peer.connect(tovik.address(self.name))

    def enter(self, manager):
        value = manager.__enter__()
        self.addCleanup(manager.__exit__, None, None, None)
        return value

    def answers(self, *records):
        """What comes back for these, up to the answer to a plain message."""
        for record in records:
            self.peer.send(record)
        found = []
        while not found or found[-1] not in (b'{"type":"reply","status":5}', b""):
            found.append(self.peer.recv(5000))
        return found

    ON = b'{"command":"set","notification":true}'
    OFF = b'{"command":"set","notification":false}'
    ZERO = b'{"type":"reply","status":0}'
    FIVE = b'{"type":"reply","status":5}'

    def test_answers_a_switch_unless_it_was_on_before(self):
        self.assertEqual(self.answers(self.ON, self.ON, self.OFF, self.OFF, b"{}"),
                         [self.ZERO, self.ZERO, self.FIVE])

    def test_sends_no_replies_to_a_subscriber(self):
        self.assertEqual(self.answers(self.ON, b'{"a":1}', self.OFF, b'{"b":1}'),
                         [self.ZERO, self.FIVE])
        self.assertEqual(self.server.received, [{"a": 1}, {"b": 1}])

    def test_swallows_a_switch_that_is_neither_on_nor_off(self):
        self.assertEqual(self.answers(b'{"command":"set","notification":1}', b"{}"), [self.FIVE])
        self.assertEqual(self.server.received, [{}])

    def test_forgets_a_client_that_goes_while_it_subscribes(self):
        with self.server._lock:  # which stops the server
            with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as passing:
                passing.connect(tovik.address(self.name))
                passing.send(self.ON)
        self.assertEqual(self.answers(b"{}"), [self.FIVE])
        with tovik.Client(self.name, timeout=support.DEADLINE) as client:
            self.assertEqual(client.call({}), 5, "and whoever came before has been looked at")
        self.assertEqual(self.server.subscribers, 0)

    def test_takes_other_commands_for_messages(self):
        self.assertEqual(self.answers(b'{"command":"get","notification":true}'), [self.FIVE])
        self.assertEqual(self.answers(b'{"command":"set"}'), [self.FIVE])

    def test_drops_what_is_not_json(self):
        self.assertEqual(self.answers(b"{", b"{}"), [self.FIVE])
        self.assertEqual(self.server.violations, [])

    def test_ends_the_connection_where_a_c_server_would_end(self):
        for record in (b"[1,2]", b'{"command":7,"notification":true}'):
            with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as self.peer:
                self.peer.settimeout(support.DEADLINE)
                self.peer.connect(tovik.address(self.name))
                self.assertEqual(self.answers(record), [b""])
        self.assertEqual(self.server.violations, ["[1,2]", '{"command":7,"notification":true}'])
