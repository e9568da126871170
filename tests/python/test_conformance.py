"""Every service with every caller, by conformance.json, which says what its cases mean.

CONFORMANCE_PEER is the service and the callers in C++; TOVIK the command, which is both, too.
"""

import asyncio
import collections
import json
import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import unittest

import support
import tovik

SUITE = json.loads((support.SOURCE / "tests/service/conformance.json").read_text())
PEERS = {
    "C++": [os.environ["CONFORMANCE_PEER"]],
    "Python": [sys.executable, "-B", str(pathlib.Path(__file__).with_name("conformance_peer.py"))],
}
STEP = {"as", "send", "raw", "times", "receive", "fails", "end"}  # of a case for services
SENTINEL = {"command": "sentinel", "id": 4711}  # there is no such command


def comparable(message):
    return json.dumps(message, sort_keys=True)


def whole(outcome):
    """A description, whose lists may come in parts."""
    together = {}
    for part in (*outcome.parts, outcome.result):
        for name, value in part.items():
            together[name] = together.get(name, []) + value if isinstance(value, list) else value
    return together


def raw_bytes(step):
    return step["raw"].encode() * step.get("times", 1)


class Program(support.Program):
    """A peer, and what it prints."""

    def __init__(self, case, command):
        super().__init__(case, command, stdin=subprocess.PIPE)
        self.read = 0
        self.outcomes = collections.defaultdict(collections.deque)
        self.events = collections.deque()

    def tell(self, line):
        self.write(json.dumps(line).encode() + b"\n")

    def line(self):
        self.read += 1
        return json.loads(self.prints(self.read)[-1])

    def next_of(self, queue):
        while not queue:
            self.note(self.line())
        return queue.popleft()

    def note(self, line):
        if "event" in line:
            self.events.append(line["event"])
        else:
            self.outcomes[line.pop("as")].append(line)

    def outcome(self, name=""):
        return self.next_of(self.outcomes[name])

    def rest(self):
        """What else it prints until it ends."""
        self.close_input()
        assert self.process.wait(support.DEADLINE) == 0
        for line in self.lines()[self.read:]:
            self.note(json.loads(line))
        return [*self.events, *(rest for queue in self.outcomes.values() for rest in queue)]


class Case(unittest.TestCase):
    def setUp(self):
        self.name = support.unique_name()

    def serve(self, program, *arguments):
        service = Program(self, [*program, "serve", self.name, *arguments])
        support.wait_until(lambda: support.listens(self.name))
        return service

    def expect(self, wanted, found):
        text = found.get("error")
        if wanted.get("error") == "?" and isinstance(text, str) and text:
            found = {**found, "error": "?"}
        self.assertEqual(comparable(found), comparable(wanted))

    def connect(self):
        client = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.addCleanup(client.close)
        client.connect(tovik.address(self.name))
        client.settimeout(support.DEADLINE)
        return client


class Services(Case):
    def test_hold_every_case(self):
        for language, peer in PEERS.items():
            self.setUp()
            with self.serve(peer):
                for case in self.cases():
                    with self.subTest(case=case["name"], peer=language):
                        self.run_steps(case["steps"])

    def cases(self):
        return SUITE["service"]

    def run_steps(self, steps):
        clients = {name: self.connect() for name in {step.get("as") for step in steps}}
        for step in steps:
            self.run_step(step, clients[step.get("as")])
        for client in clients.values() if "end" not in steps[-1] else ():
            client.send(json.dumps(SENTINEL).encode())
            self.expect({"type": "reply", "status": 38, "id": SENTINEL["id"], "error": "?"},
                        json.loads(client.recv(5000)))

    def run_step(self, step, client):
        self.assertTrue(step.keys() <= STEP and step.keys() - {"as", "times"}, step)
        if "send" in step:
            client.send(json.dumps(step["send"]).encode())
        elif "raw" in step:
            client.send(raw_bytes(step))
        elif "end" in step:
            self.assertEqual(client.recv(5000), b"")
        if "fails" in step:
            refusal = {"type": "reply", "status": step["fails"], "error": "?"}
            self.expect(refusal, json.loads(client.recv(5000)))
        elif "receive" in step:
            self.expect(step["receive"], json.loads(client.recv(5000)))

    def test_describe_themselves_alike(self):
        for language, peer in PEERS.items():
            with self.subTest(peer=language), self.serve(peer):
                outcome = tovik.call(self.name, {"command": "describe"}, support.DEADLINE)
                self.assertEqual(whole(outcome), {"name": self.name, **SUITE["description"]})


class Callers(Case):
    def test_that_do_not_block_hold_every_case(self):
        self.run_cases("proxy", SUITE["caller"])

    def test_that_block_hold_theirs(self):
        self.run_cases("call", [case for case in SUITE["caller"] if case.get("blocking")])

    def run_cases(self, role, cases):
        for language, peer in PEERS.items():
            for case in cases:
                with self.subTest(case=case["name"], peer=language):
                    self.setUp()
                    self.run_case(case, [*peer, role])

    def run_case(self, case, command):
        ids = {}
        with support.listener(self.name) as self.listener, \
                Program(self, [*command, self.name]) as caller:
            self.listener.settimeout(support.DEADLINE)
            for step in case["steps"]:
                self.run_step(step, step.get("as", ""), caller, ids)
            self.assertEqual(caller.rest(), [])

    def run_step(self, step, name, caller, ids):
        if "call" in step or "subscribe" in step:
            caller.tell(step)
        elif "accept" in step:
            self.server, _address = self.listener.accept()
            self.addCleanup(self.server.close)
            self.server.settimeout(support.DEADLINE)
        elif "close" in step:
            self.server.close()
        elif "raw" in step:
            self.server.send(raw_bytes(step))
        elif "reply" in step:
            self.server.send(json.dumps({**step["reply"], "id": ids[name]}).encode())
        elif "request" in step:
            request = json.loads(self.server.recv(5000))
            ids[name] = request.pop("id")
            self.expect(step["request"], request)
        elif "outcome" in step:
            self.expect(step["outcome"], caller.outcome(name))
        else:
            self.expect(step["event"], caller.next_of(caller.events))


class Pairs(Case):
    """Every caller with every service. The command, which is both, has a class of its own."""

    def call_from_all(self, rows):
        for language, peer in PEERS.items():
            for role in ("proxy", "call", "client"):
                with Program(self, [*peer, role, self.name]) as caller:
                    for row in rows:
                        with self.subTest(call=row["call"], caller=language, role=role):
                            caller.tell({"call": row["call"]})
                            self.expect(self.wanted(row, role), caller.outcome())

    @staticmethod
    def wanted(row, role):
        outcome = {"end": "reply", **row["outcome"]}
        if role == "client":
            return {"end": "reply", "status": row.get("plain", outcome["status"])}
        return outcome

    def test_agree_on_every_call(self):
        for language, peer in PEERS.items():
            self.setUp()
            with self.subTest(service=language), self.serve(peer):
                self.call_from_all(SUITE["calls"])


class Command(Pairs):
    def test_agree_on_every_call(self):
        """Of `tovik call`."""
        for language, peer in PEERS.items():
            self.setUp()
            with self.serve(peer):
                for row in SUITE["calls"]:
                    with self.subTest(call=row["call"], service=language):
                        self.expect(row["outcome"], self.outcome_of(row["call"]))

    def outcome_of(self, call):
        message = json.dumps({**call, "id": 1})
        done = subprocess.run([os.environ["TOVIK"], "call", self.name, message, "--json", "short"],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=support.DEADLINE)
        *parts, last = map(json.loads, done.stdout.splitlines())
        self.assertEqual(done.returncode, 0 if last["status"] == 0 else 1)
        self.assertEqual((last.pop("type"), last.pop("id")), ("reply", 1))
        return {**last, "parts": [part["result"] for part in parts]} if parts else last

    def test_stands_in_for_a_service(self):
        for row in SUITE["calls"]:
            if "serve" in row:
                self.setUp()
                with self.serve([os.environ["TOVIK"]], *row["serve"]):
                    self.call_from_all([row])

    def test_stands_in_with_a_description(self):
        with tempfile.NamedTemporaryFile("w") as file:
            file.write(json.dumps(SUITE["description"]))
            file.flush()
            with self.serve([os.environ["TOVIK"]], "--describe", file.name):
                outcome = tovik.call(self.name, {"command": "describe"}, support.DEADLINE)
        self.assertEqual({"name": self.name, **outcome.result},
                         {"name": self.name, **SUITE["description"]})

    def test_describes_services(self):
        for language, peer in PEERS.items():
            self.setUp()
            with self.subTest(service=language), self.serve(peer):
                page = subprocess.check_output(
                    [os.environ["TOVIK"], "describe", self.name, "--json", "short"])
                self.assertEqual(json.loads(page), {"name": self.name, **SUITE["description"]})

    def test_follows_topics_of_services_across_restarts(self):
        for language, peer in PEERS.items():
            self.setUp()
            monitor = [os.environ["TOVIK"], "monitor", self.name, "--topic", "state"]
            with self.subTest(service=language), Program(self, monitor) as tool:
                for value in (1, 3):
                    with self.serve(peer):
                        self.ask_for_event("state", value)
                        self.assertEqual(self.event(tool), {"value": value})
                        self.ask_for_event("plain", 0)
                        self.ask_for_event("state", value + 1)
                        self.assertEqual(self.event(tool), {"value": value + 1})

    def ask_for_event(self, topic, value):
        call = {"command": "publish", "topic": topic, "value": value}
        self.assertEqual(tovik.call(self.name, call, support.DEADLINE).status, 0)

    def event(self, tool):
        """Without its snapshot's mark: the command subscribes before or after it was published."""
        event = tool.line()
        self.assertEqual((event.pop("type"), event.pop("topic")), ("event", "state"))
        event.pop("snapshot", None)
        return event


class CommandAndALongDescription(support.AsyncCase):
    async def test_puts_its_parts_together(self):
        name = support.unique_name()
        async with tovik.Service(name, lambda peer: True) as service:
            for number in range(100):
                service.topic(f"t{number:02}", "x" * 100)
            tool = await asyncio.create_subprocess_exec(
                os.environ["TOVIK"], "describe", name, "--json", "short",
                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            output, errors = await self.within(tool.communicate())
        self.assertEqual((tool.returncode, errors), (0, b""))
        self.assertEqual([topic["name"] for topic in json.loads(output)["topics"]],
                         [f"t{number:02}" for number in range(100)])


class CommandAndAPlainServer(support.AsyncCase):
    """The plain server in Python with a blocking and an asynchronous client in C++."""

    async def test_agree(self):
        name = support.unique_name()

        def handle(client, message):
            server.notify({"heard": message["n"]})
            return message["n"]

        async with tovik.Server(name, tovik.admission.same_user(), handle) as server:
            monitor = await self.start("monitor", name)
            await self.until(lambda: any(each.subscribed for each in server.sessions))
            for n in (0, 7, 2147483647):
                call = await self.start("call", name, json.dumps({"n": n}), "--status-only")
                output, _errors = await self.within(call.communicate())
                self.assertEqual(output, f"{n}\n".encode())
                line = await self.within(monitor.stdout.readline())
                self.assertEqual(json.loads(line), {"heard": n})
            monitor.terminate()
            await self.within(monitor.communicate())

    @staticmethod
    async def start(*words):
        return await asyncio.create_subprocess_exec(
            os.environ["TOVIK"], *words, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
