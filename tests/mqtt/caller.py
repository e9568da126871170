"""Calls an imported lamp until it is told to end: caller.py NAME FIRST. Prints each call's value,
and its status. Four calls are in flight at a time, and the limit is longer than the bridge's."""

import asyncio
import signal
import sys

import broker  # noqa: F401, which finds the package
import tovik


async def main():
    ended = asyncio.Event()
    asyncio.get_running_loop().add_signal_handler(signal.SIGTERM, ended.set)
    values = iter(range(int(sys.argv[2]), sys.maxsize))

    async def call_on(proxy):
        while not ended.is_set():
            value = next(values)
            print("made", value, flush=True)
            try:
                outcome = await proxy.call({"command": "carry", "value": value}, 10)
                status = outcome.status
            except (tovik.TovikError, TimeoutError):  # the connection's end, or the limit
                status = 104
            print("ended", value, status, flush=True)
            await asyncio.sleep(0.01)

    async with tovik.aio.Proxy(sys.argv[1], reconnect=0.1) as proxy:
        await asyncio.gather(*(call_on(proxy) for _ in range(4)))


asyncio.run(main())
