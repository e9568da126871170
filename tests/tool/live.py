#!/usr/bin/env python3
"""The command against peers that are not its own: raw sockets, socat, terminals, signals, hostile
input. Each test case is a ctest test of its own."""

import contextlib
import fcntl
import getpass
import json
import os
import random
import re
import resource
import select
import signal
import socket
import struct
import subprocess
import tempfile
import termios
import time
import unittest

import programs
from programs import LIMIT, Program, Terminal, listens, raw_client, unique_name, until

SWITCH_ON = b'{"command":"set","notification":true}'
REPLY = b'{"type":"reply","status":%d}'


# Characters that show as nothing, as a blank, or turn what follows around.
DECEPTIVE = "\u00a0\u00ad\u034f\u061c\u2003\u200b\u200d\u200e\u2028\u2029\u202e\u2060\u2066\u2069"
DECEPTIVE += "\u2800\u3000\u3164\ufe0f\ufeff\ufff9\U0001d173\U000e0041\U0010ffff"


def traced(*options, output="/dev/null"):
    """Runs a command so that its system calls are seen, or fail. Leaks are told by other tests."""
    return ["strace", "-D", "-E", "ASAN_OPTIONS=detect_leaks=0", "-o", output, *options]


def without(*calls):
    """Runs a command to which the kernel refuses these system calls."""
    return traced(*(f"--inject={call}:error=EPERM" for call in calls))


NO_NETLINK = without("socket")

# Runs a command as another user, who may go through folders that are closed to others.
STRANGER = ["setpriv", "--reuid=54321", "--regid=54320", "--clear-groups",
            "--inh-caps=+dac_read_search", "--ambient-caps=+dac_read_search"]


def reply_to(client, reply=REPLY % 0):
    """Takes a message and sends what answers it."""
    message = client.recv(4096)
    client.send(reply)
    return message


class Case(unittest.TestCase):
    def setUp(self):
        self.name = unique_name()

    def run_program(self, arguments, **options):
        return Program(self, arguments, **options)

    def start(self, *arguments, run_in=(), **options):
        return self.run_program([*run_in, "tovik", *arguments], **options)

    def shell(self, command):
        return self.run_program(command)

    def server(self, *options, name=None, **settings):
        """A `serve` that listens."""
        name = name or self.name
        program = self.start("serve", name, *options, **settings)
        until(lambda: listens(name), "a listening server")
        return program

    def relay_of(self, *options, **settings):
        """A relay in front of the server, once it listens."""
        self.front = unique_name()
        self.relay = self.start("relay", self.front, self.name, *options, **settings)
        until(lambda: listens(self.front), "a listening relay")
        return self.relay

    def raw_server(self, name=None, path=None):
        server = programs.raw_socket()
        self.addCleanup(server.close)
        server.bind(path or programs.address(name or self.name))
        server.listen(5)
        return server

    def accept(self, server):
        client = server.accept()[0]
        client.settimeout(LIMIT)
        self.addCleanup(client.close)
        return client

    def client(self, name=None):
        client = raw_client(name or self.name)
        self.addCleanup(client.close)
        return client

    def expect(self, program, status, out=None, err=None):
        """The program ends with that status; its output contains these texts."""
        self.assertEqual(status, program.end(), (program.stdout(), program.stderr()))
        if out is not None:
            self.assertEqual(out, program.stdout().decode("utf-8", "replace"))
        if err is not None:
            self.assertIn(err, program.stderr().decode())

    def output_of(self, *arguments, stdin=b"", status=0, err=None, **options):
        program = self.start(*arguments, **options)
        program.write(stdin) if stdin else None
        self.expect(program, status, err=err)
        return program.stdout()


class Monitor(Case):
    def subscribed(self, *options, **settings):
        server = self.raw_server()
        monitor = self.start("monitor", self.name, *options, **settings)
        client = self.accept(server)
        self.assertEqual(SWITCH_ON, reply_to(client))
        monitor.says("subscribed to")
        return server, monitor, client

    def test_prints_messages_until_the_count(self):
        _, monitor, client = self.subscribed("--count", "2")
        client.send(b'{"n" : 1}')
        monitor.says('{"n":1}\n')
        self.assertIsNone(monitor.process.poll())
        client.send(b'{"n":2}')
        self.expect(monitor, 0, '{"n":1}\n{"n":2}\n', f"tovik: subscribed to '{self.name}'.\n")

    def test_is_also_called_subscribe(self):
        monitor = self.start("subscribe", self.name, "--no-reconnect")
        self.expect(monitor, 3, "", "no server listens under")

    def test_picks_out_what_is_asked_for(self):
        for conditions, others, wanted in (
                (("a=on", "n=1"), ('{"a":"off","n":1}', '{"a":"on"}', '{"a":"on","n":2}', "[1]",
                                   '"a"', '{"a":"on","n":"1 "}'),
                 ('{"a":"on","n":1}', '{"n":1.0,"a":"on"}')),
                (("state=on",), ('{"s":"on","stat":"on","states":"on","tate":"on"}',),
                 ('{"state":"on"}',)),
                (("a.b.c=1",), ('{"a":{"b":{"c":2}}}', '{"a":{"b":1}}'),
                 ('{"a":{"b":{"c":1}}}', '{"a.b":{"c":1}}', '{"a.b.c":1}')),
                *(((condition,), ('{"x":"other"}', '{"no x":1}'), (wanted,))
                  for condition, wanted in (
                      ("x=true", '{"x":true}'), ("x=null", '{"x":null}'), ('x="1"', '{"x":"1"}'),
                      ("x=1", '{"x":"1"}'), ("x=", '{"x":""}'), ("x=a=b", '{"x":"a=b"}'),
                      ('x={"y":[1]}', '{"x":{"y":[1]}}')))):
            with self.subTest(conditions):
                self.name = unique_name()
                _, monitor, client = self.subscribed("--count", str(len(wanted)), *(
                    word for condition in conditions for word in ("--where", condition)))
                for text in (*others, *wanted):
                    client.send(text.encode())
                self.expect(monitor, 0, "".join(text + "\n" for text in wanted))

    def test_stamps_messages_with_the_time(self):
        time = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z"
        for options, shown in (((), time + ' {"n":1}'),
                               (("-j",), '{"time":"' + time + '","message":{"n":1}}')):
            self.name = unique_name()
            _, monitor, client = self.subscribed("--timestamps", "--count", "1", *options)
            client.send(b'{"n":1}')
            self.expect(monitor, 0)
            self.assertRegex(monitor.stdout().decode(), f"^{shown}\n$")

    def test_reconnects_and_says_so(self):
        server, monitor, client = self.subscribed()
        client.close()
        monitor.says(f"tovik: the connection to '{self.name}' was lost; reconnecting.\n")
        again = self.accept(server)
        self.assertEqual(SWITCH_ON, reply_to(again))
        again.send(b'{"n":1}')
        monitor.says('{"n":1}\n')
        self.assertEqual(0, monitor.interrupt())
        self.assertEqual(2, monitor.stderr().count(b"subscribed to"))

    def test_waits_for_a_server_that_is_not_there_yet(self):
        monitor = self.start("monitor", self.name, "--count", "1")
        monitor.says(f"tovik: no server listens under '{self.name}' yet; waiting for it.\n")
        self.assertRaises(subprocess.TimeoutExpired, monitor.process.wait, 0.1)
        client = self.accept(self.raw_server())
        reply_to(client)
        client.send(b"{}")
        self.expect(monitor, 0, "{}\n")
        self.assertEqual(1, monitor.stderr().count(b"yet"))

    def test_ends_at_a_loss_if_asked_to(self):
        _, monitor, client = self.subscribed("--no-reconnect")
        client.close()
        self.expect(monitor, 5, "", "was lost.")

    def test_ends_when_refused_if_asked_to(self):
        self.server("--deny-all")
        self.expect(self.start("monitor", self.name, "--no-reconnect"), 5, "",
                    "closed the connection before an answer")

    def test_says_when_it_is_refused_and_tries_on(self):
        self.server("--deny-all")
        monitor = self.start("monitor", self.name)
        monitor.says("closed the connection at once and may not admit this user; trying on.\n")
        self.assertEqual(0, monitor.interrupt(signal.SIGTERM))

    def test_says_that_a_server_does_not_answer(self):
        self.raw_server()
        monitor = self.start("monitor", self.name)
        monitor.says(f"tovik: the server '{self.name}' does not answer the subscription; waiting")
        self.assertEqual(0, monitor.interrupt())

    def test_follows_several_servers(self):
        names = [unique_name(), unique_name()]
        servers = [self.raw_server(name) for name in names]
        monitor = self.start("monitor", *names, "--count", "2", "-j")
        for server in servers:
            client = self.accept(server)
            reply_to(client)
            client.send(b'{"n":1}')
        self.expect(monitor, 0)
        self.assertEqual([{"name": name, "message": {"n": 1}} for name in sorted(names)],
                         sorted(map(json.loads, monitor.stdout().splitlines()),
                                key=lambda message: message["name"]))

    def test_subscribes_to_topics_and_asks(self):
        server = self.raw_server()
        monitor = self.start("monitor", self.name, "--topic", "a", "--topic", "b", "--send",
                             '{"command": "get"}', "--count", "1")
        client = self.accept(server)
        self.assertEqual(b'{"command":"subscribe","topics":["a","b"]}', reply_to(client))
        self.assertEqual(b'{"command":"get"}', client.recv(4096))
        client.send(b'{"type":"event","topic":"a"}')
        self.expect(monitor, 0, '{"type":"event","topic":"a"}\n')

    def test_has_a_time_limit_only_if_given(self):
        _, monitor, _ = self.subscribed("--timeout", "0.3")
        self.expect(monitor, 4, "", "the 0.3 s of --timeout are over")

    def test_reports_a_refused_subscription(self):
        server = self.raw_server()
        monitor = self.start("monitor", self.name)
        client = self.accept(server)
        reply_to(client, REPLY % 7)
        self.expect(monitor, 1, "", "answered the subscription with status 7.")

    def test_ignores_what_is_not_json(self):
        _, monitor, client = self.subscribed("--count", "1")
        client.send(b"\x1b[2J\xff{")
        client.send(b'{"n":1}\0rest')
        self.expect(monitor, 0, '{"n":1}\n',
                    "sent '\\x1b[2J\\xff{', which is not JSON and was ignored")

    def test_keeps_the_terminal_safe(self):
        _, monitor, client = self.subscribed("--count", "1", terminal=True)
        client.send('{"a":"\x7f\u009b2J'.encode() + b'\xff"}')
        self.expect(monitor, 0)
        self.assertIn(b'{\x1b[34m"a"\x1b[0m:\x1b[32m"\\u007f\\u009b2J\\ufffd"\x1b[0m}\r\n',
                      monitor.stdout())

    def test_shows_what_cannot_be_seen(self):
        _, monitor, client = self.subscribed("--count", "1", terminal=True)
        client.send(('{"a":"%s"}' % DECEPTIVE).encode())
        self.expect(monitor, 0)
        shown = monitor.stdout().decode()
        self.assertFalse(any(character in shown for character in DECEPTIVE), shown)
        self.assertIn(json.dumps(DECEPTIVE), shown)

    def test_is_quiet(self):
        server = self.raw_server()
        monitor = self.start("monitor", self.name, "-q", "--count", "1")
        client = self.accept(server)
        reply_to(client)
        client.send(b"{}")
        self.expect(monitor, 0, "")
        self.assertEqual(b"", monitor.stderr())

    def test_ends_when_nobody_reads_its_output(self):
        server = self.raw_server()
        pipeline = self.shell(f"tovik monitor {self.name} | head -1; echo ${{PIPESTATUS[0]}}")
        client = self.accept(server)
        reply_to(client)
        client.send(b'{"n":1}')  # and no second one
        self.expect(pipeline, 0, '{"n":1}\n0\n')

    def test_distrusts_another_users_server(self):
        server = self.raw_server()
        monitor = self.start("monitor", self.name, "--server-uid", "54321")
        client = self.accept(server)
        self.assertEqual(b"", client.recv(4096))
        self.expect(monitor, 5, "", "and not to 54321, so nothing was sent")


class Call(Case):
    def called(self, *options, stdin=b""):
        """A call that waits for its answer, and the server's end of it."""
        server = self.raw_server()
        call = self.start("call", self.name, *options)
        call.write(stdin)
        client = self.accept(server)
        return call, client

    def test_sends_the_compact_text_as_one_record(self):
        call, client = self.called('{ "a" : [ 1, 2.50, "\\u00e9" ] }')
        self.assertEqual('{"a":[1,2.5,"é"]}'.encode(),
                         reply_to(client, b' {"status":0, "type":"reply"} '))
        self.expect(call, 0, "status 0\n")
        self.assertEqual(b"", client.recv(4096))

    def test_prints_what_is_answered(self):
        numbers = '{"type":"reply","status":0,"n":123456789012345678901234567890,"x":1.50,"y":1e2}'
        for options, answers, status, shown, told in (
                (("{}",), [REPLY % 3 + b"\0{"], 1, "status 3", None),
                (("{}", "-t", "0"), [REPLY % 0], 0, "status 0", None),
                (("{}", "-j"), [numbers.encode()], 0, numbers, None),
                (("{}",), [b'{"type":"reply","status":0,"result":[12345678901234567890123, 1.50]}'],
                 0, "[12345678901234567890123,1.50]", None),
                (('{"id":7}',), [b'{"type":"reply","status":5,"id":6}',
                                 b'{"type":"reply","status":0,"id":7}'],
                 0, "status 0", "which answers another call."),
                *((("{}",), [text], 6, shown, "tovik: the answer is no reply (")
                  for text, shown in (
                      (b'{"time":5}', '{"time":5}'), (b"[1]", "[1]"), (b"{", "{"),
                      (b'{"type":5,"status":0}', '{"type":5,"status":0}'),
                      (b"\xff\0{}", "\\xff\\x00{}"), (b"x" * 100000, "x" * 100000)))):
            with self.subTest(f"{options} {answers!r:.100}"):
                self.name = unique_name()
                call, client = self.called(*options)
                client.recv(4096)
                for text in answers:
                    client.send(text)
                client.close()  # which is not minded by then
                self.expect(call, status, shown + "\n", told)

    def test_waits_for_each_reply_before_the_next_message(self):
        call, client = self.called(stdin=b'{"n":1}\n{"n":2}\n')
        self.assertEqual(b'{"n":1}', client.recv(4096))
        client.settimeout(0.1)
        self.assertRaises(TimeoutError, client.recv, 4096)
        client.settimeout(LIMIT)
        client.send(REPLY % 0)
        self.assertEqual(b'{"n":2}', reply_to(client))
        call.says("status 0\nstatus 0\n")
        call.write(b'{"n":3}\n')  # and lines are taken as they come
        self.assertEqual(b'{"n":3}', reply_to(client))
        self.expect(call, 0, "status 0\n" * 3)

    def test_has_no_time_limit_for_its_input(self):
        call, client = self.called("-", "-t", "0.3", stdin=b"{}\n")
        reply_to(client)
        call.says("status 0")
        self.assertRaises(subprocess.TimeoutExpired, call.process.wait, 0.5)
        self.expect(call, 0, "status 0\n")

    def test_takes_any_record_for_an_answer_if_told_to(self):
        answers = [b'{"load":0.5}', b"no JSON", b"[1]", b"7", b'"x"', b"{}", b'{"type":"reply"}']
        call, client = self.called("--any", stdin=b'{"command":"get"}\n' * len(answers))
        for answer in answers:
            reply_to(client, answer)
        self.expect(call, 0, (b"\n".join(answers) + b"\n").decode())

    def test_prints_results(self):
        call, client = self.called("-", stdin=b'{"n":1}\n{"n":2}\n{"n":3}\n')
        for answer in (b'{"type":"reply","status":0,"result":{"a":[1]}}',
                       b'{"type":"reply","status":0,"result":[1],"more":true}',
                       b'{"type":"reply","status":0,"result":[2]}',
                       b'{"type":"reply","status":22,"error":"no n\\u202e"}'):
            if b"[2]" not in answer:
                client.recv(4096)
            client.send(answer)
        self.expect(call, 1, '{"a":[1]}\n[1]\n[2]\nstatus 22\n', "1 of 3 answers had a status that "
                    "is not allowed, the last one 22: no n\\xe2\\x80\\xae; if that is a "
                    "success, say")

    def test_takes_no_read_error_for_the_end(self):
        self.raw_server()
        for verb in ("call", "send"):
            self.expect(self.shell(f"tovik {verb} {self.name} </"), 2, "",
                        "standard input cannot be read: Is a directory.")

    def test_trusts_nobody_whom_the_kernel_does_not_name(self):
        server = self.raw_server()
        call = self.start("call", self.name, "{}", "--server-uid", "0",
                          run_in=without("getsockopt"))
        self.assertEqual(b"", self.accept(server).recv(4096))
        self.expect(call, 5, "", f"does not tell whose server '{self.name}' is, so nothing was "
                    "sent: Operation not permitted.")

    def test_reports_a_connection_that_is_lost(self):
        call, client = self.called("{}")
        client.recv(4096)
        client.close()
        self.expect(call, 5, "", "closed the connection before an answer")

    def test_minds_it_when_there_is_another_message(self):
        server = self.raw_server()
        call = self.start("call", self.name, "-")
        call.write(b"{}\n")
        client = self.accept(server)
        reply_to(client)
        call.says("status 0")
        client.close()
        self.assertEqual([], select.select([server], [], [], 0.1)[0], "it must not come again")
        call.write(b"{}\n")
        self.expect(call, 5, "status 0\n", "closed the connection before an answer")

    def test_reports_what_comes_unasked(self):
        call, client = self.called("-", stdin=b"{}\n")
        reply_to(client)
        client.send(b'{"news":1}')
        call.says("""tovik: the server sent '{"news":1}' unasked; 'tovik monitor' subscribes.\n""")
        self.expect(call, 0, "status 0\n")

    def full_server(self):
        """A server that does not accept, with as many clients waiting as can."""
        server = self.raw_server()
        server.listen(0)
        self.client()
        return server

    def test_has_a_time_limit_when_connecting_blocks(self):
        self.full_server()
        self.expect(self.start("call", self.name, "{}", "-t", "0.3"), 4, "",
                    "accepted no client within 0.3 s, and no more may wait")

    def test_gets_through_when_connecting_stops_blocking(self):
        server = self.full_server()
        call = self.start("call", self.name, "{}")
        until(lambda: signals_are_blocked(call.process.pid), "the start of waiting")
        self.assertRaises(subprocess.TimeoutExpired, call.process.wait, 0.1)
        self.accept(server)
        client = self.accept(server)
        reply_to(client)
        self.expect(call, 0, "status 0\n")

    def test_can_be_interrupted_when_connecting_blocks(self):
        self.full_server()
        call = self.start("call", self.name, "{}", "-t", "0")
        until(lambda: signals_are_blocked(call.process.pid), "the start of waiting")
        self.assertEqual(-signal.SIGINT, call.interrupt())

    def test_ends_by_the_signal_when_interrupted(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            self.name = unique_name()
            call, client = self.called("{}")
            client.recv(4096)
            self.assertEqual(-number, call.interrupt(number))
            self.assertEqual(b"", call.stderr())

    def test_sends_no_more_when_nobody_reads_its_output(self):
        server = self.server()
        pipeline = self.shell(f"yes {{}} | head -20000 | tovik call {self.name} | head -1; "
                              "echo ${PIPESTATUS[2]}")
        self.expect(pipeline, 0, "status 0\n7\n")
        self.assertLess(server.stdout().count(b"\n"), 20000)

    def test_keeps_results_out_of_the_socket_when_standard_streams_are_closed(self):
        server = self.raw_server()
        call = self.shell(f"exec tovik call {self.name} {{}} >&- <&- 2>&-")
        client = self.accept(server)
        self.assertEqual(b"{}", reply_to(client))
        self.assertEqual(0, call.end())
        self.assertEqual(b"", client.recv(4096))

    def test_says_on_a_terminal_that_it_reads(self):
        self.server("-q")
        terminal = Terminal(self)
        call = self.start("call", self.name, stdin=terminal.program_end)
        call.says("tovik: type messages, one a line; Ctrl-D ends.\n")
        terminal.type(b'{"n":1}\n')
        call.says("status 0\n")
        terminal.type(b"\x04")
        self.expect(call, 0, "status 0\n")


def room_of_a_socket(record):
    """How many records wait in a socket before its writer has to."""
    left, right = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    left.setblocking(False)
    with left, right, contextlib.suppress(BlockingIOError):
        for sent in range(100000):
            left.send(record)
    return sent


def unread_bytes(client):
    return struct.unpack("i", fcntl.ioctl(client, termios.FIONREAD, bytes(4)))[0]


class Send(Case):
    def test_returns_when_the_server_has_read_everything(self):
        server = self.raw_server()
        send = self.start("send", self.name, '{"n":1}', "--count", "2")
        client = self.accept(server)
        self.assertEqual(b'{"n":1}', reply_to(client))  # which nobody waits for
        self.assertIsNone(send.process.poll())
        self.assertEqual(b'{"n":1}', client.recv(4096))
        self.expect(send, 0, "")

    def test_does_not_take_a_refusal_for_reading(self):
        server = self.raw_server()
        send = self.start("send", self.name, "{}", "-vvv")
        client = self.accept(server)
        select.select([client], [], [], LIMIT)
        send.process.send_signal(signal.SIGSTOP)  # so that it sees everything at once
        os.waitid(os.P_PID, send.process.pid, os.WSTOPPED)
        client.close()
        send.process.send_signal(signal.SIGCONT)
        self.expect(send, 5, "", "closed the connection before an answer")

    def test_does_not_mind_a_server_that_reads_and_leaves(self):
        server = self.raw_server()
        send = self.start("send", self.name, "{}")
        client = self.accept(server)
        client.recv(4096)
        client.close()
        self.expect(send, 0, "")

    def test_has_a_time_limit_for_a_server_that_does_not_read(self):
        self.raw_server()
        self.expect(self.start("send", self.name, "{}", "-t", "0.2"), 4, "",
                    "did not read on within 0.2 s")

    def test_waits_while_the_socket_is_full(self):
        text = b'{"pad":"' + b"x" * 3000 + b'"}'
        server = self.raw_server()
        # The delay lets the server empty the full socket before the sender waits for that.
        send = self.start("send", self.name, text.decode(), "--count", "500", run_in=traced(
            "--inject=epoll_ctl:delay_exit=200000:when=4..5"))
        client = self.accept(server)
        full = room_of_a_socket(text) * len(text)
        until(lambda: unread_bytes(client) == full, "a full socket")
        self.assertEqual([text] * 500, [client.recv(4096) for _ in range(500)])
        self.expect(send, 0, "")

    def test_pauses_between_messages(self):
        server = self.raw_server()
        send = self.start("send", self.name, "{}", "--count", "2", "--interval", "30")
        client = self.accept(server)
        self.assertEqual(b"{}", client.recv(4096))
        client.settimeout(0.1)
        self.assertRaises(TimeoutError, client.recv, 4096)
        self.assertEqual(-signal.SIGINT, send.interrupt())

    def test_sets_one_timer_a_message_at_most(self):
        self.server("-q")
        with tempfile.NamedTemporaryFile() as trace:
            self.expect(self.start("send", self.name, "{}", "--count", "300", run_in=traced(
                "--trace=timerfd_settime", output=trace.name)), 0)
            # Only one that has to wait for the server takes any, which depends on the machine.
            self.assertLess(len(trace.readlines()), 330)

    def test_stops_reading_after_the_count(self):
        self.server("-q")
        send = self.start("send", self.name, "--count", "1")
        send.write(b"{}\n")  # and the pipe stays open
        until(lambda: send.process.poll() is not None, "the end without the input's end")
        self.expect(send, 0, "")


class Serve(Case):
    def exchange(self, client, text):
        client.send(text)
        return client.recv(4096)

    def test_answers_as_the_wire_format_says(self):
        server = self.server("--status", "9")
        client = self.client()
        self.assertEqual(REPLY % 9, self.exchange(client, b'{"n":1}'))
        client.send(b"not JSON")
        self.assertEqual(REPLY % 9, self.exchange(client, b'{"n":2}\0rest'))
        self.assertEqual(REPLY % 0, self.exchange(client, SWITCH_ON))
        server.says('{"n":1}\n{"n":2}\n')
        self.assertEqual(0, server.interrupt(signal.SIGHUP))

    def test_broadcasts_lines_to_subscribers(self):
        server = self.server("--notify", "-")
        silent, subscribed = self.client(), self.client()
        self.assertEqual(REPLY % 0, self.exchange(subscribed, SWITCH_ON))
        server.write(b'{"a": 1}\n\n[1]\n{"b":2}\n')
        self.assertEqual(b'{"a":1}', subscribed.recv(4096))
        self.assertEqual(b'{"b":2}', subscribed.recv(4096))
        server.says("line 3 of the input must not be sent: its root is an array")
        self.assertEqual(REPLY % 0, self.exchange(silent, b"{}"))
        server.close_input()  # and it serves on
        self.assertEqual(REPLY % 0, self.exchange(silent, b"{}"))
        self.assertEqual(0, server.interrupt())

    def test_broadcasts_what_comes_through_a_named_pipe(self):
        with tempfile.TemporaryDirectory() as folder:
            os.mkfifo(folder + "/pipe")
            server = self.server("--notify", folder + "/pipe")
            client = self.client()
            self.assertEqual(REPLY % 0, self.exchange(client, SWITCH_ON))
            with open(folder + "/pipe", "wb") as pipe:
                pipe.write(b'{"n":1}')
            self.assertEqual(b'{"n":1}', client.recv(4096))
            self.assertEqual(0, server.interrupt())

    def test_explains_what_ended_it(self):
        server = self.server()
        self.client().send(b"[1,2]")
        self.expect(server, -signal.SIGABRT, "",
                    "tovik: a client sent valid JSON of the wrong shape, which ends any server; "
                    "find it with 'tovik check', or put 'tovik relay --refuse-unsafe' in between.")

    def test_answers_with_results_and_ids(self):
        with tempfile.NamedTemporaryFile("w") as file:
            file.write('{"name":"x",\n"commands":[]}')
            file.flush()
            self.server("--answer", '{"a": 1}', "--describe", file.name)
            client = self.client()
            self.assertEqual(b'{"type":"reply","status":0,"id":3,"result":{"a":1}}',
                             self.exchange(client, b'{"id":3}'))
            self.assertEqual(b'{"type":"reply","status":0,"result":{"name":"x","commands":[]}}',
                             self.exchange(client, b'{"command":"describe"}'))

    def test_says_why_a_command_cannot_be_run(self):
        server = self.server("--exec", "true", run_in=without("clone", "clone3", "fork", "vfork"))
        self.client().send(b"{}")
        self.expect(server, 5, "{}\n", "the command cannot be run: Operation not permitted.")

    def test_hands_messages_over_without_a_pipe(self):
        server = self.server("--exec", "grep -q xxx", "-q", run_in=without("pipe", "pipe2"))
        self.assertEqual(REPLY % 0, self.exchange(self.client(), b'{"pad":"' + b"x" * 4000 + b'"}'))
        self.assertEqual(0, server.interrupt())

    def test_says_what_to_type(self):
        server = self.start("serve", self.name, "--notify", "-", stdin=Terminal(self).program_end)
        server.says("tovik: type messages to broadcast, one a line.\n")
        server.interrupt()

    def test_says_who_sent(self):
        server = self.server("--timestamps")
        self.client().send(b"{}")
        server.says(f"Z {os.getpid()} {{}}\n")
        server = self.server("--timestamps", "-j", name=unique_name())
        self.client(server.arguments[2]).send(b"{}")
        server.says(f'Z","pid":{os.getpid()},"uid":{os.getuid()},"message":{{}}}}\n')

    def test_forgets_clients_that_leave_before_their_answer(self):
        with tempfile.TemporaryDirectory() as folder:
            server = self.server(
                "--exec", f"echo run >>{folder}/runs; n=$(tr -dc 0-9); "
                f"until test -e {folder}/$n; do sleep .01; done; exit 1")
            leaver, stayer = raw_client(self.name), self.client()
            leaver.send(b'{"n":1}')
            server.says('{"n":1}')
            stayer.send(b'{"n":2}')
            leaver.close()
            server.says('{"n":2}')
            newcomer = self.client()  # which frees the leaver's connection
            newcomer.send(b'{"n":3}')
            server.says('{"n":3}')
            for n in "321":
                open(f"{folder}/{n}", "w").close()
            self.assertEqual(REPLY % 1, stayer.recv(4096))
            self.assertEqual(REPLY % 1, newcomer.recv(4096))
            with open(f"{folder}/runs") as runs:
                self.assertEqual(3, len(runs.readlines()))

    def test_ends_its_command_when_it_ends(self):
        server = self.server("--exec", "echo $$; exec sleep 1000")
        self.client().send(b"{}")
        until(lambda: server.stdout().count(b"\n") == 2, "the command's process number")
        pid = int(server.stdout().split()[1])
        self.assertEqual(0, server.interrupt())

        def gone():
            try:
                with open(f"/proc/{pid}/stat") as stat:
                    return stat.read().split()[2] == "Z"
            except FileNotFoundError:
                return True
        until(gone, "the end of the command")

    def test_ends_when_nobody_reads_its_output(self):
        pipeline = self.shell(f"tovik serve {self.name} | head -1; echo ${{PIPESTATUS[0]}}")
        until(lambda: listens(self.name), "a listening server")
        self.assertEqual(REPLY % 0, self.exchange(self.client(), b"{}"))
        self.expect(pipeline, 0, "{}\n0\n")

    def test_admits_its_own_user_and_root_only(self):
        if os.geteuid() != 0:
            self.skipTest("only root can be somebody else")
        server, relay = self.server(), self.relay_of()
        for name, program in ((self.name, server), (self.front, relay)):
            self.output_of("call", name, "{}")
            stranger = self.start("call", name, "{}", run_in=STRANGER)
            self.expect(stranger, 5, "", "see whether it admits uid 54321 and whether")
            program.says(f"refused process {stranger.process.pid}, uid 54321, gid 54320;")

    def test_admits_whom_it_is_told_to(self):
        if os.geteuid() != 0:
            self.skipTest("only root can be somebody else")
        self.server("-q", "--allow-uid", "54321")
        self.expect(self.start("call", self.name, "{}"), 5)
        self.output_of("call", self.name, "{}", run_in=STRANGER)

    def test_serves_many_clients(self):
        self.server("-q")
        clients = [self.client() for _ in range(100)]
        for client in clients:
            client.send(b"{}")
        self.assertEqual([REPLY % 0] * 100, [client.recv(4096) for client in clients])


class Relay(Case):
    def between(self, *options):
        """A relay with a raw server behind it and a raw client in front."""
        self.upstream = self.raw_server()
        self.relay_of(*options)
        client = self.client(self.front)
        return client, self.accept(self.upstream)

    def test_passes_every_byte_on(self):
        client, server = self.between()
        for record in (b"{}", b"not JSON", b"\xff\xfe\0x", b"[1,2]", b"x" * 4095, b"y" * 100000):
            client.send(record)
            self.assertEqual(record, server.recv(1 << 20))
            server.send(record)
            self.assertEqual(record, client.recv(1 << 20))
        self.relay.says("1 -> \\xff\\xfe\\x00x\n")
        self.assertEqual(0, self.relay.interrupt())

    def test_records_bytes_that_are_no_text(self):
        with tempfile.TemporaryDirectory() as folder:
            client, server = self.between("--record", folder + "/talk")
            client.send(b'{"a":"\xff\0"}')
            server.recv(4096)
            client.send("{\"b\":\"é\0\"}".encode())
            server.recv(4096)
            self.assertEqual(0, self.relay.interrupt())
            with open(folder + "/talk", encoding="utf-8") as file:
                first, second = map(json.loads, file)
            self.assertEqual(b'{"a":"\xff\0"}'.hex(), first["hex"])
            self.assertNotIn("text", first)
            self.assertEqual('{"b":"é\0"}', second["text"])
            self.assertEqual((os.getpid(), os.getuid(), 1, "to-server"),
                             tuple(first[key] for key in ("pid", "uid", "connection", "direction")))
            replay = self.start("replay", self.name, folder + "/talk", "-q")
            # The same bytes come again.
            again = self.accept(self.upstream)
            self.assertEqual(b'{"a":"\xff\0"}', again.recv(4096))
            self.assertEqual("{\"b\":\"é\0\"}".encode(), again.recv(4096))
            self.expect(replay, 0, "")

    def test_refuses_what_would_end_the_receiver(self):
        client, server = self.between("--refuse-unsafe")
        client.send(b"garbage")  # which only gets dropped
        self.assertEqual(b"garbage", server.recv(4096))
        for record in (b"[1]", b'"x"', b"[1]\0{}", b'{"command":7,"notification":true}',
                       b"x" * 4095):
            client.send(record)
        client.send(b'{"type":5,"status":0}')  # harmless to a server
        self.assertEqual(b'{"type":5,"status":0}', server.recv(1 << 20))
        for record in (b"[1]", b'{"type":5,"status":0}', b"{}" + b" " * 4093):
            server.send(record)
        server.send(b'{"command":7,"notification":true}')  # harmless to a client
        self.assertEqual(b'{"command":7,"notification":true}', client.recv(1 << 20))
        self.relay.says("1 -> [1] (refused)\n")
        self.relay.says("connection 1: a record was not passed on: its root is an array and no "
                        "object.\n")
        self.relay.says("it has 4095 bytes, more than a record carries whole")
        self.assertEqual(8, self.relay.stderr().count(b"not passed on"))

    def test_delivers_what_a_client_sent_before_it_left(self):
        client, server = self.between()
        for n in range(50):
            client.send(b'{"n":%d}' % n)
        client.close()
        self.relay.says("the client left")
        for n in range(50):
            self.assertEqual(b'{"n":%d}' % n, server.recv(4096))
            server.send(REPLY % 0)  # for nobody
        until(lambda: self.ended(server), "the end of the connection")

    def test_delivers_what_a_server_sent_before_it_left(self):
        client, server = self.between("--json=short")
        for n in range(500):  # more than sockets hold
            server.send(b'{"n":%d,"pad":"%s"}' % (n, b"x" * 3000))
        server.close()
        self.relay.says("the server left")
        for n in range(500):
            self.assertTrue(client.recv(4096).startswith(b'{"n":%d,' % n))
        self.assertEqual(b"", client.recv(4096))

    def test_carries_subscriptions(self):
        server = self.server("--notify", "-")
        self.relay_of()
        monitor = self.start("monitor", self.front, "--count", "1")
        monitor.says("subscribed")
        server.write(b'{"n":1}\n')
        self.expect(monitor, 0, '{"n":1}\n')

    def test_keeps_connections_apart(self):
        self.server("-q")
        self.relay_of("-q")
        clients = [self.client(self.front) for _ in range(20)]
        for client in clients:
            client.send(b"{}")
        self.assertEqual([REPLY % 0] * 20, [client.recv(4096) for client in clients])

    def test_drops_a_reader_that_stalls(self):
        client, server = self.between("-q")
        try:
            for _ in range(1000):  # more than the sockets and the relay hold
                server.send(b"x" * 30000)
        except (ConnectionResetError, BrokenPipeError):
            pass
        self.assertLess(memory_of(self.relay.process.pid), 100 << 20)
        until(lambda: self.ended(server), "the end of the stalled conversation")
        client.close()

    def test_waits_no_longer_than_the_limit_for_a_side_that_does_not_read(self):
        client, server = self.between("-q", "-t", "0.3")
        for _ in range(100):
            client.send(b"{}")
        client.close()  # and the server reads nothing
        until(lambda: self.sockets() == 1, "the end of the server's side")
        self.name = unique_name()
        client, server = self.between("-q", "-t", "0.3")
        for _ in range(500):
            server.send(b"x" * 3000)
        server.close()  # and the client reads nothing
        until(lambda: self.sockets() == 1, "the end of the client's side")

    def sockets(self):
        """The relay's sockets that are left, which is only its listening one at the end."""
        folder = f"/proc/{self.relay.process.pid}/fd"
        found = 0
        for fd in os.listdir(folder):
            with contextlib.suppress(FileNotFoundError):  # closed meanwhile
                found += os.readlink(f"{folder}/{fd}").startswith("socket:")
        return found

    def test_waits_no_longer_than_the_limit_for_a_server_that_accepts_nobody(self):
        upstream = self.raw_server()
        upstream.listen(0)
        self.client()
        relay = self.relay_of("-t", "0.2")
        self.assertEqual(b"", self.client(self.front).recv(4096))
        relay.says("accepted no client within 0.2 s")

    def test_leaves_no_half_a_line_where_there_is_no_room(self):
        with tempfile.TemporaryDirectory() as folder:
            self.raw_server()
            relay = self.relay_of("--record", folder + "/talk", "-q", run_in=[
                "bash", "-c", 'trap "" XFSZ; ulimit -f 1; exec "$@"', "bash"])
            client = self.client(self.front)
            client.send(b'{"n":1}')
            client.send(b"x" * 2000)
            self.expect(relay, 7, "", "cannot be written: File too large.")
            with open(folder + "/talk", encoding="utf-8") as file:
                self.assertEqual(['{"n":1}'], [json.loads(line)["text"] for line in file])

    @staticmethod
    def ended(sock):
        sock.setblocking(False)
        try:
            return sock.recv(1) == b""
        except BlockingIOError:
            return False
        except ConnectionResetError:
            return True


class List(Case):
    def listed(self, *options, **settings):
        lines = self.output_of("list", *options, **settings).decode().splitlines()
        return [line for line in lines if programs.PREFIX in line]

    def test_counts_who_is_in_and_who_waits(self):
        server = self.raw_server()
        clients = [self.client() for _ in range(3)]
        self.accept(server)
        line = self.listed("--long")[0].split()
        self.assertEqual([self.name, str(os.getpid()), getpass.getuser(), "1", "2/5", "0", "0"],
                         line[:3] + line[4:8])
        self.assertEqual(3, len(clients))

    def test_shows_only_padded_listening_seqpacket_names(self):
        unpadded = b"\0" + (self.name + "-short").encode()
        for path in (unpadded, programs.address(self.name + "-nul\0x"), unpadded + b"er\0"):
            self.raw_server(path=path)
        bound = programs.raw_socket()
        stream = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.addCleanup(bound.close)
        self.addCleanup(stream.close)
        bound.bind(programs.address(self.name + "-bound"))
        stream.bind(programs.address(self.name + "-stream"))
        stream.listen(1)
        with tempfile.TemporaryDirectory() as folder:
            self.raw_server(path=f"{folder}/{programs.PREFIX}path".encode())
            self.assertEqual([], self.listed())
            self.assertEqual([self.name + "-nul\\x00x" + "\\x00" * (107 - len(self.name) - 6),
                              self.name + "-short", self.name + "-shorter\\x00"],
                             self.listed("--all"))

    def test_tells_which_names_are_padded(self):
        for name in (self.name + "a", self.name + "b"):
            self.raw_server(name)
            self.raw_server(path=b"\0" + name.encode())
        self.assertEqual([True, False] * 2,
                         [json.loads(line)["padded"] for line in self.listed("--all", "-j")])
        self.assertEqual(["yes", "no"] * 2,
                         [line.split()[-1] for line in self.listed("--all", "--long")])

    def test_keeps_odd_names_on_one_line(self):
        name = self.name.encode() + b" \n\x1b\xff\\\xc3\xa9"
        self.raw_server(name)
        self.assertEqual([self.name + " \\n\\x1b\\xff\\\\é"], self.listed())
        self.assertEqual(self.name + "\\x20\\n\\x1b\\xff\\\\é", self.listed("--long")[0].split()[0])
        self.assertEqual((self.name + " \\n\\x1b\\xff\\\\é", name.hex()),
                         tuple(json.loads(self.listed("-j")[0]).values()))
        self.assertEqual(0, self.start("wait", name).end())

    def test_tells_bytes_from_text_in_json(self):
        for name in (self.name.encode() + b"\xff", self.name.encode() + rb"\xff",
                     self.name.encode() + b"\n"):
            self.raw_server(name)
        objects = [json.loads(line) for line in self.listed("-j")]
        self.assertEqual({(self.name + r"\xff", None), (self.name + "\n", None),
                          (self.name + r"\xff", (self.name.encode() + b"\xff").hex())},
                         {(each["name"], each.get("name_hex")) for each in objects})

    def test_keeps_the_columns_of_wide_names(self):
        for name in (self.name + "lämpchen-日本", self.name + "lamp"):
            self.raw_server(name)
        lines = self.listed("-l")

        def width(text):
            return sum(2 if ord(character) > 0x2E80 else 1 for character in text)

        self.assertEqual(1, len({width(line[:line.index(f" {os.getpid()} ")]) for line in lines}))

    def test_watches(self):
        watch = self.start("list", "--watch")
        server = self.raw_server()
        watch.says(f"+ {self.name}\n")
        server.close()
        watch.says(f"- {self.name}\n")
        self.assertEqual(0, watch.interrupt())

    def test_a_name_cannot_look_like_another(self):
        self.raw_server(self.name + DECEPTIVE)
        escapes = "".join(f"\\x{byte:02x}" for byte in DECEPTIVE.encode())
        self.assertEqual([self.name + escapes], self.listed())
        self.assertEqual(self.name + escapes, self.listed("--long")[0].split()[0])
        self.expect(self.start("call", self.name + DECEPTIVE, "[]"), 2)
        self.expect(self.start("call", DECEPTIVE, "{}"), 3, "", f"under '{escapes}';")

    def test_has_headings_on_a_terminal(self):
        self.raw_server()
        heading = self.output_of("list", "--long", "--all", "--color=never", terminal=True)
        columns = b"NAME PID USER PROCESS CONNECTIONS WAITING UNREAD STALLED STATE PADDED"
        self.assertEqual(columns.split(), heading.splitlines()[0].split())

    def test_reads_proc_where_netlink_is_not_allowed(self):
        server = self.raw_server()
        self.client()
        self.client()
        self.accept(server)
        self.assertEqual([self.name], self.listed(run_in=NO_NETLINK))
        line = self.listed("--long", run_in=NO_NETLINK)[0].split()
        self.assertEqual([self.name, str(os.getpid()), "-", "1", "-/-", "-", "-"],
                         line[:3] + line[4:8])
        self.expect(self.start("peers", run_in=NO_NETLINK), 2, "", "does not answer")
        self.assertEqual([], self.listed("--server-uid", str(os.getuid()), run_in=NO_NETLINK))

    def test_names_the_first_process_of_several(self):
        server = self.raw_server()
        heirs = [subprocess.Popen(["sleep", "60"], pass_fds=[server.fileno()]) for _ in range(3)]
        for heir in heirs:
            self.addCleanup(heir.wait)
            self.addCleanup(heir.kill)
        pids = [os.getpid(), *(heir.pid for heir in heirs)]
        self.assertEqual(str(min(pids)), self.listed("--long")[0].split()[1])

    def test_the_two_sources_agree(self):
        for name in (self.name, self.name + "@", "@" + self.name):
            self.raw_server(name)
        self.raw_server(path=b"\0" + self.name.encode() + b"-short")
        by_netlink = self.listed("--all")
        by_proc = self.listed("--all", run_in=NO_NETLINK)
        self.assertEqual(["@" + self.name, self.name, self.name],
                         self.listed(run_in=NO_NETLINK))
        # A trailing '@' cannot be told from padding there.
        self.assertEqual(["@" + self.name, self.name, self.name, self.name + "-short"], by_proc)
        self.assertEqual(["@" + self.name, self.name, self.name + "-short", self.name + "@"],
                         by_netlink)

    def test_wait_sees_a_server_come_and_go(self):
        wait = self.start("wait", self.name, "-t", "0")
        server = self.raw_server()
        self.expect(wait, 0, "")
        gone = self.start("wait", self.name, "--gone", "-t", "0")
        server.close()
        self.expect(gone, 0, "")

    def test_wait_names_all_that_are_missing(self):
        wait = self.start("wait", self.name, self.name + "2", "-t", "0.05")
        self.expect(wait, 4, "", f"'{self.name}', '{self.name}2' did not listen within 0.05 s; "
                    "start them, or give them more with --timeout.")

    def test_leaves_the_prompt_a_line_of_its_own(self):
        wait = self.start("wait", self.name, "-t", "0", terminal=True)
        until(lambda: signals_are_blocked(wait.process.pid), "the start of waiting")
        self.assertEqual(-signal.SIGINT, wait.interrupt())
        self.assertEqual(b"\r\n", wait.stdout())

    def test_wait_can_be_interrupted(self):
        wait = self.start("wait", self.name, "-t", "0", "-j")
        until(lambda: signals_are_blocked(wait.process.pid), "the start of waiting")
        self.assertEqual(-signal.SIGINT, wait.interrupt())


def memory_of(pid):
    with open(f"/proc/{pid}/statm") as statm:
        return int(statm.read().split()[1]) * resource.getpagesize()


def signals_are_blocked(pid):
    with open(f"/proc/{pid}/status") as status:
        return any(line.startswith("SigBlk:") and int(line.split()[1], 16) & 2 for line in status)


class Hostile(Case):
    def check(self, data):
        with tempfile.NamedTemporaryFile() as file:
            file.write(data)
            file.flush()
            program = self.start("check", file.name)
            status = program.end()
            return status, program.stdout().decode("utf-8", "replace")

    def test_deep_nesting(self):
        for depth in (100, 2047):
            text = b'{"a":' + b"[" * depth + b"]" * depth + b"}"
            self.assertEqual(0 if len(text) <= 4094 else 2, self.check(text)[0])
        for text in (b"[" * 1000000, b'{"a":' * 200000, b"[" * 400000 + b"]" * 400000):
            status, out = self.check(text)
            self.assertEqual(2, status)
            self.assertTrue(out.startswith("line 1: bad"), out[:100])
        self.server("-q")
        deepest = '{"a":' + "[" * 2044 + "]" * 2044 + "}"
        self.assertEqual(4094, len(deepest))
        self.expect(self.start("call", self.name, deepest), 0, "status 0\n")

    def test_a_pipe_that_does_not_block(self):
        lines = 20000
        reader, writer = os.pipe()
        os.set_blocking(writer, False)
        check = subprocess.Popen(["tovik", "check", "-j"], stdin=subprocess.PIPE, stdout=writer,
                                 env=programs.ENV)
        self.addCleanup(check.wait)
        self.addCleanup(check.kill)
        check.stdin.write(b"{}\n" * lines)  # which fits, but not what is said to it
        check.stdin.close()
        until(lambda: not select.select([], [writer], [], 0)[1], "a full pipe")
        os.close(writer)
        with open(reader, "rb") as results:
            self.assertEqual(lines, len(results.readlines()))
        self.assertEqual(0, check.wait())

    def test_a_line_without_an_end(self):
        status, out = self.check(b"x" * (5 << 20) + b"\n{}\n" + b'{"a":"' + b"y" * (3 << 20))
        self.assertEqual(2, status)
        self.assertEqual(["line 1: bad", "line 2: good", "line 3: bad"],
                         [line[:12].rstrip(",") for line in out.splitlines()])

    def test_bytes_that_are_no_text(self):
        status, out = self.check(b'{"a":"\xff"}\n\0\n{"a":1}\0\n{"a":"\0"}\n\xef\xbb\xbf{}\n\x80\n')
        self.assertEqual(2, status)
        self.assertEqual([
            "line 1: good, 9 bytes, message",
            "line 2: bad, not JSON: a NUL byte at byte 1",
            "line 3: bad, not JSON: a NUL byte at byte 8",
            "line 4: bad, not JSON: a NUL byte at byte 7",
            "line 5: bad, not JSON: Invalid value at byte 1",
            "line 6: bad, not JSON: Invalid value at byte 1"], out.splitlines())

    def test_random_bytes_as_messages_and_recordings(self):
        noise = random.Random(1).randbytes(1 << 18)
        status, out = self.check(noise)
        self.assertEqual(2, status)
        lines = [number for number, line in enumerate(noise.split(b"\n"), 1)
                 if line.strip(b" \t\r")]
        self.assertEqual([f"line {number}: bad" for number in lines],
                         [line[:line.find(",")] for line in out.splitlines()])
        for arguments in (("call", self.name), ("replay", self.name, "-")):
            program = self.start(*arguments)
            try:
                program.write(noise)
            except BrokenPipeError:
                pass
            self.assertEqual(2, program.end())

    def test_long_answers_do_not_harm(self):
        server = self.raw_server()
        bench = self.start("bench", self.name, "--count", "1")
        client = self.accept(server)
        reply_to(client, b"\x1b" * 150000)
        self.expect(bench, 6, "", "the answer '\\x1b\\x1b")
        self.assertIn(b"' is no reply; bench needs a server that replies", bench.stderr())
        self.assertLess(len(bench.stderr()), 1000)

    def test_check_can_be_interrupted(self):
        check = self.start("check", "-")
        check.write(b"{}\n")
        check.says("line 1: good")
        self.assertEqual(-signal.SIGINT, check.interrupt())


class Bench(Case):
    def test_sums_up_what_it_measured(self):
        self.server("-q")
        result = json.loads(self.output_of("bench", self.name, "--count", "500", "-j"))
        times = [result[key + "_us"] for key in ("p50", "p90", "p99", "p99.9", "max")]
        self.assertEqual(sorted(times), times)
        self.assertLess(times[0], times[-1])
        self.assertAlmostEqual(500, result["per_second"] * result["seconds"], 3)

    def test_fits_the_terminal(self):
        self.server("-q")
        terminal = Terminal(self, 12, 60)
        bench = self.start("bench", self.name, "--count", "100", stdout=terminal.program_end)
        until(lambda: bench.process.poll() is not None, "the end")
        lines = [line for line in terminal.plain().split("\r\n") if line.startswith("below")]
        self.assertEqual({True}, {len(line) <= 60 and "#" in line or line[-1] == " "
                                  for line in lines})

    def test_sums_up_what_it_has_when_interrupted(self):
        server = self.raw_server()
        bench = self.start("bench", self.name, "-t", "0")
        client = self.accept(server)
        reply_to(client)
        client.recv(4096)  # so the first one is counted
        self.assertEqual(-signal.SIGINT, bench.interrupt())
        self.assertTrue(bench.stdout().startswith(b"1 round trip of 64 bytes in "))

    def test_ranks_one_slow_answer_of_ten(self):
        server = self.raw_server()
        bench = self.start("bench", self.name, "--count", "10", "-j")
        client = self.accept(server)
        for n in range(10):
            client.recv(4096)
            if n == 4:
                time.sleep(0.5)  # the measured time itself
            client.send(REPLY % 0)
        self.expect(bench, 0)
        result = json.loads(bench.stdout())
        self.assertLess(result["p90_us"], 500000)
        self.assertGreaterEqual(result["p99_us"], 500000)

    def test_puts_every_round_trip_into_the_histogram(self):
        self.server("-q")
        lines = self.output_of("bench", self.name, "--count", "500").decode().splitlines()[2:]
        self.assertEqual(500, sum(int(line.split()[3]) for line in lines))
        self.assertTrue(all("#" in line for line in lines if int(line.split()[3]) > 0))
        limits = [float(line.split()[1]) for line in lines]
        self.assertEqual([2 * limit for limit in limits[:-1]], limits[1:])


class Peers(Case):
    """The views of the kernel's table, against what ss shows."""

    def peers(self, *options):
        return [json.loads(line) for line in self.output_of("peers", self.name, "-j",
                                                            *options).splitlines()]

    def test_shows_each_connection(self):
        server = self.raw_server()
        clients = [self.client() for _ in range(3)]
        accepted = [self.accept(server) for _ in range(2)]
        clients[0].send(b"x" * 100)
        clients[0].send(b"x" * 10)
        accepted[1].send(b"y" * 7)
        peers = self.peers()
        self.assertEqual({os.getpid()}, {peer["pid"] for peer in peers})
        self.assertEqual({getpass.getuser()}, {peer["user"] for peer in peers})
        shown = [(peer["accepted"], peer["unread_by_server_bytes"], peer["unread_by_client_bytes"])
                 for peer in peers]
        self.assertEqual([(False, 0, 0), (True, 0, 7), (True, 110, 0)], sorted(shown))
        line = self.output_of("list", "-lj", "--server-uid", str(os.getuid())).splitlines()
        load = [each for each in map(json.loads, line) if each["name"] == self.name][0]
        self.assertEqual((117, 0, 1), tuple(load[key] for key in
                                            ("unread_bytes", "stalled", "waiting")))

    def test_marks_who_does_not_read(self):
        server = self.raw_server()
        client = self.client()
        accepted = self.accept(server)
        accepted.setblocking(False)
        with self.assertRaises(BlockingIOError):
            while True:
                accepted.send(b"x" * 1000)
        self.assertEqual([(True, False)],
                         [(peer["client_stalls"], peer["server_stalls"]) for peer in self.peers()])
        self.assertIn("stalled", self.output_of("peers", self.name).decode().split())
        client.recv(4096)
        while self.peers()[0]["client_stalls"]:
            client.recv(4096)

    def test_shows_stopped_clients(self):
        self.raw_server()
        call = self.start("call", self.name, "{}")
        until(lambda: len(self.peers()) == 1, "the connection")
        call.process.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, call.process.pid, os.WSTOPPED)
        self.assertEqual("stopped", self.peers()[0]["process_state"])
        self.assertIn(b"waiting,stopped", self.output_of("peers", self.name))

    def test_agrees_with_ss(self):
        server = self.raw_server()
        clients = [self.client() for _ in range(4)]
        for n, client in enumerate(clients):
            client.send(b"x" * (n + 1))
            self.accept(server).send(b"y" * 10 * (n + 1))
        by_ss = {}
        ss = subprocess.run(["ss", "-xanp"], capture_output=True, text=True, check=True).stdout
        for line in ss.splitlines():
            fields = line.split()
            if fields[0] == "u_seq" and fields[1] == "ESTAB":
                by_ss[fields[5]] = (int(fields[2]), fields[4], fields[7])
        ends = [each for each in by_ss.values() if each[1].startswith("@" + self.name)]
        expected = sorted((received, by_ss[peer][0]) for received, _, peer in ends)
        self.assertEqual(4, len(expected))
        peers = self.peers()
        self.assertEqual(expected, sorted((peer["unread_by_server_bytes"],
                                           peer["unread_by_client_bytes"]) for peer in peers))
        self.assertTrue(all(f"pid={peer['pid']}," in line for peer in peers
                            for line in ss.splitlines() if "@" + self.name in line))
        for verb in (("top",), ("list", "-l")):
            loads = map(json.loads, self.output_of(*verb, "-j").splitlines())
            load = [each for each in loads if each["name"] == self.name][0]
            self.assertEqual((4, sum(map(sum, expected))),
                             (load["connections"], load["unread_bytes"]))

    def test_reports_servers_that_are_not_there(self):
        self.expect(self.start("peers", self.name), 3, "", "no server listens under")
        self.raw_server()
        self.assertEqual([], self.peers())

    def test_takes_little_time_for_2000_connections(self):
        hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 8192), hard))
        server = self.raw_server()
        server.listen(4096)
        for _ in range(2000):
            self.client()
            self.accept(server)
        self.assertEqual(2000, len(self.peers()))

        def processor_time():
            before = os.times()
            self.output_of("peers", self.name, stdin=b"")
            after = os.times()
            return after.children_user + after.children_system \
                - before.children_user - before.children_system
        # 50 ms in a release build; here for builds without optimisation on busy machines, too.
        self.assertLess(min(processor_time() for _ in range(5)), 0.5)


class Top(Case):
    def test_prints_once(self):
        self.raw_server()
        self.assertIn(self.name.encode(), self.output_of("top", "--once"))

    def test_needs_a_terminal(self):
        self.expect(self.start("top"), 2, "", "top needs a terminal")

    def screen(self, columns, *options):
        """A top on a terminal of that width."""
        terminal = Terminal(self, 12, columns)
        return self.start("top", *options, stdin=terminal.program_end,
                          stdout=terminal.program_end), terminal

    def test_lives_on_a_terminal(self):
        for columns in (60, 80, 200):
            self.name = unique_name()
            self.raw_server()
            top, terminal = self.screen(columns)
            terminal.type(b"/" + self.name.encode() + b"\r")
            until(lambda: "tovik top: 1 server  /" in terminal.text(), "the filter")
            self.assertTrue(all(len(line) <= columns for line in terminal.lines()))
            client = self.client()
            terminal.type(b"\r")
            until(lambda: "TO-CLIENT" in terminal.text(), "the peers")
            until(lambda: "waiting" in terminal.text(), "the client")
            client.close()
            terminal.type(b"\x1bq")
            until(lambda: terminal.type(b"q") or top.process.poll() is not None, "the end")
            self.expect(top, 0)
            self.assertIn("\x1b[?1049l", terminal.raw())

    def test_survives_another_size(self):
        self.raw_server()
        top, terminal = self.screen(80)
        until(lambda: "tovik top: " in terminal.text(), "a screen")
        terminal.resize(2, 20)
        top.process.send_signal(signal.SIGWINCH)
        until(lambda: max(map(len, terminal.lines())) <= 20, "a smaller screen")
        self.assertEqual(0, top.interrupt())

    def test_has_no_colours_if_not_wanted(self):
        self.raw_server()
        top, terminal = self.screen(80, "--color=never")
        until(lambda: "tovik top: " in terminal.text(), "a screen")
        self.assertEqual(0, top.interrupt(signal.SIGTERM))
        self.assertEqual({"\x1b[0m"}, set(re.findall("\x1b\\[[0-9;]*m", terminal.raw())))


class Describe(Case):
    def described(self):
        server = self.raw_server()
        describe = self.start("describe", self.name)
        client = self.accept(server)
        self.assertEqual(b'{"command":"describe","id":1}', client.recv(4096))
        return describe, client

    def test_prints_a_page(self):
        describe, client = self.described()
        client.send(b'{"type":"reply","status":0,"more":true,"result":{"name":"lamp",'
                    b'"description":"a lamp","commands":[{"name":"on","description":"lights it",'
                    b'"arguments":[{"name":"level",'
                    b'"type":"number","required":true,"description":"0 to 1"}]}]}}')
        client.send(b'{"type":"reply","status":0,"result":{"commands":[{"name":"off",'
                    b'"arguments":[{"name":"slowly","type":"boolean","required":false}]}],'
                    b'"topics":[{"name":"state"}]}}')
        self.expect(describe, 0, "lamp: a lamp\n  on: lights it\n    level (number): 0 to 1\n"
                    "  off\n    slowly (boolean, optional)\n  state (topic)\n")

    def test_reports_servers_that_cannot(self):
        describe, client = self.described()
        client.send(REPLY % 38)
        self.expect(describe, 1, "", "does not describe itself; it answered with status 38.")


class Bash(Case):
    def complete(self, *words):
        script = ('source <(tovik completion bash); COMP_WORDS=("$@"); '
                  'COMP_CWORD=$(($# - 1)); _tovik tovik "${!#}"; printf "%s\\n" "${COMPREPLY[@]}"')
        program = self.run_program(["bash", "-c", script, "bash", "tovik", *words])
        self.expect(program, 0)
        return program.stdout().decode().split("\n")[:-1]

    def test_completes_words(self):
        for words, expected in (
                (("c",), ["call", "check", "completion"]), (("m",), ["monitor"]),
                (("call", "x", "--o"), ["--ok"]),
                (("subscribe", "--time"), ["--timeout", "--timestamps"]),
                (("--timeout", "5", "call", "x", "--o"), ["--ok"]),
                (("call", "--json", ""), ["pretty", "short"]),
                (("call", "--json", "="), ["pretty", "short"]),
                (("call", "--json", "=", "p"), ["pretty"]), (("completion", "f"), ["fish"]),
                (("help", "r"), ["relay", "replay"]), (("list", ""), [""]),
                (("call", "x", ""), [""])):
            self.assertEqual(expected, sorted(self.complete(*words)), words)

    def test_completes_names_of_servers(self):
        self.raw_server(self.name + " two")
        self.assertEqual([self.name + "\\ two"], self.complete("call", self.name[:-1]))
        self.assertEqual([self.name + "\\ two"], self.complete("wait", "x", self.name))

    def test_completes_files(self):
        with tempfile.TemporaryDirectory() as folder:
            os.mkdir(folder + "/inner")
            self.assertEqual([folder + "/inner"], self.complete("relay", "--record", folder + "/i"))
            self.assertEqual([folder + "/inner"], self.complete("check", folder + "/i"))


class Zsh(Case):
    SHELL = ["zsh", "-f", "-i"]
    SETUP = (b"PS1=; unsetopt beep; autoload -U compinit; compinit -D -u; "
             b"source <(tovik completion zsh)")

    def setUp(self):
        super().setUp()
        self.terminal = Terminal(self, 40, 200)
        end = self.terminal.program_end
        Program(self, self.SHELL, stdin=end, stdout=end, stderr=end, start_new_session=True,
                env={**programs.ENV, "PS1": "", "ZDOTDIR": "/nonexistent"})
        self.terminal.type(self.SETUP + b"\n")

    def complete(self, words):
        """What the shell makes of these words and a tab, on a new line."""
        mark = unique_name()
        self.terminal.type(b"\x15printf '%s\\n' " + mark[:1].encode() + b"''"
                           + mark[1:].encode() + b"\n")
        until(lambda: mark in self.terminal.raw(), "the shell")
        self.terminal.type(words.encode() + b"\t")
        return lambda: self.terminal.plain().split(mark)[-1]

    def test_completes_verbs_options_and_names(self):
        self.raw_server()
        folder = tempfile.mkdtemp()
        self.addCleanup(os.rmdir, folder)
        self.addCleanup(os.rmdir, folder + "/inner")
        os.mkdir(folder + "/inner")
        for words, expected in (("tovik mon", "tovik monitor "),
                                (f"tovik check {folder}/in", folder + "/inner/"),
                                (f"tovik relay --record={folder}/in", folder + "/inner/"),
                                ("tovik call x --status-o", "--status-only "),
                                ("tovik completion f", "completion fish "),
                                ("tovik call --json=p", "--json=pretty"),
                                (f"tovik call {self.name[:-1]}", self.name)):
            shown = self.complete(words)
            until(lambda: expected in shown(), f"{expected} of {words}")


class InteractiveBash(Zsh):
    """The same, with what only a terminal shows: no blank behind a folder."""

    SHELL = ["bash", "--norc", "-i"]
    SETUP = b"PS1=; source <(tovik completion bash)"


class Fish(Case):
    def complete(self, words):
        program = self.run_program(["fish", "--no-config", "-c",
                                    f"tovik completion fish | source; complete -C '{words}'"])
        self.expect(program, 0)
        return [line.split("\t")[0] for line in program.stdout().decode().splitlines()]

    def test_completes_verbs_options_and_names(self):
        self.raw_server()
        self.assertEqual(["call", "check", "completion"], sorted(self.complete("tovik c")))
        self.assertEqual(["--status-only"], self.complete("tovik call x --status-o"))
        self.assertEqual(["pretty", "short"], sorted(self.complete("tovik call --json ")))
        self.assertEqual([self.name], self.complete(f"tovik call {self.name[:-1]}"))
        with tempfile.TemporaryDirectory() as folder:
            os.mkdir(folder + "/inner")
            self.assertEqual([folder + "/inner/"], self.complete(f"tovik check {folder}/i"))


if __name__ == "__main__":
    unittest.main()
