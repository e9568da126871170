"""A service to be carried: lamp.py NAME [FILE [TOPICS]]. Each call of "carry" adds its value to the
file. So many topics keep a value from the beginning. Other commands are the conformance suite's."""

import asyncio
import os
import sys

import broker  # noqa: F401, which finds the package
import conformance_peer
import tovik


async def main():
    name, *more = sys.argv[1:]
    file, topics = (*more, os.devnull, "0")[:2] if len(more) != 1 else (*more, "0")
    service = tovik.Service(name, lambda peer: True, calls=100, description="A lamp.")
    conformance_peer.add_commands(service)
    conformance_peer.add_held(service)
    anything = tovik.Argument(object, "Anything.")

    @service.command("switch", "Switches it.", on=tovik.Argument(bool, "True switches it on."))
    def switch(request):
        service.publish("state", {"on": request["on"]})

    @service.command("carry", "Adds a line to the file.", value=anything)
    def carry(request):
        with open(file, "a") as lines:
            lines.write(f"{request['value']}\n")

    @service.command("emit", "Publishes.", topic=tovik.Argument(str, "Where."), event=anything)
    def emit(request):
        service.publish(request["topic"], request["event"])

    @service.command("flood", "Publishes on and on.", count=tovik.Argument(int, "How often."))
    async def flood(request):
        for number in range(request["count"]):
            service.publish("plain", {"n": number})
            if number % 50 == 0:
                await asyncio.sleep(0.002)

    service.topic("state", "Whether it is on.", keeps_last=True)
    service.topic("plain", "Nothing special.")
    service.topic("a/b+c#d.e%\x01ä", "An odd name.")
    for number in range(int(topics)):
        service.topic(f"topic {number}", "One of many.", keeps_last=True)
        service.publish(f"topic {number}", {"n": number})
    async with service:
        await asyncio.Event().wait()


asyncio.run(main())
