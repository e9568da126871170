"""What the conformance suite is run with, from Python: the service that conformance.json describes,
or a caller that reads a JSON object a line from standard input and prints what comes of it.

    conformance_peer.py serve|proxy|call|client NAME
"""

import asyncio
import json
import sys

import support  # which finds the package
import tovik

ENDS = ((TimeoutError, "timed out", 110), (tovik.TooLong, "too long", 90),
        (tovik.ProtocolError, "refused", 22), (tovik.ConnectionLost, "lost", 104))


# the service

def add_commands(service):
    integer, anything = tovik.Argument(int, "One."), tovik.Argument(object, "Anything.")
    other = tovik.Argument(int, "The other; 1 unless given.", required=False)

    @service.command("add", "Adds two numbers.", a=integer, b=other)
    def add(request):
        return request["a"] + request.get("b", 1)

    @service.command("babble", "Fails with 1002 and a text that no record holds.")
    def babble(request):
        raise tovik.Refusal(1002, "\x01" * 5000)

    @service.command("count", "Gives 1, 2 and 3, in parts.")
    def count(request):
        request.more(1)
        request.more(2)
        return 3

    @service.command("drop", "Gives no answer.")
    def drop(request):
        raise RuntimeError("the closest that a Python handler has to giving none")

    @service.command("refuse", "Fails with 13 and a text.")
    async def refuse(request):
        raise tovik.Refusal(13, "not you")

    service.command("echo", "Gives back a value.", value=anything)(lambda request: request["value"])
    service.command("long", "Gives a text that no record holds.")(lambda request: "x" * 5000)


def add_held(service):
    held = []

    @service.command("hold", "Is answered by 'release'.")
    async def hold(request):
        held.append(asyncio.get_running_loop().create_future())
        return await held[-1]

    @service.command("release", "Gives those held 1, 2, ..., the last one first.")
    def release(request):
        for result, future in enumerate(reversed(held), 1):
            future.set_result(result)
        held.clear()


def add_topics(service):
    service.topic("plain", "Keeps nothing.")
    service.topic("state", "Keeps its last event.", keeps_last=True)

    @service.command("publish", "Publishes, then answers.",
                     topic=tovik.Argument(str, "Where."), value=tovik.Argument(int, "What."))
    def publish(request):
        try:
            service.publish(request["topic"], {"value": request["value"]})
        except KeyError as error:
            raise tovik.Refusal(22, "not published") from error


async def serve(name):
    service = tovik.Service(name, lambda peer: True, description="For conformance.")
    add_commands(service)
    add_held(service)
    add_topics(service)
    service.command("switch", "Does nothing.",
                    on=tovik.Argument(bool, "On or off."))(lambda request: None)
    async with service:
        await asyncio.Event().wait()


# callers

def show(line):
    print(json.dumps(line), flush=True)


def noted(step, end, status, **more):
    return {"as": step.get("as", ""), "end": end, "status": status,
            **{name: value for name, value in more.items() if value not in (None, "", [])}}


def replied(step, outcome):
    line = noted(step, "reply", outcome.status, error=outcome.error, parts=list(outcome.parts))
    return line if outcome.result is None else {**line, "result": outcome.result}


def failed(step, error):
    return next(noted(step, end, status, error=str(error)) for kind, end, status in ENDS
                if isinstance(error, kind))


async def proxy(name):
    async def call(step):
        try:
            show(replied(step, await caller.call(step["call"], step.get("limit", 10))))
        except (TimeoutError, tovik.TovikError) as error:
            show(failed(step, error))

    calls, lines = [], asyncio.StreamReader()
    await asyncio.get_running_loop().connect_read_pipe(
        lambda: asyncio.StreamReaderProtocol(lines), sys.stdin)
    async with tovik.aio.Proxy(name, reconnect=0.01) as caller:
        while line := await lines.readline():
            step = json.loads(line)
            if "subscribe" in step:
                caller.subscribe(step["subscribe"], lambda event: show({"event": event}))
            else:
                calls.append(asyncio.ensure_future(call(step)))
        for call in calls:
            call.cancel()


def call_blocking(name, step):
    try:
        show(replied(step, tovik.call(name, step["call"], step.get("limit", 10))))
    except (TimeoutError, tovik.TovikError) as error:
        show(failed(step, error))


def call_plainly(name, step):
    with tovik.Client(name, timeout=support.DEADLINE) as client:
        show(noted(step, "reply", client.call(step["call"])))


def main(role, name):
    if role in ("serve", "proxy"):
        return asyncio.run({"serve": serve, "proxy": proxy}[role](name))
    for line in sys.stdin:
        {"call": call_blocking, "client": call_plainly}[role](name, json.loads(line))


if __name__ == "__main__":
    main(*sys.argv[1:])
