"""The convention's conformance suite across both bridges: each case of a service is run against the
imported name, and the service itself is at the other end. Two cases end differently:

- All callers elsewhere are one client to the service, so its bound of 16 calls is for all of them.
- A Python service cannot answer with a result that is null."""

import asyncio
import json
import socket
import sys
import unittest

import support
import tovik

SUITE = json.loads((support.SOURCE / "tests/service/conformance.json").read_text())


async def serve(name):
    """The service that the suite describes."""
    service = tovik.Service(name, lambda peer: True)
    anything, integer = tovik.Argument(object, "Anything."), tovik.Argument(int, "A number.")
    held = []

    @service.command("add", "", a=integer, b=tovik.Argument(int, "", required=False))
    def add(request):
        return request["a"] + request.message.get("b", 1)

    @service.command("count", "")
    def count(request):
        request.more(1)
        request.more(2)
        return 3

    @service.command("refuse", "")
    def refuse(request):
        raise tovik.Refusal(13, "not you")

    @service.command("drop", "")
    def drop(request):
        raise tovik.Refusal(5, "dropped")

    @service.command("hold", "")
    async def hold(request):
        held.append(asyncio.get_running_loop().create_future())
        return await held[-1]

    @service.command("release", "")
    def release(request):
        asyncio.get_running_loop().call_soon(let_go)

    def let_go():
        for number, one in enumerate(reversed(held), 1):
            one.set_result(number)
        held.clear()

    @service.command("publish", "", topic=tovik.Argument(str, ""), value=integer)
    def publish(request):
        if request["topic"] not in ("plain", "state"):
            raise tovik.Refusal(22, "no such topic")
        service.publish(request["topic"], {"value": request["value"]})

    @service.command("babble", "")
    def babble(request):
        raise tovik.Refusal(1002, "x" * 5000)

    service.command("long", "")(lambda request: "x" * 5000)
    service.command("switch", "", on=tovik.Argument(bool, ""))(lambda request: None)
    service.command("echo", "", value=anything)(lambda request: request["value"])
    service.topic("plain", "")
    service.topic("state", "", keeps_last=True)
    async with service:
        await asyncio.Event().wait()


class Conformance(support.Case):
    def start(self, name):
        return support.Program(self, [sys.executable, __file__, "serve", name])

    def test_holds_across_the_bridges(self):
        name, here = support.unique_name(), support.unique_name("here")
        self.bridge("--prefix", self.prefix, name)
        self.bridge("--import", f"{here}={self.prefix}/{name}")
        for case in SUITE["service"]:
            if case["name"] == "SixteenInFlight":
                case["steps"] = [step for step in case["steps"] if "as" not in step]
            if case["name"] == "AnyJson":
                case["steps"] = case["steps"][:2]
            with self.subTest(case["name"]):
                service = self.start(name)
                support.wait_until(lambda: support.listens(here), "opening")
                self.clients = {}
                try:
                    for step in case["steps"]:
                        self.run_step(here, step)
                finally:
                    for client in self.clients.values():
                        client.close()
                    service.kill()
                    support.wait_until(lambda: not support.listens(here), "closing")

    def client(self, here, name):
        if name not in self.clients:
            client = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
            self.clients[name] = client
            client.settimeout(support.DEADLINE)
            client.connect(tovik.address(here))
        return self.clients[name]

    def run_step(self, here, step):
        client = self.client(here, step.get("as", ""))
        if "send" in step:
            client.send(json.dumps(step["send"]).encode())
        elif "raw" in step:
            client.send(step["raw"].encode() * step.get("times", 1))
        elif "receive" in step:
            record = client.recv(5000)
            found = json.loads(record) if record else None
            if step["receive"].get("error") == "?" and found and found.get("error"):
                found["error"] = "?"
            self.assertEqual(found, step["receive"])
        elif "end" in step:
            self.assertEqual(client.recv(5000), b"")
        else:
            self.fail(f"an unknown step: {step}")


if __name__ == "__main__":
    if sys.argv[1:2] == ["serve"]:
        asyncio.run(serve(sys.argv[2]))
    else:
        unittest.main()
